// Arbitrary bytes as an INI file.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "hbb_sim.h"
#include "parse_ini.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool once = [] {
        hbb_sim_set_log_stderr(0);
        return true;
    }();
    (void)once;
    char path[] = "/tmp/appmgr-fuzz-ini-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return 0;
    ssize_t written = write(fd, data, size);
    close(fd);
    if (written == static_cast<ssize_t>(size)) {
        ini_dict* d = parse_ini_load(path);
        if (d != nullptr) {
            FILE* out = std::fopen("/dev/null", "w");
            if (out != nullptr) {
                parse_ini_dump_ini(d, out);
                std::fclose(out);
            }
            for (int i = 0; i < parse_ini_getnsec(d); ++i) parse_ini_getsecname(d, i);
            parse_ini_freedict(d);
        }
    }
    unlink(path);
    return 0;
}
