// Steps on the browser's side of the sockets: a message sent as the browser
// (with the reply read and shown), and a frame the library must send. Each
// kind's parse and run functions stand together; the rows are at the end.
#include <algorithm>
#include <chrono>

#include "emu_output.h"
#include "run.h"
#include "steps.h"

namespace appmgr::emu {

namespace {

using namespace appmgr::standin;

constexpr std::size_t kShownPayload = 160;  // payload bytes shown of a content reply

// ---- browser [CONNECTION] MESSAGE ----------------------------------------------------

std::string parseBrowser(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    int conn = 0;
    std::string copy = r;
    if (std::optional<int> c = connectionIndex(takeWord(copy))) {
        conn = *c;
        r = copy;
    }
    if (r.empty()) return "expects a message such as 82|http://host/page.html|";
    st.args = {std::to_string(conn)};
    st.tail = r;
    return "";
}

// A reply up to its zero byte; records are shown field by field as well.
void readReply(Run& run, Connection c, int id) {
    StepResults& last = run.last();
    last.reply = run.browser().readReply(c, kWaitMs);
    if (!last.reply) {
        emit(col(c) + "<- no reply (" + readStatusName(run.browser().lastReadStatus(c)) + ")");
        return;
    }
    emitReply(c, id, *last.reply);
}

// Reads a carousel content reply against one deadline.
class ContentReply {
public:
    ContentReply(Run& run, Connection c)
        : run_(run),
          c_(c),
          deadline_(std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs)) {}

    // "kind|0|length|", exactly length payload bytes (binary, zero bytes
    // included), then the zero byte that ends every reply; or
    // "NOT_AVAILABLE|" and the zero byte. The header becomes the reply that
    // "expect reply" checks, the payload the content "expect content" checks.
    void read() {
        std::string header;
        if (!readHeader(header)) return;
        std::vector<std::string> fields = splitFields(header);
        long length = -1;
        if (fields.size() == 3 && !fields[2].empty() &&
            fields[2].find_first_not_of("0123456789") == std::string::npos && fields[2].size() < 10)
            length = std::stol(fields[2]);
        if (length < 0) fail("content reply header " + quoted(header) + " has no payload length");
        std::string payload;
        while (static_cast<long>(payload.size()) < length + 1) {
            std::optional<std::string> b =
                run_.browser().readRaw(c_, static_cast<std::size_t>(length + 1) - payload.size(), left());
            if (!b || b->empty()) return noReply(header + payload);
            payload += *b;
        }
        if (payload.back() != '\0')
            fail("content reply of " + std::to_string(length) +
                 " bytes is not followed by a zero byte (got " + quoted(payload.substr(payload.size() - 1)) +
                 ")");
        payload.pop_back();
        run_.last().reply = header;
        run_.last().content = payload;
        const std::string shown = payload.substr(0, kShownPayload);
        emit(col(c_) + "<- reply " + fieldList(fields) + " + " + std::to_string(length) + " byte" +
             (length == 1 ? "" : "s") + " " + quoted(shown) + (payload.size() > shown.size() ? "..." : ""));
    }

private:
    // The header, a byte at a time so that nothing after it is taken early.
    // False when the reply ended (a short reply, shown) or did not come.
    bool readHeader(std::string& header) {
        int bars = 0;
        while (bars < 3) {
            std::optional<std::string> b = run_.browser().readRaw(c_, 1, left());
            if (!b || b->empty()) {
                noReply(header);
                return false;
            }
            header += *b;
            if ((*b)[0] == '|') ++bars;
            if ((*b)[0] == '\0') {
                header.pop_back();
                run_.last().reply = header;
                std::optional<std::string> rest;
                emit(col(c_) + "<- reply " + fieldList(splitFields(header, &rest), rest));
                return false;
            }
        }
        return true;
    }
    int left() const {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline_ - std::chrono::steady_clock::now());
        return static_cast<int>(std::max<long long>(0, rest.count()));
    }
    void noReply(const std::string& got) {
        emit(col(c_) + "<- no complete reply (" + readStatusName(run_.browser().lastReadStatus(c_)) + ")" +
             (got.empty() ? "" : ", got " + quoted(got)));
        run_.last().reply.reset();
    }

    Run& run_;
    Connection c_;
    std::chrono::steady_clock::time_point deadline_;
};

void runBrowser(Run& run, const Step& st) {
    const Connection c = static_cast<Connection>(std::stoi(st.args.at(0)));
    const std::string raw = run.expand(st.tail.value_or(""));
    const int id = messageId(raw);
    emitSent(c, raw);
    if (!run.browser().send(c, raw)) fail(std::string("could not send on ") + connectionName(c));
    run.last().content.reset();
    if (c == Connection::Dsmcc && id >= 131 && id <= 133) return ContentReply(run, c).read();
    if (c == Connection::DtvPlugins || c == Connection::VodPlugins || c == Connection::Dsmcc)
        readReply(run, c, id);
}

// ---- wait_frame ID [FIELD|FIELD|...] ---------------------------------------------------------

std::string parseWaitFrame(Step& st, const std::string& rest, const Scenario&) {
    std::string r = rest;
    std::optional<long> id = number(takeWord(r), 0, 100000);
    if (!id) return "expects a command id";
    st.args = {std::to_string(*id)};
    if (!r.empty()) st.tail = r;
    return "";
}

void runWaitFrame(Run& run, const Step& st) {
    const int id = std::stoi(st.args.at(0));
    std::optional<std::vector<std::string>> fields;
    if (st.tail) fields = splitExpectedFields(run.expand(*st.tail));
    const bool ok = run.frames().ClaimLog<SeenFrame>::waitFor(
        [&](const SeenFrame& e) { return e.frame.id == id && (!fields || e.frame.fields == *fields); },
        kWaitMs);
    const std::string what = "frame " + std::to_string(id) + " (" + commandName(id) + ")" +
                             (fields ? " " + fieldList(*fields) : "");
    if (!ok) {
        std::string seen;
        for (const SeenFrame& f : run.frames().unclaimed())
            if (f.frame.id == id) seen += " " + fieldList(f.frame.fields);
        fail("timed out waiting for " + what +
             (seen.empty() ? "" : "; unmatched frames " + std::to_string(id) + ":" + seen));
    }
    emit("check     " + what + " received");
}

}  // namespace

std::vector<StepKind> browserSteps() {
    return {
        {"browser", "browser [CONNECTION] MESSAGE", StepRole::Action, parseBrowser, runBrowser},
        {"wait_frame", "wait_frame ID [FIELD|FIELD|...]", StepRole::Check, parseWaitFrame, runWaitFrame},
    };
}

}  // namespace appmgr::emu
