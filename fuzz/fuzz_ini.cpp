// Arbitrary bytes as an INI file, read from an in-memory file, dumped as an
// INI file again and read back (a few entries cannot come back unchanged,
// docs/ini.md says which, so the two are not compared).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz_support.h"
#include "parse_ini.h"

namespace {

// A file in memory with the given bytes; its path is /proc/self/fd/N.
struct MemoryFile {
    int fd = memfd_create("appmgr-fuzz-ini", MFD_CLOEXEC);
    ~MemoryFile() {
        if (fd >= 0) close(fd);
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }
    bool fill(const void* data, std::size_t size) {
        return fd >= 0 && ftruncate(fd, 0) == 0 && lseek(fd, 0, SEEK_SET) == 0 &&
               write(fd, data, size) == static_cast<ssize_t>(size);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::keep_offline();
    MemoryFile file;
    if (!file.fill(data, size)) return 0;
    ini_dict* d = parse_ini_load(file.path().c_str());
    if (d == nullptr) return 0;
    for (int i = 0; i < parse_ini_getnsec(d); ++i) parse_ini_getsecname(d, i);
    parse_ini_getint(d, "section:key", 0);
    parse_ini_getboolean(d, "section:key", -1);
    parse_ini_getdouble(d, "section:key", 0.0);

    MemoryFile dumped;
    FILE* out = dumped.fd >= 0 ? fdopen(dup(dumped.fd), "w") : nullptr;
    if (out != nullptr) {
        parse_ini_dump_ini(d, out);
        std::fclose(out);
        parse_ini_freedict(parse_ini_load(dumped.path().c_str()));
    }
    parse_ini_freedict(d);
    return 0;
}
