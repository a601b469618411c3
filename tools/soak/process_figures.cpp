#include "process_figures.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace appmgr::soak {

ProcessFigures read_process_figures() {
    ProcessFigures f;
    std::ifstream status("/proc/self/status");
    std::string line;
    auto field = [&line](const char* name, auto* out) {
        if (line.rfind(name, 0) == 0) *out = std::atol(line.c_str() + std::strlen(name));
    };
    while (std::getline(status, line)) {
        field("Threads:", &f.threads);
        field("VmSize:", &f.address_space_kb);
        field("VmRSS:", &f.resident_kb);
    }
    std::error_code ec;
    f.descriptors = 0;
    for (std::filesystem::directory_iterator it("/proc/self/fd", ec), end; !ec && it != end;
         it.increment(ec))
        ++f.descriptors;
    return f;
}

std::string compare(const ProcessFigures& before, const ProcessFigures& after) {
    std::string out = "                        before      after   change\n";
    auto row = [&out](const char* name, long b, long a) {
        char line[128];
        std::snprintf(line, sizeof line, "  %-18s %10ld %10ld %+8ld\n", name, b, a, a - b);
        out += line;
    };
    row("file descriptors", before.descriptors, after.descriptors);
    row("threads", before.threads, after.threads);
    row("address space kB", before.address_space_kb, after.address_space_kb);
    row("resident kB", before.resident_kb, after.resident_kb);
    return out;
}

}  // namespace appmgr::soak
