// The other end of the library's five browser sockets during a run. The
// emulator stays the client of those sockets whatever plays the browser: it
// sees every frame the library sends (printed and kept in the FrameLog for
// the checks) and can speak as the browser on any connection ("browser"
// steps). The stand-in (standin_side.cpp) is one implementation; another
// one relays between the library and a real browser (docs/emulator.md,
// "How to add an input").
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "browser_standin.h"
#include "emu_output.h"

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

    // Stops recording frames and closes the connections; called once the
    // library has closed its side.
    virtual void disconnect() = 0;
};

// The browser stand-in on the library's sockets in /tmp/.
std::unique_ptr<BrowserSide> makeStandinSide();

}  // namespace appmgr::emu
