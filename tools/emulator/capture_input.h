// A transport-stream capture as an input of a run. It plays the broadcast
// into the simulated receiver through the capture player of platform/ts:
// the capture's services become channels, the played service's HbbTV AIT
// versions reach the library through its AIT subscription, its EIT fills the
// guide, its object carousels are served and its stream events reach the
// listeners the library subscribed. The trace shows every table it hands to
// the library with the decisions that followed, and after each play what was
// decoded (per table: sections, versions, CRC failures).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app_mgr_types.h"
#include "decisions.h"
#include "emu_output.h"
#include "scenario.h"

namespace ts {
class CapturePlayer;
}

namespace appmgr::emu {

// One AIT version the capture handed to the library, and what came of it.
struct CapturedAit {
    int pid = 0;
    int version = 0;
    std::string dvb_url;
    int applications = 0;
    bool delivered = false;     // the library had subscribed to AITs
    std::size_t decisions = 0;  // decisions the library took while it handled the table
};

class CaptureInput {
public:
    CaptureInput();
    ~CaptureInput();
    CaptureInput(const CaptureInput&) = delete;
    CaptureInput& operator=(const CaptureInput&) = delete;

    // Opens the capture's source; "" or why it cannot be read. Called before
    // the run moves into its private /tmp and network: the open file, or the
    // UDP socket bound on the machine's loopback, stays usable there.
    std::string open(const CaptureSpec& wanted);
    bool isOpen() const { return player_ != nullptr; }
    // "capture x.ts (service 0xd49, as fast as it is read)".
    std::string description() const;

    // At set-up, before the library starts: the decoders' log lines join
    // the trace, and the decisions the library takes while it handles each
    // captured AIT are counted from `decisions`.
    void attach(ClaimLog<Decision>& decisions);

    // Plays to the end of the source and reports; played before, it plays
    // the source again (a file from its start, as a playout loops it).
    void play();
    // The same on the player's thread; steps run meanwhile.
    void start();
    // Waits for the play that start() began to end, then reports.
    void wait();
    // Ends a play that start() began, then reports; nothing when none runs.
    void stop();
    bool playing() const { return playing_; }

    // What was played and decoded so far; only while nothing plays.
    const ts::CapturePlayer& player() const { return *player_; }
    const std::vector<CapturedAit>& aits() const { return aits_; }

private:
    void beforeAit(const AitTable& table, uint16_t pid);
    void afterAit(const AitTable& table);
    void report() const;

    CaptureSpec wanted_;
    std::unique_ptr<ts::CapturePlayer> player_;
    ClaimLog<Decision>* decisions_ = nullptr;
    bool played_ = false;
    bool playing_ = false;
    // Written on the player's thread, read after it ended.
    uint16_t pid_ = 0;
    std::size_t decisions_before_ = 0;
    uint64_t delivered_before_ = 0;
    std::vector<CapturedAit> aits_;
};

// A count of what a capture brought, by the name "expect capture" and the
// report use: the player's counts (packets, AIT versions delivered, EIT
// events fed, carousels served, stream events, ...), the decoder's (table
// sections, CRC failures) and the run's (AITs the library answered).
struct CaptureCount {
    const char* name;
    uint64_t (*value)(const CaptureInput& capture);
};
const std::vector<CaptureCount>& captureCounts();
const CaptureCount* findCaptureCount(const std::string& name);

}  // namespace appmgr::emu
