#include "testsuite_server.h"

#include <cctype>

#include "emu_output.h"
#include "node_program.h"

namespace appmgr::emu {

namespace {
constexpr int kStartMs = 15000;  // PHP serving the copy
constexpr int kSummaryMs = 10000;
}  // namespace

TestsuiteServer::TestsuiteServer() = default;
TestsuiteServer::~TestsuiteServer() { finish(); }

bool TestsuiteServer::start(const TestsuiteSpec& t, const std::vector<std::string>& groups, std::string* error) {
    std::vector<std::string> args{"--pages", t.pages};
    if (t.port) args.insert(args.end(), {"--port", std::to_string(t.port)});
    for (const std::string& g : groups) args.insert(args.end(), {"--group", g});
    webbrowser::NodeProgram::Options options;
    // The steps the pages report, as they arrive.
    options.on_line = [steps = steps_](const std::string& line) {
        if (line.rfind("step ", 0) != 0) return;
        ++*steps;
        report(line);
    };
    program_ = std::make_unique<webbrowser::NodeProgram>(webbrowser::testsuiteScript(), args, options);
    if (!program_->started()) {
        *error = "cannot start " + webbrowser::nodeBinary() + " " + webbrowser::testsuiteScript();
        return false;
    }
    const std::optional<std::string> serving = program_->waitLine("serving ", kStartMs);
    const std::optional<std::string> cookie = program_->waitLine("cookie ", kStartMs);
    const std::optional<std::string> index = program_->waitLine("index ", kStartMs);
    if (!serving || !cookie || !index) {
        *error = "the test-suite server did not start: " + program_->transcript();
        return false;
    }
    // "serving http://127.0.0.1:PORT /tmp/copy"
    origin_ = serving->substr(8, serving->find(' ', 8) - 8);
    cookie_ = cookie->substr(7);
    index_ = index->substr(6);
    emit("testsuite serving " + origin_ + " (a copy of " + t.pages + "), cookie " + cookie_);
    return true;
}

int TestsuiteServer::steps() const { return steps_->load(); }

std::optional<std::string> TestsuiteServer::finish() {
    if (!program_) return std::nullopt;
    // "end" prints the summary, "N passed, M failed, K manual".
    program_->send("end");
    const std::optional<std::string> summary = program_->waitLine(
        [](const std::string& line) {
            return !line.empty() && std::isdigit(static_cast<unsigned char>(line[0])) &&
                   line.find(" passed, ") != std::string::npos;
        },
        kSummaryMs);
    program_->finish(kSummaryMs);
    program_.reset();
    return summary;
}

}  // namespace appmgr::emu
