// The other end of the library's five browser sockets during a run. The
// emulator stays the client of those sockets whatever plays the browser: it
// sees every frame the library sends (printed and kept in the FrameLog for
// the checks) and can speak as the browser on any connection ("browser"
// steps). The stand-in (standin_side.cpp) is one implementation; the other
// relays between the library and a real browser (chromium_side.cpp).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "browser_standin.h"
#include "emu_output.h"
#include "remote_keys.h"

namespace appmgr::emu {

class BrowserSide {
public:
    virtual ~BrowserSide() = default;

    // What plays the browser, for the run's first line ("browser stand-in on
    // /tmp/UNIX_*.domain").
    virtual std::string description() const = 0;

    // Connects to the library's five sockets while the library starts on
    // another thread, then prints and records in `frames` every frame the
    // library pushes, and reports the browser present. Fails the run when a
    // connection cannot be made in time.
    virtual void connect(FrameLog& frames) = 0;

    // Sends bytes as the browser on c, in one block; false when they cannot
    // be sent.
    virtual bool send(Connection c, const std::string& raw) = 0;
    // The library's answers to what send() sent on a request connection: the
    // bytes up to the next zero byte, or up to max raw bytes (carousel
    // payloads). Bounded by timeout_ms; nullopt and lastReadStatus() say why
    // nothing came.
    virtual std::optional<std::string> readReply(Connection c, int timeout_ms) = 0;
    virtual std::optional<std::string> readRaw(Connection c, std::size_t max, int timeout_ms) = 0;
    virtual standin::ReadStatus lastReadStatus(Connection c) = 0;

    // A key of the remote control, given to the browser: "delivered" when
    // the last key set (command 220) holds its group and an application
    // page is there, "withheld" when the receiver keeps it. The first key
    // delivered to an application activates it (the browser sends 87).
    // Nullopt, with the reason in *error, when it could not be given.
    virtual std::optional<std::string> pressKey(const RemoteKey& key, std::string* error) = 0;

    // Whether a page runs in a real browser engine: what the page shows can
    // be checked ("expect page"), and the page reports its own loading.
    virtual bool hasPage() const { return false; }
    // The text of the page's element with this id (blanks at the ends
    // removed); nullopt with the reason when there is none.
    virtual std::optional<std::string> pageText(const std::string& /*id*/, std::string* error) {
        *error = "no page with the browser stand-in";
        return std::nullopt;
    }
    // Waits (bounded) until the page of url has loaded and been reported.
    virtual bool waitPageLoaded(const std::string& /*url*/, int /*timeout_ms*/) { return false; }
    // A command of a real browser's control channel ("cookie URL
    // NAME=VALUE"): its answer, or nullopt with the reason.
    virtual std::optional<std::string> control(const std::string& /*line*/, std::string* error) {
        *error = "no control channel with the browser stand-in";
        return std::nullopt;
    }
    // Called after each step of the timeline (key "step12").
    virtual void afterStep(const std::string& /*step_key*/) {}

    // Stops recording frames and closes the connections; called once the
    // library has closed its side.
    virtual void disconnect() = 0;
};

// The browser stand-in on the library's sockets in /tmp/.
std::unique_ptr<BrowserSide> makeStandinSide();

// What runs Chromium for --browser chromium.
struct ChromiumOptions {
    bool headed = false;                      // a window instead of headless
    std::optional<std::string> screenshots;   // a PNG per step in this directory
};

}  // namespace appmgr::emu
