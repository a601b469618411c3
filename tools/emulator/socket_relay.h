// A relay between the library's five browser sockets and a browser process
// that connects to five sockets of the same names in another directory.
//
// The relay is the library's client and the browser's server: for each
// connection it accepts the browser, connects to the library, and copies
// bytes both ways unchanged, telling its owner what passed (the library's
// frames decoded, the browser's messages, the replies). When either side
// closes, it closes the other and waits for the browser to come back, so a
// browser that reconnects (after a crash of Chromium, or a library restart)
// finds the library again.
//
// The emulator also speaks as the browser through it ("browser" steps): on
// the request connections ("dtvPlugins", "vodPlugins", "DSMCC") one request
// is outstanding at a time, the browser's or the emulator's, so each reply
// goes to whoever asked. A browser request that arrives while the emulator
// waits for its reply is held until that reply is complete (or the wait
// ended).
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "browser_standin.h"

namespace appmgr::emu {

using standin::Connection;
using standin::Frame;
using standin::ReadStatus;

// Where a reply of the library ends in a byte stream: a text reply at its
// zero byte; a carousel content reply ("kind|0|length|", then exactly length
// bytes of payload, zero bytes included, then the zero byte) after its
// payload's terminator. Pure; fed in pieces as they arrive.
class ReplyScanner {
public:
    // A request was sent; its reply starts with the next byte. `content`:
    // the request was a carousel content request (131-133 on "DSMCC").
    void begin(bool content);
    // How many bytes at the front of data belong to the current reply; once
    // its last byte is taken, done() is true and take() takes nothing more.
    std::size_t take(std::string_view data);
    bool done() const { return phase_ == Phase::Done; }

private:
    enum class Phase { Text, Header, Payload, Terminator, Done };
    Phase phase_ = Phase::Done;
    std::string header_;
    std::size_t payload_left_ = 0;
};

// Whether the library answers requests on c (each request has one reply).
bool answersRequests(Connection c);

// What the relay tells its owner, on its threads. Any may be empty.
struct RelayHooks {
    // A frame the library sent the browser ("Application", "Callbacks").
    std::function<void(Connection, const Frame&)> frame;
    // Bytes on a frame connection that are not a frame (dropped from the
    // decoding, still relayed).
    std::function<void(Connection, const std::string& bytes)> malformed;
    // A message of the browser to the library.
    std::function<void(Connection, const std::string& raw)> browser_message;
    // The library's complete reply to the browser's request `id`.
    std::function<void(Connection, int id, const std::string& reply)> browser_reply;
    // The connection's state: "connected", "closed by the library", ...
    std::function<void(Connection, const std::string& what)> note;
};

class SocketRelay {
public:
    // library_dir: where the library's sockets are ("/tmp/"); browser_dir:
    // where the browser connects (created sockets of the same names).
    SocketRelay(std::string library_dir, std::string browser_dir, RelayHooks hooks);
    ~SocketRelay();
    SocketRelay(const SocketRelay&) = delete;
    SocketRelay& operator=(const SocketRelay&) = delete;

    // Creates the five listening sockets and starts a thread per
    // connection. False (with error) when a socket cannot be made.
    bool start(std::string* error);
    // Waits until all five connections are paired (browser and library).
    bool waitPaired(int timeout_ms);
    // Ends the threads and closes everything.
    void stop();

    // As the browser, on the library's side. send() waits (bounded) until
    // no request of the browser is outstanding on a request connection.
    bool send(Connection c, const std::string& raw, int timeout_ms);
    // The reply to what send() sent: up to the zero byte, or up to max raw
    // bytes. A read that times out ends the wait for that reply (late bytes
    // are dropped).
    std::optional<std::string> readReply(Connection c, int timeout_ms);
    std::optional<std::string> readRaw(Connection c, std::size_t max, int timeout_ms);
    ReadStatus lastReadStatus(Connection c);

    // The browser's socket directory, with a final '/'.
    const std::string& browserDir() const { return browser_dir_; }

private:
    struct Pair;
    void serve(Pair& p);
    bool pairUp(Pair& p);
    void pump(Pair& p);
    bool fromBrowser(Pair& p);
    bool fromLibrary(Pair& p);
    void takeReplyBytes(Pair& p, std::string_view data);
    void sendHeldRequest(Pair& p);
    std::optional<std::string> nothingRead(Pair& p, std::unique_lock<std::mutex>& g);
    void closePair(Pair& p, const std::string& why);
    bool writeLibrary(Pair& p, std::string_view bytes);

    std::string library_dir_;
    std::string browser_dir_;
    RelayHooks hooks_;
    std::array<std::unique_ptr<Pair>, standin::kConnectionCount> pairs_;
    int wake_[2] = {-1, -1};  // written once by stop(): every pump wakes
};

}  // namespace appmgr::emu
