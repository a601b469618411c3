// What the soak counts before and after: the process's open file
// descriptors, threads, address space and resident memory, from /proc.
#pragma once

#include <string>

namespace appmgr::soak {

struct ProcessFigures {
    int descriptors = -1;
    int threads = -1;
    long address_space_kb = -1;  // VmSize
    long resident_kb = -1;       // VmRSS
};

ProcessFigures read_process_figures();

// A table of two readings, one line per figure, with the difference.
std::string compare(const ProcessFigures& before, const ProcessFigures& after);

}  // namespace appmgr::soak
