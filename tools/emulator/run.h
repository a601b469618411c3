// A scenario's run as the step kinds see it: the scenario, the browser side,
// what has been seen (frames, decisions, loaded pages) and what the last
// steps left for the checks after them.
#pragma once

#include <optional>
#include <string>

#include "broadcast_events.h"
#include "browser_side.h"
#include "capture_input.h"
#include "decisions.h"
#include "emu_output.h"
#include "http_stub.h"
#include "remote_input.h"
#include "scenario.h"
#include "testsuite_server.h"

namespace appmgr::emu {

constexpr int kWaitMs = 2000;   // expected frames, decisions and replies
constexpr int kSettleMs = 300;  // before checking that something did not happen
constexpr int kPageWaitMs = 15000;  // a real page to load, or to show what a check expects

// What steps leave for the checks after them.
struct StepResults {
    std::optional<std::string> reply;    // of the last browser step
    std::optional<std::string> content;  // payload of the last carousel content reply
    std::optional<int> result;           // of the last portal/teletext/launch/keyset/key step
    std::optional<std::string> remote;   // bytes the remote-input service got in the last key step
    std::optional<std::string> key;      // "delivered" or "withheld": the last press step
};

class Run : public DecisionListener {
public:
    Run(const Scenario& s, BrowserSide& browser, CaptureInput* capture)
        : s_(s), browser_(browser), capture_(capture) {}
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    // Sets the receiver up, starts the library with the browser connected,
    // runs the steps and closes; returns when every step passed.
    void execute();

    const Scenario& scenario() const { return s_; }
    // The HTTP responder's "127.0.0.1:PORT", and text with it put in for {http}.
    const std::string& httpHost() const { return http_host_; }
    std::string expand(const std::string& text) const { return expandPlaceholders(text, http_host_); }
    BrowserSide& browser() { return browser_; }
    // The scenario's [capture], opened; nullptr without one.
    CaptureInput* capture() { return capture_; }
    FrameLog& frames() { return frames_; }
    ClaimLog<Decision>& decisions() { return decisions_; }
    // Pages the library took as loaded, in order, each to be claimed once by
    // an "expect loaded". The library's own copy (loaded_application, under
    // the AIT guard) holds only the last one, so two reports of one URL, or
    // a check after the next report, could not be told apart there.
    ClaimLog<std::string>& loadedPages() { return loaded_pages_; }
    RemoteInputListener& remoteInput() { return remote_; }
    // The test suite's server of a [testsuite] scenario; nullptr otherwise.
    TestsuiteServer* testsuite() { return testsuite_.get(); }
    StepResults& last() { return last_; }

    // Shows the result of a call a step made and keeps it for "expect result".
    void callResult(int result);
    // Closes the library, then the browser side (the close step, or the end
    // of a timeline without one).
    void close();

    void decided(const Decision& d) override;
    void pageLoaded(const std::string& url) override;

    // The middleware's start and stop callbacks.
    int onStart();
    int onStop();

private:
    void setUp();
    void startHttp();
    void startRemoteInput();
    void startTestsuite();
    void startUp();
    void configureTerminal();
    void runStep(const Step& st);
    void settle();

    const Scenario& s_;
    BrowserSide& browser_;
    CaptureInput* capture_;
    FrameLog frames_;
    ClaimLog<Decision> decisions_;
    ClaimLog<std::string> loaded_pages_;
    HttpStub http_;
    std::string http_host_ = "127.0.0.1";
    RemoteInputListener remote_;
    StreamEventBroadcast stream_events_;
    std::unique_ptr<TestsuiteServer> testsuite_;
    StepResults last_;
    bool closed_ = false;
};

}  // namespace appmgr::emu
