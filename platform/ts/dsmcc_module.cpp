// Module assembly: the blocks (DDBs) of one module version, checked against
// what its DII announced, and the inflation of compressed modules.
#include <zlib.h>

#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

ModuleAssembler::ModuleAssembler(const ModuleInfo& module, uint16_t block_size)
    : module_(module), block_size_(block_size) {
    const std::size_t count =
        block_size == 0 ? 0 : (static_cast<std::size_t>(module.size) + block_size - 1) / block_size;
    blocks_.resize(count);
    present_.assign(count, false);
}

ModuleAssembler::Result ModuleAssembler::add(const Ddb& block, std::string* why) {
    auto refuse = [&](const std::string& reason) {
        if (why) *why = reason;
        return Result::Refused;
    };
    if (block.module_id != module_.module_id) return refuse("block of module " + std::to_string(block.module_id));
    if (block.module_version != module_.version)
        return refuse("block of version " + std::to_string(block.module_version) + ", the DII announces " +
                      std::to_string(module_.version));
    if (block.block_number >= blocks_.size())
        return refuse("block " + std::to_string(block.block_number) + " beyond the " +
                      std::to_string(blocks_.size()) + " blocks of " + std::to_string(module_.size) +
                      " bytes");
    const bool last = block.block_number + 1u == blocks_.size();
    const std::size_t expected =
        last ? module_.size - static_cast<std::size_t>(block_size_) * block.block_number : block_size_;
    if (block.data.size() != expected)
        return refuse("block " + std::to_string(block.block_number) + " carries " +
                      std::to_string(block.data.size()) + " bytes instead of " + std::to_string(expected));
    if (present_[block.block_number]) return Result::Repeated;
    blocks_[block.block_number] = block.data;
    present_[block.block_number] = true;
    ++received_blocks_;
    received_bytes_ += block.data.size();
    return Result::Added;
}

Bytes ModuleAssembler::assemble() const {
    Bytes out;
    if (!complete()) return out;
    out.reserve(module_.size);
    for (const Bytes& block : blocks_) out.insert(out.end(), block.begin(), block.end());
    return out;
}

Decoded<Bytes> inflate_module(const uint8_t* data, std::size_t size, std::size_t stated_size) {
    Decoded<Bytes> out;
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        out.skipped.push_back("inflate: zlib could not start");
        return out;
    }
    // One byte more than stated, so that a module inflating past its size
    // shows at once and inflation stops there.
    out.value.resize(stated_size + 1);
    stream.next_in = const_cast<Bytef*>(data);
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = out.value.data();
    stream.avail_out = static_cast<uInt>(out.value.size());
    const int result = inflate(&stream, Z_FINISH);
    const std::size_t produced = out.value.size() - stream.avail_out;
    const std::string message = stream.msg ? stream.msg : "";
    inflateEnd(&stream);
    if (produced > stated_size) {
        out.skipped.push_back("inflate: module inflates past its stated size of " + std::to_string(stated_size) +
                              " bytes");
    } else if (result == Z_STREAM_END && produced != stated_size) {
        out.skipped.push_back("inflate: module inflates to " + std::to_string(produced) +
                              " bytes, its stated size is " + std::to_string(stated_size));
    } else if (result == Z_STREAM_END) {
        out.value.resize(produced);
        out.ok = true;
        return out;
    } else if (result == Z_DATA_ERROR || result == Z_NEED_DICT) {
        out.skipped.push_back("inflate: not a valid zlib stream (" + (message.empty() ? "data error" : message) +
                              ")");
    } else {
        out.skipped.push_back("inflate: compressed data ends early (after " + std::to_string(produced) +
                              " bytes)");
    }
    out.value.clear();
    out.value.shrink_to_fit();
    return out;
}

}  // namespace ts::dsmcc
