// Key sets: clamping to the activation state, the "other keys" group,
// refused masks, ignored calls, and the mask as the browser and the platform
// receive it.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "core/core.h"
#include "state/state.h"
#include "hbb_sim.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

int other_keys[] = {0x1CD, 0};

void set_activated(unsigned int on) {
    locked([&] { appmgr::state::set_activated(on == 1U); });
}
void set_portal(int on) {
    locked([&] { appmgr::state::set_portal(on == 1); });
}

class KeySetTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        startMessagingOnly();
        set_state(APP_MANAGER_INITIALIZED);
    }

    // The mask carried by the next frame, which must be a key-set frame.
    int nextKeySet() {
        appmgr::standin::Frame f = nextFrame(Connection::Application);
        EXPECT_EQ(f.id, 220) << f.raw;
        return f.id == 220 && f.fields.size() == 1 ? std::stoi(f.fields[0]) : -1;
    }
    void expectNoFrame() {
        auto f = browser_.readFrame(Connection::Application, 200);
        EXPECT_FALSE(f.has_value()) << f->raw;
    }
    // Browser (last frame), platform and library agree on the mask.
    void expectInForce(int mask) {
        EXPECT_EQ(locked([] { return appmgr::core::current_key_set_value(); }), mask);
        EXPECT_EQ(hbb_sim_registered_keyset(), mask);
    }
};

}  // namespace

TEST_F(KeySetTest, ClampedUntilActivationThenReapplied) {
    EXPECT_EQ(setKeySet(0x7FF, nullptr), 0x1F);
    EXPECT_EQ(nextFrame(Connection::Application).body, "220|31|");
    expectInForce(0x1F);
    EXPECT_EQ(setKeySet(0x1E0, nullptr), 0);
    EXPECT_EQ(nextKeySet(), 0);
    EXPECT_EQ(setKeySet(0x1F5, nullptr), 0x15);
    EXPECT_EQ(nextKeySet(), 0x15);

    set_activated(1);
    setActivateKeySet();
    EXPECT_EQ(nextKeySet(), 0x1F5);
    expectInForce(0x1F5);
    EXPECT_EQ(hbb_sim_call_count("hbbRegisterKeySet"), 4);

    // A list of other keys given before activation is not remembered.
    set_activated(0);
    EXPECT_EQ(setKeySet(0x7FF, other_keys), 0x1F);
    EXPECT_EQ(nextKeySet(), 0x1F);
    set_activated(1);
    setActivateKeySet();
    EXPECT_EQ(nextKeySet(), 0x3FF);
    expectInForce(0x3FF);
}

TEST_F(KeySetTest, OtherKeysGroupNeedsTheListAfterActivation) {
    set_activated(1);
    EXPECT_EQ(setKeySet(0x155, nullptr), 0x155);
    EXPECT_EQ(nextKeySet(), 0x155);
    EXPECT_EQ(setKeySet(0x400, other_keys), 0x400);
    EXPECT_EQ(nextFrame(Connection::Application).body, "220|1024|");
    expectInForce(0x400);
    EXPECT_EQ(setKeySet(0x400, nullptr), 0);
    EXPECT_EQ(nextKeySet(), 0);
    expectInForce(0);
    EXPECT_EQ(setKeySet(0x7FF, nullptr), 0x3FF);
    EXPECT_EQ(nextKeySet(), 0x3FF);
    EXPECT_EQ(setKeySet(0x7FF, other_keys), 0x7FF);
    EXPECT_EQ(nextKeySet(), 0x7FF);
    expectInForce(0x7FF);
}

TEST_F(KeySetTest, OutOfRangeMasksAreRefusedAndChangeNothing) {
    set_activated(1);
    EXPECT_EQ(setKeySet(0x3C, nullptr), 0x3C);
    EXPECT_EQ(nextKeySet(), 0x3C);
    for (int bad : {0x800, -1, INT_MIN, INT_MAX}) {
        EXPECT_EQ(setKeySet(bad, nullptr), 0) << bad;
        EXPECT_EQ(setKeySet(bad, other_keys), 0) << bad;
    }
    EXPECT_TRUE(log_.contains("INVALID KEYSET VALUE"));
    EXPECT_EQ(hbb_sim_call_count("hbbRegisterKeySet"), 1);
    expectNoFrame();
    expectInForce(0x3C);
    // Nor is the mask to re-apply on activation changed.
    setActivateKeySet();
    EXPECT_EQ(nextKeySet(), 0x3C);
}

TEST_F(KeySetTest, IgnoredUnlessInitialisedOrInPortal) {
    set_activated(1);
    for (AppMgrState s : {APP_MANAGER_DEINITIALIZED, APP_MANAGER_SUSPENDED,
                          APP_MANAGER_INITIALIZING}) {
        set_state(s);
        EXPECT_EQ(setKeySet(0x1F, nullptr), 1) << s;
        EXPECT_EQ(setKeySet(0x800, nullptr), 1) << s;  // not even range-checked
        setActivateKeySet();
    }
    EXPECT_EQ(hbb_sim_call_count("hbbRegisterKeySet"), 0);
    EXPECT_FALSE(log_.contains("INVALID KEYSET VALUE"));
    expectNoFrame();
    expectInForce(0);

    // A portal page takes key sets while the manager is suspended.
    set_state(APP_MANAGER_SUSPENDED);
    set_portal(1);
    EXPECT_EQ(setKeySet(0x3FF, nullptr), 0x3FF);
    EXPECT_EQ(nextKeySet(), 0x3FF);
    expectInForce(0x3FF);
    set_portal(0);
}

// Callers on several threads: whatever the interleaving, the last mask the
// browser received, the one the platform registered and the one in force
// agree.
TEST_F(KeySetTest, ConcurrentCallersLeaveBothSidesAgreeing) {
    set_activated(1);
    constexpr int kThreads = 4;
    constexpr int kCalls = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kCalls; ++i) setKeySet((t * kCalls + i) & 0x3FF, nullptr);
        });
    threads.emplace_back([] {
        for (int i = 0; i < kCalls; ++i) setActivateKeySet();
    });
    for (auto& th : threads) th.join();

    int last = -1;
    for (int i = 0; i < (kThreads + 1) * kCalls && !HasFailure(); ++i) last = nextKeySet();
    expectNoFrame();
    EXPECT_EQ(hbb_sim_call_count("hbbRegisterKeySet"), (kThreads + 1) * kCalls);
    expectInForce(last);
}
