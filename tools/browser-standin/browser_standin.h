// Browser stand-in: the client end of the five browser connections of
// libapp-mgr, for integration tests and the emulator.
//
// The library listens on five UNIX-domain stream sockets; the real browser
// connects to all of them. BrowserStandin plays that browser: it connects,
// sends requests exactly as given, reads the zero-terminated replies and
// reassembles the length-prefixed commands the library pushes on
// "Application" and "Callbacks".
//
// Every read is bounded by a time-out (poll); nothing here blocks for longer
// than the caller allowed. Each connection has its own send lock and its own
// read lock, so one thread may read a connection while another sends on it
// or works on another connection.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appmgr::standin {

// The five connections, in the library's index order.
enum class Connection : int {
    Application = 0,  // commands to the browser, page events from it
    DtvPlugins = 1,   // broadcast / AV / search requests, answered at once
    VodPlugins = 2,   // media / DRM requests, answered at once
    Callbacks = 3,    // events to the browser only
    Dsmcc = 4,        // carousel requests, answered at once
};
constexpr int kConnectionCount = 5;
constexpr std::array<Connection, kConnectionCount> kAllConnections{
    Connection::Application, Connection::DtvPlugins, Connection::VodPlugins,
    Connection::Callbacks, Connection::Dsmcc};

// "Application", "dtvPlugins", "vodPlugins", "Callbacks", "DSMCC".
const char* connectionName(Connection c);
// Socket file name inside the socket directory, e.g. "UNIX_APP.domain".
const char* socketFileName(Connection c);

// ---- wire codec (pure functions) -------------------------------------------

// One command as the library frames it: the body length printed with "%3d"
// (blank-padded to three characters, more digits for bodies of 1000 bytes or
// more) immediately followed by the body "id|field|...|".
struct Frame {
    std::string raw;                      // prefix and body as received
    int length = 0;                       // body length announced by the prefix
    std::string body;                     // "id|field|...|"
    int id = -1;                          // the first field as a number
    std::vector<std::string> fields;      // the fields after the id
    std::optional<std::string> trailing;  // text after the last "|", if any
};

enum class DecodeStatus {
    Ok,          // a frame was taken off the front of the buffer
    Incomplete,  // more bytes are needed; the buffer is unchanged
    Malformed,   // the front of the buffer is not a frame; buffer unchanged
};

// Takes one complete frame off the front of buffer. Returns nullopt when the
// buffer holds no complete frame yet or when its front is not a frame at all;
// *status (if given) tells the two apart. A malformed buffer is left as it is
// so the caller can show it; decoding it again gives Malformed again.
//
// A prefix without blanks is ambiguous ("123141|..." may be a 123-byte body
// "141|..." or a 1231-byte body "41|..."); the shortest reading whose body
// starts with "digits|", ends with "|" and is followed by nothing or by the
// start of another prefix wins.
std::optional<Frame> decodeFrame(std::string& buffer, DecodeStatus* status = nullptr);

// Splits "a|b||c|" into {"a", "b", "", "c"}. Text after the last "|" is not a
// field: it goes to *trailing (nullopt when the text ends with "|" or is
// empty).
std::vector<std::string> splitFields(std::string_view body,
                                     std::optional<std::string>* trailing = nullptr);

// Builds a browser request "id|f1|f2|" (no length prefix, no terminator).
std::string buildRequest(int id, const std::vector<std::string>& fields);

// Bytes as printable text: printable ASCII as is, "\\" for a backslash,
// "\xNN" for anything else (zero bytes, binary payloads).
std::string escapeBytes(std::string_view bytes);

// ---- names -----------------------------------------------------------------

// Name of a command or callback id the library sends to the browser: the
// system's symbolic name where it has one ("CMD_HANDLE_KEY_SET"), otherwise
// a short description ("time zone"); "unknown" for ids the library never sends.
const char* commandName(int id);
// Name of a request id the browser sends on connection c ("dtvPlugins" 401:
// "CMD_GET_USER_AGENT", "Application" 83: "browser state report");
// "unknown" for ids the connection does not serve.
const char* requestName(Connection c, int id);

// ---- decoded replies and callbacks -------------------------------------------

// One field of a decoded reply or callback, named after the record it
// belongs to ("onid", "language", "data").
struct NamedField {
    std::string name;
    std::string value;
};

// A reply or callback read field by field according to its id.
struct Decoded {
    // What the message is: "channel", "programme", "audio component",
    // "number", "done" (ACK), "true", "false", "not available", "empty",
    // "fields" (an id without a known shape), "stream event", ...
    std::string kind;
    std::vector<NamedField> fields;
    // Fields beyond the shape, and text after the last "|" (not a field).
    std::vector<std::string> extra;
    std::optional<std::string> trailing;
};

// Decodes the reply to request `id` on connection c (the bytes up to the
// terminating zero). Content replies of "DSMCC" (131-133) decode their
// header; the payload after it shows as `trailing`.
Decoded decodeReply(Connection c, int id, std::string_view reply);
// Decodes a command or callback the library sent.
Decoded decodeFrame(const Frame& frame);
// One line: kind, then name=value pairs (texts quoted and escaped).
std::string describe(const Decoded& decoded);

// ---- the client ------------------------------------------------------------

enum class ReadStatus {
    Ok,
    Timeout,       // nothing complete arrived in time
    Closed,        // the library closed the connection (or disconnect() ran)
    NotConnected,  // connect() was not called or failed
    Malformed,     // the bytes received are not a frame; they were dropped
    Error,         // a socket error (see errno in the message of lastError())
};
const char* readStatusName(ReadStatus s);

class BrowserStandin {
public:
    explicit BrowserStandin(std::string socket_dir = "/tmp/");
    ~BrowserStandin();
    BrowserStandin(const BrowserStandin&) = delete;
    BrowserStandin& operator=(const BrowserStandin&) = delete;

    const std::string& socketDir() const { return dir_; }
    // Full path of the socket file of c.
    std::string socketPath(Connection c) const;

    // Connects c, retrying every 20 ms until the socket file exists and
    // accepts, or timeout_ms passed. True at once if c is already connected.
    bool connect(Connection c, int timeout_ms);
    // Connects all five in index order within one overall time-out.
    bool connectAll(int timeout_ms);
    // Closes c (wakes a reader blocked on it) and drops its buffered bytes.
    void disconnect(Connection c);
    void disconnectAll();
    bool connected(Connection c) const;

    // Sends raw bytes as they are, in one send where the socket allows.
    // False when not connected, on error, or when the socket stays full for
    // timeout_ms.
    bool send(Connection c, std::string_view raw, int timeout_ms = 2000);
    // Sends buildRequest(id, fields).
    bool sendRequest(Connection c, int id, const std::vector<std::string>& fields = {},
                     int timeout_ms = 2000);

    // Next reply: the bytes up to (not including) the terminating zero byte.
    // Bytes after the zero stay buffered for the next read.
    std::optional<std::string> readReply(Connection c, int timeout_ms);
    // Up to max bytes: what is buffered, otherwise what the next receive
    // brings. Nullopt on time-out, close or error.
    std::optional<std::string> readRaw(Connection c, std::size_t max, int timeout_ms);
    // Next framed command, reassembled across receives; extra bytes stay
    // buffered. Malformed input is dropped (lastReadStatus() == Malformed,
    // lastError() shows the bytes).
    std::optional<Frame> readFrame(Connection c, int timeout_ms);
    // sendRequest followed by readReply.
    std::optional<std::string> request(Connection c, int id,
                                       const std::vector<std::string>& fields,
                                       int timeout_ms);

    // Outcome of the last read or connect on c, with a human-readable reason.
    ReadStatus lastReadStatus(Connection c) const;
    std::string lastError(Connection c) const;

private:
    struct Link;
    // One receive into the link's buffer: Ok, Timeout, Closed or Error.
    ReadStatus fill(Link& l, long long deadline_ms);
    void setStatus(Link& l, ReadStatus s, std::string why);
    Link& link(Connection c) const;

    std::string dir_;
    std::array<std::unique_ptr<Link>, kConnectionCount> links_;
};

}  // namespace appmgr::standin
