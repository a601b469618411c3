// A bounded big-endian reader over a byte range, for the DSM-CC decoders.
// Every read checks the bytes left first; a read past the end fails, sets
// the reader's failed flag and leaves the output untouched, so a decoder can
// read a whole structure and test once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ts::dsmcc {

class Reader {
public:
    Reader(const uint8_t* data, std::size_t size) : data_(data), size_(data ? size : 0) {}

    std::size_t left() const { return size_ - pos_; }
    std::size_t position() const { return pos_; }
    bool failed() const { return failed_; }
    const uint8_t* here() const { return data_ + pos_; }

    bool u8(uint8_t& out) { return number(1, out); }
    bool u16(uint16_t& out) { return number(2, out); }
    bool u32(uint32_t& out) { return number(4, out); }
    bool u64(uint64_t& out) { return number(8, out); }

    bool skip(std::size_t count) {
        if (!need(count)) return false;
        pos_ += count;
        return true;
    }
    bool bytes(std::size_t count, std::vector<uint8_t>& out) {
        if (!need(count)) return false;
        out.assign(data_ + pos_, data_ + pos_ + count);
        pos_ += count;
        return true;
    }
    // A sub-reader over the next `count` bytes, which this reader then skips.
    bool sub(std::size_t count, Reader& out) {
        if (!need(count)) return false;
        out = Reader(data_ + pos_, count);
        pos_ += count;
        return true;
    }

private:
    bool need(std::size_t count) {
        if (failed_ || count > left()) {
            failed_ = true;
            return false;
        }
        return true;
    }
    template <typename T>
    bool number(std::size_t width, T& out) {
        if (!need(width)) return false;
        T value = 0;
        for (std::size_t i = 0; i < width; ++i) value = static_cast<T>((value << 8) | data_[pos_ + i]);
        pos_ += width;
        out = value;
        return true;
    }

    const uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t pos_ = 0;
    bool failed_ = false;
};

// "0x" and lower-case hexadecimal digits, at least `digits` of them.
std::string hex(uint64_t value, int digits = 1);
// Bytes as lower-case hexadecimal pairs without separators.
std::string hex_bytes(const uint8_t* data, std::size_t size);
inline std::string hex_bytes(const std::vector<uint8_t>& bytes) {
    return hex_bytes(bytes.data(), bytes.size());
}
// A name or text for a dump: printable ASCII as it is, quotes, backslashes
// and everything else escaped as \xNN.
std::string printable(const std::string& text);

}  // namespace ts::dsmcc
