#include "ts_capture.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "ts_decode.h"
#include "ts_test_support.h"

namespace appmgr::test {

std::vector<std::uint8_t> read_bytes(const std::string& path) { return tstest::read_file(path); }

std::vector<PidSection> read_ts_sections(const std::string& path, const std::vector<int>& pids,
                                         int* crc_failures) {
    std::vector<PidSection> out;
    ts::Demux demux;
    auto keep = [&](const ts::Section& s) {
        if (pids.empty() || std::find(pids.begin(), pids.end(), s.pid) != pids.end())
            out.push_back(PidSection{s.pid, std::vector<std::uint8_t>(s.data, s.data + s.size)});
    };
    if (pids.empty()) {
        for (int table = 0; table < 256; ++table) demux.on_table(static_cast<uint8_t>(table), keep);
        std::set<uint8_t> every;
        for (int table = 0; table < 255; ++table) every.insert(static_cast<uint8_t>(table));
        demux.discover(every);
    } else {
        for (int pid : pids) {
            demux.watch_pid(static_cast<uint16_t>(pid));
            demux.on_pid(static_cast<uint16_t>(pid), keep);
        }
    }
    const std::vector<std::uint8_t> data = read_bytes(path);
    for (std::size_t at = 0; at + ts::kPacketSize <= data.size(); at += ts::kPacketSize)
        if (data[at] == ts::kSyncByte) demux.push(&data[at]);
    if (crc_failures) {
        *crc_failures = 0;
        for (const auto& [key, stats] : demux.table_stats()) *crc_failures += static_cast<int>(stats.crc_failures);
    }
    return out;
}

std::vector<PidSection> read_section_file(const std::string& path) {
    std::vector<PidSection> out;
    for (auto& bytes : tstest::split_sections(read_bytes(path))) out.push_back(PidSection{0, std::move(bytes)});
    return out;
}

TsLogLines::TsLogLines() {
    ts::set_log_sink([this](int, const std::string& line) { lines_.push_back(line); });
}

TsLogLines::~TsLogLines() { ts::set_log_default(); }

int TsLogLines::count(const std::string& part) const {
    return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const std::string& line) {
        return line.find(part) != std::string::npos;
    }));
}

std::string stream_event_data(const std::string& relative) {
    return std::string(APPMGR_STREAM_EVENT_DATA_DIR) + "/" + relative;
}

}  // namespace appmgr::test
