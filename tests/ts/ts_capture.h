// Whole sections out of test inputs: transport-stream files (assembled and
// CRC-checked by libdvbpsi) and files of concatenated sections.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace appmgr::test {

struct PidSection {
    int pid = 0;
    std::vector<std::uint8_t> bytes;  // header to CRC
};

// Every section with a good CRC on the given PIDs (all PIDs when empty), in
// stream order. crc_failures (may be null) counts the others.
std::vector<PidSection> read_ts_sections(const std::string& path, const std::vector<int>& pids = {},
                                         int* crc_failures = nullptr);
// A file of sections one after the other (as TSDuck's compiler writes
// them); pid is 0.
std::vector<PidSection> read_section_file(const std::string& path);
std::vector<std::uint8_t> read_bytes(const std::string& path);

// Collects the decoders' log lines (ts::log) while it exists.
class TsLogLines {
public:
    TsLogLines();
    ~TsLogLines();
    TsLogLines(const TsLogLines&) = delete;
    TsLogLines& operator=(const TsLogLines&) = delete;
    const std::vector<std::string>& lines() const { return lines_; }
    // Lines that contain `part`.
    int count(const std::string& part) const;

private:
    std::vector<std::string> lines_;
};

// A file of the stream-event and carousel test data (tests/data/streamevents).
std::string stream_event_data(const std::string& relative);

}  // namespace appmgr::test
