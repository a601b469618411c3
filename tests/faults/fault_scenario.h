// One whole life of the library, for the fault walks: start with the
// browser, an AIT whose AUTOSTART application starts from the carousel, the
// page's requests on each connection, the middleware's use of the broadcast
// objects, a browser crash and its return, two EPG searches, stream events from the carousel and from an HTTP description,
// the middleware's notifications and a tune, then close.
//
// Every step tolerates a failure of an earlier one: a request that gets no
// reply marks its connection dead and later requests on it are skipped, so
// a run with a fault costs at most one wait per connection. A call into the
// library that does not return within its deadline is a hang: the process
// reports it and ends, since the hung thread cannot be joined.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "browser_standin.h"
#include "http_test_server.h"

namespace appmgr::faults {

class Scenario {
public:
    // socket_dir: a private directory (ends with '/'); the carousel goes
    // under it too.
    explicit Scenario(std::string socket_dir);
    ~Scenario();
    Scenario(const Scenario&) = delete;
    Scenario& operator=(const Scenario&) = delete;

    // Sets the simulated receiver up: channels, programmes, components, the
    // carousel, the EIT cache, the listeners, the HTTP description. Nothing
    // here is walked.
    void prepare();

    // The walked part. `label` names the run in a hang report; a run
    // `with_fault` waits less for answers that may not come. Returns the
    // steps that did not give what a healthy library gives ("dtvPlugins 30:
    // <reply>"); a run without faults must return none.
    std::vector<std::string> run(const std::string& label, bool with_fault);

    // A short life after a walked run, without faults: start, one request on
    // "dtvPlugins" and one on "DSMCC", close. Empty when both were answered
    // as expected, else what went wrong.
    std::string stillAnswers(const std::string& label);

private:
    using Connection = standin::Connection;
    bool start(standin::BrowserStandin& browser, const std::string& label);
    void close(standin::BrowserStandin& browser, const std::string& label);
    // Sends a request and compares its reply with `expected`, the whole
    // reply or its start; a request without a reply marks the connection
    // dead.
    void ask(Connection c, int id, const std::vector<std::string>& fields,
             const std::string& expected, bool whole = true);
    void askPrefix(Connection c, int id, const std::vector<std::string>& fields,
                   const std::string& prefix);
    void tell(Connection c, const std::string& raw);
    // Reads frames of a connection until one with `id` (and this first
    // field, when given); false when none came in time.
    bool frame(Connection c, int id, const char* first_field = nullptr);
    void failed(const std::string& what);

    void pluginRequests();
    void searchRequests();
    void carouselRequests();
    void streamEvents();
    void broadcastObjects();
    void browserCrash(const std::string& label);
    void middlewareEvents(const std::string& label);

    std::string dir_;
    std::unique_ptr<appmgr::test::HttpTestServer> http_;
    std::unique_ptr<standin::BrowserStandin> browser_;
    bool dead_[standin::kConnectionCount] = {};
    int reply_ms_ = 0;
    int frame_ms_ = 0;
    std::vector<std::string> failures_;
};

}  // namespace appmgr::faults
