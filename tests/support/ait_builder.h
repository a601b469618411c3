// Builds AitTables the way a middleware hands them over: heap strings,
// one transport descriptor per entry, owned by the caller (the library only
// copies). The table is released with the builder.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "app_mgr_types.h"

namespace appmgr::test {

struct AppSpec {
    int org = 0x10;
    int app = 0x1;
    ControlCode control = AUTOSTART;
    std::string url = "dvb://1.2.3.1/index.html";
    int protocol = 1;  // 1 object carousel, 3 HTTP
    int priority = 1;
    const char* boundary = nullptr;  // null: none signalled
    int service_bound = 1;
    int profile = 0;
    int version_major = 1, version_minor = 1, version_micro = 1;
    std::vector<std::pair<std::string, int>> ratings;
    int ip_required = 0;
    int usage = 0;
    const char* name = "app";  // null: no name (a malformed entry)
};

class OwnedAit {
public:
    OwnedAit(int type, const std::string& dvb_url, const std::vector<AppSpec>& apps);
    ~OwnedAit();
    OwnedAit(const OwnedAit&) = delete;
    OwnedAit& operator=(const OwnedAit&) = delete;
    AitTable* get() { return &table_; }
    AitTable* operator->() { return &table_; }

private:
    AitTable table_{};
};

// An HTTP entry (protocol 3) with the given ids and URL.
AppSpec http_app(int org, int app, const std::string& url, ControlCode control = AUTOSTART);

// Adds a TV service 1.2.<sid> (network 10) to the simulated platform's
// channel list.
void add_tv_channel(const char* ccid, int sid, const char* name);

}  // namespace appmgr::test
