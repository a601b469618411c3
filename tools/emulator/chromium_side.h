// BrowserSide by the real browser: the browser process of tools/web-browser
// (Node.js driving Debian's chromium) on five sockets of a relay in the
// run's /tmp, the relay on the library's sockets. Every frame, request and
// reply is printed and recorded as with the stand-in; "browser" steps speak
// through the relay; keys, page checks and screenshots go to the browser
// process's control channel.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "browser_side.h"

namespace appmgr::emu {

class ChromiumSide : public BrowserSide {
public:
    explicit ChromiumSide(ChromiumOptions options);
    ~ChromiumSide() override;

    std::string description() const override;
    void connect(FrameLog& frames) override;
    bool send(Connection c, const std::string& raw) override;
    std::optional<std::string> readReply(Connection c, int timeout_ms) override;
    std::optional<std::string> readRaw(Connection c, std::size_t max, int timeout_ms) override;
    standin::ReadStatus lastReadStatus(Connection c) override;
    std::optional<std::string> pressKey(const RemoteKey& key, std::string* error) override;
    bool hasPage() const override { return true; }
    std::optional<std::string> pageText(const std::string& id, std::string* error) override;
    bool waitPageLoaded(const std::string& url, int timeout_ms) override;
    std::optional<std::string> control(const std::string& line, std::string* error) override;
    void afterStep(const std::string& step_key) override;
    void disconnect() override;

    // A command of the control channel ("cookie URL NAME=VALUE", "eval
    // EXPRESSION"): its answer, or nullopt with the reason.
    std::optional<std::string> command(const std::string& line, int timeout_ms, std::string* error);
    // Waits for the browser's event "event PREFIX..." (not taken before).
    bool waitEvent(const std::string& prefix, int timeout_ms);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The value of a JSON string ("\"a\\nb\"" gives a, newline, b); nullopt
// when text is not one.
std::optional<std::string> jsonString(const std::string& text);

}  // namespace appmgr::emu
