#include "emu_output.h"

#include <ftw.h>
#include <stdio.h>

#include <cstdio>
#include <cstdlib>

#include "app_mgr_state.h"

namespace appmgr::emu {

using namespace appmgr::standin;

namespace {

std::mutex g_out_mu;
std::mutex g_context_mu;
std::string g_fail_context;
std::vector<std::string> g_run_files;  // guarded by g_context_mu

}  // namespace

bool g_verbose = false;
bool g_trace = true;

void emit(const std::string& line) {
    if (g_trace) report(line);
}

void report(const std::string& line) {
    std::lock_guard<std::mutex> g(g_out_mu);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::string padded(const std::string& s, std::size_t width) {
    return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

std::string col(Connection c) { return padded(connectionName(c), 13) + " "; }

std::string idAndName(int id, const char* name) {
    return padded(std::to_string(id), 3) + " " + padded(name, 26) + " ";
}

std::string trimRight(std::string s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string quoted(const std::string& s) { return "\"" + escapeBytes(s) + "\""; }

std::string fieldList(const std::vector<std::string>& fields,
                      const std::optional<std::string>& trailing) {
    std::string out = "[";
    for (std::size_t i = 0; i < fields.size(); ++i) out += (i ? ", " : "") + quoted(fields[i]);
    out += "]";
    if (trailing) out += " +unterminated " + quoted(*trailing);
    return out;
}

int messageId(std::string_view raw) {
    const std::string_view id_text = raw.substr(0, raw.find('|'));
    if (id_text.empty() || id_text.size() >= 7 || raw.find('|') == std::string_view::npos ||
        id_text.find_first_not_of("0123456789") != std::string_view::npos)
        return -1;
    return std::stoi(std::string(id_text));
}

void emitFrame(Connection c, const Frame& f) {
    emit(col(c) + "<- " + idAndName(f.id, commandName(f.id)) + fieldList(f.fields, f.trailing));
    if (g_verbose) emit(col(c) + "   raw " + quoted(f.raw));
}

void emitSent(Connection c, const std::string& raw) {
    const std::size_t bar = raw.find('|');
    const int id = messageId(raw);
    std::optional<std::string> trailing;
    std::vector<std::string> fields =
        bar == std::string::npos ? std::vector<std::string>{} : splitFields(raw.substr(bar + 1), &trailing);
    emit(trimRight(col(c) + "-> " + (id >= 0 ? idAndName(id, requestName(c, id)) : std::string("raw ")) +
                   (id >= 0 ? fieldList(fields, trailing) : quoted(raw))));
}

void emitReply(Connection c, int id, const std::string& reply) {
    std::optional<std::string> rest;
    if (c == Connection::Dsmcc && id >= 131 && id <= 133) {
        // "kind|0|length|" and the payload.
        std::size_t end = 0;
        for (int bars = 0; bars < 3 && end != std::string::npos; ++bars) {
            end = reply.find('|', end);
            if (end != std::string::npos) ++end;
        }
        if (end != std::string::npos) {
            emit(col(c) + "<- reply " + fieldList(splitFields(reply.substr(0, end))) + " + " +
                 std::to_string(reply.size() - end) + " bytes");
            return;
        }
    }
    std::vector<std::string> fields = splitFields(reply, &rest);
    emit(col(c) + "<- reply " + fieldList(fields, rest));
    const Decoded decoded = decodeReply(c, id, reply);
    if (decoded.fields.size() > 1) emit(col(c) + "   = " + standin::describe(decoded));
}

const char* stateName(int s) {
    switch (s) {
        case APP_MANAGER_DEINITIALIZED: return "APP_MANAGER_DEINITIALIZED";
        case APP_MANAGER_SUSPENDED: return "APP_MANAGER_SUSPENDED";
        case APP_MANAGER_INITIALIZING: return "APP_MANAGER_INITIALIZING";
        case APP_MANAGER_INITIALIZED: return "APP_MANAGER_INITIALIZED";
    }
    return "?";
}

int libraryState() { return static_cast<int>(__atomic_load_n(&appmgr_state, __ATOMIC_ACQUIRE)); }

void setFailContext(const std::string& context) {
    std::lock_guard<std::mutex> g(g_context_mu);
    g_fail_context = context;
}

void removeOnExit(const std::string& dir) {
    std::lock_guard<std::mutex> g(g_context_mu);
    g_run_files.push_back(dir);
}

void removeRunFiles() {
    std::vector<std::string> dirs;
    {
        std::lock_guard<std::mutex> g(g_context_mu);
        dirs.swap(g_run_files);
    }
    for (const std::string& dir : dirs)
        ::nftw(
            dir.c_str(), [](const char* path, const struct stat*, int, FTW*) { return ::remove(path); }, 16,
            FTW_DEPTH | FTW_PHYS);
}

void fail(const std::string& why) {
    std::string context;
    {
        std::lock_guard<std::mutex> g(g_context_mu);
        context = g_fail_context;
    }
    report("appmgr-emu: FAILED: " + (context.empty() ? "" : context + ": ") + why);
    if (!g_verbose) report("appmgr-emu: run with --verbose to see the library's log");
    removeRunFiles();
    std::_Exit(1);
}

void step(const std::string& what) { emit("\n== " + what); }

// A library call is shown before it is made (what it causes is printed by
// other threads meanwhile) and its result after it returned.
void libraryCall(const std::string& call) { emit("library   " + call); }

void libraryResult(int result) {
    emit("          -> " + std::to_string(result) + "  (state " + stateName(libraryState()) + ")");
}

void libraryDone() {
    emit(std::string("          -> returned  (state ") + stateName(libraryState()) + ")");
}

void expectResult(const std::string& call, int result, int expected) {
    if (result != expected)
        fail(call + " returned " + std::to_string(result) + ", expected " + std::to_string(expected));
}

void expectState(int expected) {
    int s = libraryState();
    if (s != expected)
        fail(std::string("library state is ") + stateName(s) + ", expected " + stateName(expected));
}

bool FrameLog::waitFor(Connection c, int id, const std::vector<std::string>* fields, int timeout_ms) {
    return ClaimLog<SeenFrame>::waitFor(
        [&](const SeenFrame& e) {
            return e.conn == c && e.frame.id == id && (!fields || e.frame.fields == *fields);
        },
        timeout_ms);
}

void onPlatformCall(const char* function, const char* details, void*) {
    emit(std::string("platform  ") + function + "(" + (details ? details : "") + ")");
}

void emitLogLine(const char* line) {
    std::string text = line ? line : "";
    for (char& ch : text)
        if (ch == '\n' || ch == '\r') ch = ' ';
    emit("log       " + text);
}

}  // namespace appmgr::emu
