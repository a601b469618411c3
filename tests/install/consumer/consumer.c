/* An integrator's program, built only from what the install provides.
 *
 * It stores a User-Agent through the library and reads it back, then checks
 * that the libapp-mgr it runs on is the one under the directory given as
 * its argument (the install prefix), not a copy from the build tree. */
#define _GNU_SOURCE
#include <link.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <app_mgr.h>

struct loaded {
    char path[PATH_MAX];
    int count;
};

static int find_app_mgr(struct dl_phdr_info* info, size_t size, void* data) {
    struct loaded* found = data;
    (void)size;
    if (info->dlpi_name != NULL && strstr(info->dlpi_name, "/libapp-mgr.so") != NULL) {
        snprintf(found->path, sizeof(found->path), "%s", info->dlpi_name);
        found->count++;
    }
    return 0;
}

int main(int argc, char** argv) {
    char ua[] = "consumer/1.0 (100%% installed)";
    const char* expected = "consumer/1.0 (100% installed)";
    char dir[PATH_MAX];
    char lib[PATH_MAX];
    struct loaded found;
    const char* got;
    size_t len;

    if (argc != 2 || realpath(argv[1], dir) == NULL) {
        fprintf(stderr, "usage: consumer <existing library directory>\n");
        return 2;
    }
    if (getAMUserAgent() != NULL) {
        fprintf(stderr, "FAIL: a User-Agent before any was stored\n");
        return 1;
    }
    if (setAMUserAgent(ua) != 1) {
        fprintf(stderr, "FAIL: setAMUserAgent refused \"%s\"\n", ua);
        return 1;
    }
    got = getAMUserAgent();
    if (got == NULL || strcmp(got, expected) != 0) {
        fprintf(stderr, "FAIL: User-Agent \"%s\", expected \"%s\"\n", got ? got : "(null)", expected);
        return 1;
    }

    memset(&found, 0, sizeof(found));
    dl_iterate_phdr(find_app_mgr, &found);
    if (found.count != 1 || realpath(found.path, lib) == NULL) {
        fprintf(stderr, "FAIL: %d libapp-mgr objects loaded\n", found.count);
        return 1;
    }
    len = strlen(dir);
    if (strncmp(lib, dir, len) != 0 || lib[len] != '/') {
        fprintf(stderr, "FAIL: runs on %s, not on the library in %s\n", lib, dir);
        return 1;
    }
    printf("consumer ok: %s\n", lib);
    return 0;
}
