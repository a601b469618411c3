// The metadata-search requests with every integer the wire can carry: an
// input is a list of operations, each an opcode byte, a key byte (plug-in
// and search id from a small range, so operations meet the same searches)
// and little-endian 32-bit arguments; a query value is a length byte and its
// bytes. Scans run on the searches' own threads over a small simulated EIT
// cache; the searches left are destroyed after the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app_mgr_search.h"
#include "c_callers.h"
#include "fuzz_support.h"

namespace {

class Reader {
public:
    Reader(const uint8_t* data, std::size_t size) : data_(data), left_(size) {}
    bool more() const { return left_ > 0; }
    uint8_t byte() {
        if (left_ == 0) return 0;
        --left_;
        return *data_++;
    }
    int32_t number() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(byte()) << (8 * i);
        return static_cast<int32_t>(value);
    }
    // A malloc'ed text, as hbbSetQueryInSubgroup takes it over.
    char* text() {
        const std::size_t length = byte();
        std::string value;
        for (std::size_t i = 0; i < length && left_ > 0; ++i) value += static_cast<char>(byte());
        return strdup(value.c_str());
    }

private:
    const uint8_t* data_;
    std::size_t left_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::simulate_receiver();
    Reader in(data, size);
    for (int operation = 0; operation < 64 && in.more(); ++operation) {
        const uint8_t opcode = in.byte();
        const uint8_t key = in.byte();
        const int plugin = key % 3;
        const int id = (key / 3) % 5;
        switch (opcode % 12) {
            case 0: hbbCreateNewSearch(plugin, id); break;
            case 1: {
                const int groups = in.number();
                const int start = in.number();
                const int count = in.number();
                const int onid = in.number();
                const int tsid = in.number();
                hbbSetSearchQuerySubGroupsNumber(plugin, id, groups, start, count, onid, tsid,
                                                 in.number());
                break;
            }
            case 2: {
                const int group = in.number();
                hbbSetSearchQueryNumbersInSubgroup(plugin, id, group, in.number());
                break;
            }
            case 3: {
                const int group = in.number();
                const int query = in.number();
                const int field = in.number();
                const int comparison = in.number();
                fuzz_c_set_query(plugin, id, group, query, field, comparison, in.text());
                break;
            }
            case 4: {
                const int offset = in.number();
                hbbStartSearch(plugin, id, offset, in.number());
                break;
            }
            case 5: {
                const int offset = in.number();
                hbbGetResultsOfSearch(plugin, id, offset, in.number());
                break;
            }
            case 6: {
                const int index = in.number();
                if (ShortProgramme* item = hbbGetSearchItem(plugin, id, index))
                    if (std::strlen(item->name) > 255) std::abort();
                if (const char* text = hbbGetSearchItemDescriptor(plugin, id, index))
                    if (std::strlen(text) > 1023) std::abort();
                if (const char* text = hbbGetSearchItemLongDescriptor(plugin, id, index))
                    if (std::strlen(text) > 4095) std::abort();
                break;
            }
            case 7: hbbAbortSearch(plugin, id); break;
            case 8: hbbDestroySearch(plugin, id); break;
            case 9: hbbSetNumberOfChannelConstraints(plugin, id, in.number()); break;
            case 10: {
                const int index = in.number();
                const int onid = in.number();
                const int tsid = in.number();
                hbbSetChannelConstraint(plugin, id, index, onid, tsid, in.number());
                break;
            }
            default: hbbRemoveChannelConstraints(plugin, id); break;
        }
    }
    appmgr::fuzz::forget_input_state();
    return 0;
}
