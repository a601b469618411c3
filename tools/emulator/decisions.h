// The library's decisions as the emulator learns them: which application it
// chose to start, kept or killed, which table it refused, which page the
// browser reported loaded. The run prints and checks them ("expect
// decision"); where they come from is behind DecisionWatch alone.
#pragma once

#include <string>
#include <vector>

namespace appmgr::emu {

struct Decision {
    std::string kind;  // one of decisionKinds()
    int org = -1;      // the application's ids, -1 when the decision has none
    int app = -1;
    std::string text;  // what the trace says about it
};

// "kill 0x70.1".
std::string describe(const Decision& d);

// The kinds "expect decision" accepts.
const std::vector<std::string>& decisionKinds();

class DecisionListener {
public:
    virtual ~DecisionListener() = default;
    // Called on the library's thread that decided, while it decides.
    virtual void decided(const Decision& d) = 0;
    // The library took url as the loaded page (the browser's message 82).
    virtual void pageLoaded(const std::string& url) = 0;
};

// Delivers the library's decisions to a listener while it exists; one at a
// time. They come from the library's decision trace (through the
// simulator's decision hook); the watch also prints the library's log lines
// with --verbose.
class DecisionWatch {
public:
    explicit DecisionWatch(DecisionListener& listener);
    ~DecisionWatch();
    DecisionWatch(const DecisionWatch&) = delete;
    DecisionWatch& operator=(const DecisionWatch&) = delete;
};

}  // namespace appmgr::emu
