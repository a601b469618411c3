// BrowserSide by the browser stand-in: it connects to the library's
// sockets itself, reads the pushed frames on a thread per connection that
// carries them, and answers nothing unless a step says so. Keys of the
// remote control are handled the way the browser does: it follows the
// library's key set and start commands, and reports the first delivered key
// as the application's activation.
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "browser_side.h"

namespace appmgr::emu {

namespace {

using namespace appmgr::standin;

constexpr int kConnectMs = 5000;  // the library's sockets must appear by then
constexpr int kReaderPollMs = 100;

// What the browser knows from the library's commands that decides where a
// key goes.
class KeyState {
public:
    void command(const Frame& f) {
        std::lock_guard<std::mutex> g(mu_);
        if (f.id == 220 && !f.fields.empty()) keyset_ = std::atoi(f.fields[0].c_str());
        if (f.id == 50 || f.id == 140) {
            application_ = true;
            activated_ = false;
        }
        if (f.id == 51) application_ = false;
    }
    // "delivered" or "withheld"; *activates when the key is the first one
    // the application gets.
    std::string press(const RemoteKey& key, bool* activates) {
        std::lock_guard<std::mutex> g(mu_);
        *activates = false;
        if (!application_ || !(keyset_ & key.group)) return "withheld";
        *activates = !activated_;
        activated_ = true;
        return "delivered";
    }

private:
    std::mutex mu_;
    int keyset_ = 0;
    bool application_ = false;
    bool activated_ = false;
};

// Prints and records every frame the library pushes on one connection until
// stop is set or the connection ends.
void readFrames(BrowserStandin& standin, Connection c, const std::atomic<bool>& stop, FrameLog& log,
                KeyState& keys) {
    while (!stop.load()) {
        std::optional<Frame> f = standin.readFrame(c, kReaderPollMs);
        if (f) {
            emitFrame(c, *f);
            if (c == Connection::Application) keys.command(*f);
            log.add(c, std::move(*f));
            continue;
        }
        switch (standin.lastReadStatus(c)) {
            case ReadStatus::Ok:
            case ReadStatus::Timeout: break;
            case ReadStatus::Malformed:
                emit(col(c) + "<- malformed data dropped: " + standin.lastError(c));
                break;
            case ReadStatus::Closed: emit(col(c) + "-- connection closed by the library"); return;
            case ReadStatus::NotConnected: return;
            case ReadStatus::Error: emit(col(c) + "-- read error: " + standin.lastError(c)); return;
        }
    }
}

class StandinSide : public BrowserSide {
public:
    ~StandinSide() override { disconnect(); }

    std::string description() const override { return "browser stand-in on /tmp/UNIX_*.domain"; }

    void connect(FrameLog& frames) override {
        for (Connection c : kAllConnections) {
            if (!standin_.connect(c, kConnectMs))
                fail(std::string("could not connect ") + connectionName(c) + ": " + standin_.lastError(c));
            emit(col(c) + "connected to " + standin_.socketPath(c));
        }
        for (Connection c : {Connection::Application, Connection::Callbacks})
            readers_.emplace_back(readFrames, std::ref(standin_), c, std::cref(stop_readers_),
                                  std::ref(frames), std::ref(keys_));
        // The browser process reports itself present.
        emit(trimRight(col(Connection::Application) + "-> " +
                       idAndName(83, requestName(Connection::Application, 83)) + fieldList({"1"})));
        if (!standin_.sendRequest(Connection::Application, 83, {"1"}))
            fail("could not send request 83 on " + std::string(connectionName(Connection::Application)));
    }

    bool send(Connection c, const std::string& raw) override { return standin_.send(c, raw); }
    std::optional<std::string> readReply(Connection c, int timeout_ms) override {
        return standin_.readReply(c, timeout_ms);
    }
    std::optional<std::string> readRaw(Connection c, std::size_t max, int timeout_ms) override {
        return standin_.readRaw(c, max, timeout_ms);
    }
    ReadStatus lastReadStatus(Connection c) override { return standin_.lastReadStatus(c); }

    std::optional<std::string> pressKey(const RemoteKey& key, std::string* error) override {
        bool activates = false;
        const std::string result = keys_.press(key, &activates);
        if (!activates) return result;
        const Connection app = Connection::Application;
        emit(trimRight(col(app) + "-> " + idAndName(87, requestName(app, 87)) + fieldList({})));
        if (!standin_.sendRequest(app, 87, {})) {
            *error = "could not send 87 (application activated)";
            return std::nullopt;
        }
        return result;
    }

    void disconnect() override {
        stop_readers_.store(true);
        for (std::thread& t : readers_) t.join();
        readers_.clear();
        standin_.disconnectAll();
    }

private:
    BrowserStandin standin_;
    KeyState keys_;
    std::atomic<bool> stop_readers_{false};
    std::vector<std::thread> readers_;
};

}  // namespace

std::unique_ptr<BrowserSide> makeStandinSide() { return std::make_unique<StandinSide>(); }

}  // namespace appmgr::emu
