// The carousels and stream events of a capture, the component tag of each
// of their PIDs, and carousel trees written out as files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

namespace {

// Carousels collected at once. A service carries one or two; a stream of
// garbage that looks like many must not buy a carousel's memory each.
constexpr std::size_t kMaxCarousels = 16;
constexpr std::size_t kMaxLoggedReasons = 256;

bool event_tap(const Tap& tap) {
    return tap.use == kTapStreamEvent || tap.use == kTapStreamStatusAndEvent;
}

bool usable_event_name(const std::string& name) {
    if (name.empty()) return false;
    for (unsigned char c : name)
        if (c < 0x20 || c == 0x7F) return false;
    return true;
}

// Writes bytes to a new or replaced file, never through a symbolic link.
bool write_file(const std::string& path, const uint8_t* data, std::size_t size, std::string* why) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        *why = std::strerror(errno);
        return false;
    }
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *why = std::strerror(errno);
            ::close(fd);
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
        *why = std::strerror(errno);
        return false;
    }
    return true;
}

// A directory that exists as a real directory (not a link) or is made.
bool make_directory(const std::string& path, std::string* why) {
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return true;
        *why = "exists and is not a directory";
        return false;
    }
    if (::mkdir(path.c_str(), 0755) == 0) return true;
    *why = std::strerror(errno);
    return false;
}

}  // namespace

int event_stream_tag(const BiopObject& object) {
    for (const Tap& tap : object.taps)
        if (event_tap(tap)) return tap.association_tag;
    return -1;
}

// ---- collector ---------------------------------------------------------------------

DsmccCollector::DsmccCollector(Capture& capture, CarouselLimits limits) : capture_(capture), limits_(limits) {
    auto download = [this](const Section& s) { download_section(s); };
    capture_.demux().on_table(kTableDownloadControl, download);
    capture_.demux().on_table(kTableDownloadData, download);
    capture_.demux().on_table(kTableStreamDescriptors, [this](const Section& s) { stream_section(s); });
}

DsmccCollector::~DsmccCollector() = default;

void DsmccCollector::download_section(const Section& section) {
    auto found = carousels_.find(section.pid);
    if (found == carousels_.end()) {
        if (carousels_.size() >= kMaxCarousels) {
            if (counts_.carousels_refused++ == 0)
                log(3, "more than " + std::to_string(kMaxCarousels) + " PIDs carry carousels: pid " +
                           hex(section.pid, 4) + " and later ones skipped");
            return;
        }
        found = carousels_.emplace(section.pid, std::make_unique<ObjectCarousel>(section.pid, limits_)).first;
    }
    const std::vector<ModuleChange> changes = found->second->feed(section.data, section.size);
    if (changes.empty()) return;
    event_tags_.clear();
    for (const auto& [pid, carousel] : carousels_)
        for (const CarouselEntry& e : carousel->tree().entries)
            if (e.kind == CarouselEntry::Kind::StreamEvent && event_stream_tag(*e.object) >= 0)
                event_tags_.insert(event_stream_tag(*e.object));
    if (carousel_fn_) carousel_fn_(*found->second, changes);
}

void DsmccCollector::stream_section(const Section& section) {
    ++counts_.stream_sections;
    stream_pids_.insert(section.pid);
    auto decoded = decode_stream_descriptors(section.data, section.size);
    for (const std::string& reason : decoded.skipped) {
        ++counts_.stream_skipped;
        const std::string line = "stream events pid " + hex(section.pid, 4) + ": " + reason;
        if (logged_.size() < kMaxLoggedReasons && logged_.insert(line).second) log(3, line);
    }
    if (!decoded.ok) return;
    for (const StreamEvent& event : watch_.feed(section.pid, decoded.value, section.data, section.size)) {
        ++counts_.stream_events;
        if (event_fn_) event_fn_(event);
    }
}

int DsmccCollector::pmt_tag(uint16_t pid) const {
    for (const auto& [sid, service] : capture_.services())
        for (const Component& c : service.components)
            if (c.pid == pid && c.component_tag >= 0) return c.component_tag;
    return -1;
}

int DsmccCollector::component_tag(uint16_t pid) const {
    const int from_pmt = pmt_tag(pid);
    if (from_pmt >= 0) return from_pmt;
    const auto carousel = carousels_.find(pid);
    if (carousel != carousels_.end()) return carousel->second->association_tag();
    if (stream_pids_.count(pid) == 0) return -1;
    // A cut-down capture without its PMT: the stream-event objects say on
    // which tag their events come; with one such tag and one PID to place,
    // they belong together.
    std::set<uint16_t> unplaced_pids;
    for (uint16_t p : stream_pids_)
        if (pmt_tag(p) < 0) unplaced_pids.insert(p);
    std::set<int> named_tags = event_tags_;
    for (auto it = named_tags.begin(); it != named_tags.end();) {
        bool placed = false;
        for (const auto& [sid, service] : capture_.services())
            for (const Component& c : service.components) placed |= c.component_tag == *it;
        it = placed ? named_tags.erase(it) : std::next(it);
    }
    if (unplaced_pids.size() == 1 && named_tags.size() == 1) return *named_tags.begin();
    return -1;
}

// ---- writing a tree --------------------------------------------------------------------

bool write_carousel(const CarouselTree& tree, const std::string& dir, Skipped* problems) {
    bool good = true;
    auto problem = [&](const std::string& text, bool failure) {
        if (problems) problems->push_back(text);
        if (failure) good = false;
    };
    std::string why;
    std::string root = dir;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    std::error_code error;
    std::filesystem::create_directories(root, error);
    if (error || !make_directory(root, &why)) {
        problem("\"" + printable(root) + "\": " + (error ? error.message() : why), true);
        return false;
    }
    for (const CarouselEntry& entry : tree.entries) {
        if (entry.path.empty()) continue;  // the root itself
        const std::string path = root + "/" + entry.path;
        const BiopObject& object = *entry.object;
        switch (entry.kind) {
        case CarouselEntry::Kind::Directory:
            if (!make_directory(path, &why)) problem("\"" + printable(entry.path) + "\": " + why, true);
            break;
        case CarouselEntry::Kind::File:
            if (!write_file(path, object.content.data(), object.content.size(), &why))
                problem("\"" + printable(entry.path) + "\": " + why, true);
            if (entry.path.size() >= 4 && entry.path.compare(entry.path.size() - 4, 4, ".ste") == 0)
                problem("\"" + printable(entry.path) + "\" is a file whose name the simulated carousel takes for a "
                        "stream-event object", false);
            break;
        case CarouselEntry::Kind::StreamEvent: {
            std::string names;
            for (const std::string& name : object.event_names) {
                if (usable_event_name(name)) {
                    names += name + "\n";
                } else {
                    problem("\"" + printable(entry.path) + "\": event name \"" + printable(name) +
                                "\" cannot be written",
                            false);
                }
            }
            if (!write_file(path + ".ste", reinterpret_cast<const uint8_t*>(names.data()), names.size(), &why))
                problem("\"" + printable(entry.path) + ".ste\": " + why, true);
            break;
        }
        case CarouselEntry::Kind::Stream:
            problem("\"" + printable(entry.path) + "\": stream object left out (it has no file form)", false);
            break;
        }
    }
    return good;
}

std::string entry_line(int component_tag, const CarouselEntry& entry) {
    std::ostringstream s;
    const BiopObject& object = *entry.object;
    s << (entry.kind == CarouselEntry::Kind::StreamEvent ? "ste" : kind_name(entry.kind))
      << " tag=" << (component_tag >= 0 ? hex(static_cast<uint64_t>(component_tag)) : std::string("unknown"))
      << " path=\"/" << printable(entry.path) << "\"";
    if (entry.kind == CarouselEntry::Kind::File) s << " size=" << object.content.size();
    if (entry.kind == CarouselEntry::Kind::StreamEvent) {
        s << " events=";
        for (std::size_t i = 0; i < object.event_names.size() && i < object.event_ids.size(); ++i)
            s << (i ? "," : "") << printable(object.event_names[i]) << ":" << object.event_ids[i];
    }
    if (entry.kind == CarouselEntry::Kind::StreamEvent || entry.kind == CarouselEntry::Kind::Stream) {
        const int tag = event_stream_tag(object);
        s << " event_tag=" << (tag >= 0 ? hex(static_cast<uint64_t>(tag)) : std::string("none"));
    }
    s << " module=" << entry.module_id << " version=" << unsigned(entry.module_version);
    return s.str();
}

}  // namespace ts::dsmcc
