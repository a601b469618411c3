// The public HbbTV test suite's pages, served for a run ([testsuite]): the
// test-suite program of tools/web-browser serves a writable copy with PHP
// and reports each step a page reports. Its step lines are printed as they
// arrive; the summary when the run ends.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "scenario.h"

namespace appmgr::webbrowser {
class NodeProgram;
}

namespace appmgr::emu {

class TestsuiteServer {
public:
    TestsuiteServer();
    ~TestsuiteServer();
    TestsuiteServer(const TestsuiteServer&) = delete;
    TestsuiteServer& operator=(const TestsuiteServer&) = delete;

    // Serves t.pages for these groups; false (with the reason) when the
    // server did not come up.
    bool start(const TestsuiteSpec& t, const std::vector<std::string>& groups, std::string* error);
    // "http://127.0.0.1:PORT"
    const std::string& origin() const { return origin_; }
    // The suite's start page, to which a group's last step returns.
    const std::string& indexUrl() const { return index_; }
    // The automation cookie's "NAME=VALUE".
    const std::string& cookie() const { return cookie_; }
    std::string groupUrl(const std::string& group) const { return origin_ + "/" + group + "/index.php"; }
    // Steps reported so far.
    int steps() const;
    // Ends the server and returns its summary line ("N passed, M failed, K
    // manual"), or nullopt when it gave none.
    std::optional<std::string> finish();

private:
    std::shared_ptr<std::atomic<int>> steps_ = std::make_shared<std::atomic<int>>(0);
    std::unique_ptr<webbrowser::NodeProgram> program_;
    std::string origin_, index_, cookie_;
};

}  // namespace appmgr::emu
