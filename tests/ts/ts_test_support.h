// Helpers of the transport-stream tests: the test data, section files and
// CRCs for hand-made sections.
#pragma once

#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "ts_decode.h"

namespace tstest {

inline std::string data_path(const std::string& relative) {
    return std::string(APPMGR_THIRD_PARTY_DATA) + "/" + relative;
}

inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::string read_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// "74 f0 29 ..." (whitespace-separated hex bytes) to bytes.
inline std::vector<uint8_t> read_hex(const std::string& path) {
    std::istringstream in(read_text(path));
    std::vector<uint8_t> out;
    std::string byte;
    while (in >> byte) out.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    return out;
}

// Concatenated sections, split by their length fields.
inline std::vector<std::vector<uint8_t>> split_sections(const std::vector<uint8_t>& bytes) {
    std::vector<std::vector<uint8_t>> out;
    std::size_t at = 0;
    while (at + 3 <= bytes.size()) {
        const std::size_t length = (static_cast<std::size_t>(bytes[at + 1] & 0x0F) << 8 | bytes[at + 2]) + 3;
        if (at + length > bytes.size()) break;
        out.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                         bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
        at += length;
    }
    return out;
}

// MPEG-2 CRC32 of the section without its last four bytes, written there.
inline void seal(std::vector<uint8_t>* section) {
    uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i + 4 < section->size(); ++i) {
        crc ^= static_cast<uint32_t>((*section)[i]) << 24;
        for (int b = 0; b < 8; ++b) crc = (crc & 0x80000000) ? (crc << 1) ^ 0x04C11DB7 : crc << 1;
    }
    const std::size_t n = section->size();
    (*section)[n - 4] = static_cast<uint8_t>(crc >> 24);
    (*section)[n - 3] = static_cast<uint8_t>(crc >> 16);
    (*section)[n - 2] = static_cast<uint8_t>(crc >> 8);
    (*section)[n - 1] = static_cast<uint8_t>(crc);
}

// The packets of a file, pushed through a capture.
inline void play_file(ts::Capture& capture, const std::string& path) {
    const auto bytes = read_file(path);
    for (std::size_t at = 0; at + ts::kPacketSize <= bytes.size(); at += ts::kPacketSize)
        capture.push(bytes.data() + at);
}

}  // namespace tstest
