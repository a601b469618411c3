// BrowserSide by the browser stand-in: it connects to the library's
// sockets itself, reads the pushed frames on a thread per connection that
// carries them, and answers nothing unless a step says so.
#include <atomic>
#include <thread>
#include <vector>

#include "browser_side.h"

namespace appmgr::emu {

namespace {

using namespace appmgr::standin;

constexpr int kConnectMs = 5000;  // the library's sockets must appear by then
constexpr int kReaderPollMs = 100;

// Prints and records every frame the library pushes on one connection until
// stop is set or the connection ends.
void readFrames(BrowserStandin& standin, Connection c, const std::atomic<bool>& stop, FrameLog& log) {
    while (!stop.load()) {
        std::optional<Frame> f = standin.readFrame(c, kReaderPollMs);
        if (f) {
            emit(col(c) + "<- " + idAndName(f->id, commandName(f->id)) + fieldList(f->fields, f->trailing));
            if (g_verbose) emit(col(c) + "   raw " + quoted(f->raw));
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
                                  std::ref(frames));
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

    void disconnect() override {
        stop_readers_.store(true);
        for (std::thread& t : readers_) t.join();
        readers_.clear();
        standin_.disconnectAll();
    }

private:
    BrowserStandin standin_;
    std::atomic<bool> stop_readers_{false};
    std::vector<std::thread> readers_;
};

}  // namespace

std::unique_ptr<BrowserSide> makeStandinSide() { return std::make_unique<StandinSide>(); }

}  // namespace appmgr::emu
