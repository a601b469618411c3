// appmgr-ts: what a transport-stream capture carries, one line per item.
//
//   appmgr-ts list FILE                  services, their PIDs, per-table counts
//   appmgr-ts ait FILE [--service SID]   AIT versions and their applications
//   appmgr-ts eit FILE [--service SID]   distinct EIT events
//   appmgr-ts carousel FILE [--out DIR]  object carousels: their trees, and
//                                        their files under DIR/<tag in hex>/
//   appmgr-ts events FILE                distinct stream events
//
// FILE is a file, "-" (standard input) or udp://127.0.0.1:PORT. Problems
// with the input are logged to stderr and counted; the output stays on
// stdout. Each sub-command is one row of the table at the bottom.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "ts_decode.h"

namespace {

struct Options {
    std::string source;
    int service = -1;
    bool dump = false;     // ait: every decoded field of each section too
    std::string out;       // carousel: where the files go
    bool realtime = false;
    int udp_idle_ms = 5000;
};

std::string hex(unsigned value, int digits = 0) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out.push_back('\\');
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out.push_back(c);
    }
    return out + "\"";
}

// Reads the whole input through a capture; false (after a message) on a
// read error.
bool play(const Options& options, ts::Capture& capture) {
    ts::PacketReader reader;
    reader.set_idle_timeout_ms(options.udp_idle_ms);
    if (!reader.open(options.source)) {
        std::cerr << "appmgr-ts: " << reader.error() << '\n';
        return false;
    }
    ts::Pacer pacer(options.realtime);
    uint8_t packet[ts::kPacketSize];
    while (reader.next(packet)) {
        pacer.pace(packet);
        capture.push(packet);
    }
    const ts::ReaderStats& r = reader.stats();
    if (r.resyncs || r.truncated_bytes)
        std::cerr << "appmgr-ts: " << r.resyncs << " resyncs (" << r.skipped_bytes
                  << " bytes skipped), " << r.truncated_bytes << " bytes of a truncated packet at the end\n";
    if (!reader.error().empty()) {
        std::cerr << "appmgr-ts: " << reader.error() << '\n';
        return false;
    }
    return true;
}

int list(const Options& options) {
    ts::Capture capture;
    if (!play(options, capture)) return 1;
    for (const auto& [sid, s] : capture.services()) {
        std::string line = "service " + hex(sid, 4) + " name=" + quoted(s.name);
        if (!s.provider.empty()) line += " provider=" + quoted(s.provider);
        line += " pmt=" + hex(s.pmt_pid);
        if (s.type >= 0) line += " type=" + hex(static_cast<unsigned>(s.type), 2);
        if (s.onid >= 0) line += " onid=" + hex(static_cast<unsigned>(s.onid));
        if (s.tsid >= 0) line += " tsid=" + hex(static_cast<unsigned>(s.tsid));
        std::cout << line << '\n';
        for (const auto& c : s.components) {
            if (c.kind == ts::ComponentKind::Other) continue;
            std::string comp = "  " + ts::component_kind_name(c.kind) + " service=" + hex(sid, 4) +
                               " pid=" + hex(c.pid) + " stream_type=" + hex(c.stream_type, 2);
            if (c.component_tag >= 0) comp += " tag=" + hex(static_cast<unsigned>(c.component_tag), 2);
            for (const auto& [type, version] : c.ait_types)
                comp += " ait_type=" + hex(static_cast<unsigned>(type), 4) + "/v" + std::to_string(version);
            if (c.carousel_id >= 0) comp += " carousel_id=" + hex(static_cast<unsigned>(c.carousel_id));
            std::cout << comp << '\n';
        }
    }
    // PIDs found by their tables, without a PMT that names them.
    for (const auto& [key, stats] : capture.demux().table_stats()) {
        const auto [pid, table] = key;
        if (capture.service_of_pid(pid) >= 0 || stats.versions == 0) continue;
        const char* kind = table == 0x74 ? "ait" : (table >= 0x3B && table <= 0x3C) ? "carousel"
                                                   : table == 0x3D ? "stream-events" : nullptr;
        if (kind) std::cout << kind << " service=none pid=" << hex(pid) << '\n';
    }
    for (const auto& [key, stats] : capture.demux().table_stats())
        std::cout << "table pid=" << hex(key.first) << " id=" << hex(key.second, 2)
                  << " sections=" << stats.sections << " versions=" << stats.versions
                  << " crc_failures=" << stats.crc_failures << '\n';
    for (const auto& [what, count] : capture.skipped())
        std::cout << "skipped count=" << count << " reason=" << quoted(what) << '\n';
    std::cout << "packets=" << capture.demux().packets() << " pid_errors=" << capture.demux().pid_errors()
              << '\n';
    return 0;
}

int ait(const Options& options) {
    ts::Capture capture;
    capture.on_ait_version([&](const ts::AitVersion& v) {
        if (options.service >= 0 && v.service >= 0 && v.service != options.service) return;
        const int sid = v.service >= 0 ? v.service : options.service;
        ts::Triplet own;
        const auto& services = capture.services();
        const auto it = sid >= 0 ? services.find(static_cast<uint16_t>(sid)) : services.end();
        own.sid = sid >= 0 ? sid : 0;
        own.tsid = it != services.end() && it->second.tsid >= 0 ? it->second.tsid : std::max(capture.tsid(), 0);
        own.onid = it != services.end() && it->second.onid >= 0 ? it->second.onid : std::max(capture.onid(), 0);
        std::size_t apps = 0;
        for (const auto& s : v.sections) apps += s.apps.size();
        const ts::AitRecord& first = v.sections.front();
        std::cout << "ait pid=" << hex(v.pid) << " service="
                  << (v.service >= 0 ? hex(static_cast<unsigned>(v.service), 4) : std::string("unknown"))
                  << " type=" << hex(static_cast<unsigned>(first.app_type), 4)
                  << " version=" << static_cast<int>(first.version) << " test=" << (first.test ? 1 : 0)
                  << " sections=" << v.sections.size() << " apps=" << apps << '\n';
        for (const auto& s : v.sections) {
            for (const auto& app : s.apps) std::cout << "  " << ts::dump_ait_app(s, app, own) << '\n';
            if (options.dump) std::cout << ts::dump_ait(s);
        }
    });
    return play(options, capture) ? 0 : 1;
}

int eit(const Options& options) {
    ts::Capture capture;
    capture.on_eit_event([&](const ts::EitRecord& table, const ts::EitEvent& event) {
        if (options.service >= 0 && table.sid != options.service) return;
        std::cout << ts::dump_eit_event(table, event) << '\n';
    });
    return play(options, capture) ? 0 : 1;
}

int carousel(const Options& options) {
    ts::Capture capture;
    ts::dsmcc::DsmccCollector collector(capture);
    if (!play(options, capture)) return 1;
    int status = 0;
    for (const auto& [pid, c] : collector.carousels()) {
        const int service = capture.service_of_pid(pid);
        if (options.service >= 0 && service >= 0 && service != options.service) continue;
        const int tag = collector.component_tag(pid);
        const ts::dsmcc::CarouselTree tree = c->tree();
        const ts::dsmcc::CarouselCounts counts = c->counts();
        std::size_t files = 0, events = 0;
        for (const auto& e : tree.entries) {
            files += e.kind == ts::dsmcc::CarouselEntry::Kind::File;
            events += e.kind == ts::dsmcc::CarouselEntry::Kind::StreamEvent;
        }
        std::cout << "carousel pid=" << hex(pid) << " tag="
                  << (tag >= 0 ? hex(static_cast<unsigned>(tag)) : std::string("unknown"))
                  << " service=" << (service >= 0 ? hex(static_cast<unsigned>(service), 4) : std::string("none"))
                  << " carousel_id=" << hex(tree.carousel_id) << " complete=" << (tree.has_gateway ? 1 : 0)
                  << " files=" << files << " stream_event_objects=" << events
                  << " modules=" << counts.modules_complete << " missing=" << tree.missing.size()
                  << " skipped=" << counts.skipped + tree.skipped.size() << '\n';
        for (const auto& e : tree.entries) std::cout << "  " << ts::dsmcc::entry_line(tag, e) << '\n';
        for (const auto& m : tree.missing) std::cout << "  missing " << quoted(m) << '\n';
        for (const auto& m : c->incomplete_modules()) std::cout << "  incomplete " << quoted(m) << '\n';
        for (const auto& r : tree.skipped) std::cout << "  skipped " << quoted(r) << '\n';
        if (options.out.empty() || !tree.has_gateway) continue;
        char name[16];
        std::snprintf(name, sizeof name, "%x", tag >= 0 ? static_cast<unsigned>(tag) : 0u);
        const std::string dir = options.out + "/" + (tag >= 0 ? name : "pid-" + hex(pid));
        ts::Skipped problems;
        if (!ts::dsmcc::write_carousel(tree, dir, &problems)) status = 1;
        for (const auto& p : problems) std::cerr << "appmgr-ts: " << dir << ": " << p << '\n';
    }
    return status;
}

int events(const Options& options) {
    ts::Capture capture;
    ts::dsmcc::DsmccCollector collector(capture);
    std::map<uint16_t, uint64_t> per_pid;
    collector.on_stream_event([&](const ts::dsmcc::StreamEvent& e) {
        const int service = capture.service_of_pid(static_cast<uint16_t>(e.pid));
        if (options.service >= 0 && service >= 0 && service != options.service) return;
        ++per_pid[static_cast<uint16_t>(e.pid)];
        std::cout << ts::dsmcc::event_line(e) << '\n';
    });
    if (!play(options, capture)) return 1;
    for (const auto& [pid, count] : per_pid) {
        const int tag = collector.component_tag(pid);
        std::cout << "streamevents pid=" << hex(pid)
                  << " tag=" << (tag >= 0 ? hex(static_cast<unsigned>(tag)) : std::string("unknown"))
                  << " events=" << count << '\n';
    }
    const auto& counts = collector.counts();
    std::cout << "sections=" << counts.stream_sections << " events=" << counts.stream_events
              << " skipped=" << counts.stream_skipped << '\n';
    return 0;
}

struct Command {
    const char* name;
    const char* usage;
    std::function<int(const Options&)> run;
};

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        {"list", "list FILE", list},
        {"ait", "ait FILE [--service SID] [--dump]", ait},
        {"eit", "eit FILE [--service SID]", eit},
        {"carousel", "carousel FILE [--out DIR] [--service SID]", carousel},
        {"events", "events FILE [--service SID]", events},
    };
    return table;
}

int usage() {
    std::cerr << "usage:\n";
    for (const auto& c : commands()) std::cerr << "  appmgr-ts " << c.usage << '\n';
    std::cerr << "FILE: a file, - (standard input) or udp://127.0.0.1:PORT\n"
                 "options: --realtime (pace by the PCR), --udp-idle MS (end of a UDP stream)\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return usage();
    const std::string name = argv[1];
    Options options;
    options.source = argv[2];
    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--service" && i + 1 < argc) {
            char* end = nullptr;
            const long sid = std::strtol(argv[++i], &end, 0);
            if (*end != '\0' || sid < 0 || sid > 0xFFFF) return usage();
            options.service = static_cast<int>(sid);
        } else if (arg == "--out" && i + 1 < argc) {
            options.out = argv[++i];
        } else if (arg == "--dump") {
            options.dump = true;
        } else if (arg == "--realtime") {
            options.realtime = true;
        } else if (arg == "--udp-idle" && i + 1 < argc) {
            options.udp_idle_ms = std::atoi(argv[++i]);
        } else {
            return usage();
        }
    }
    for (const auto& c : commands())
        if (name == c.name) return c.run(options);
    return usage();
}
