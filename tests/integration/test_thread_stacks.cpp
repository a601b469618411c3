// The library's threads start with the fixed stack of their kind, the
// environment raises it, and the stack watch that measured the sizes
// reports how deep a thread went.
#include <alloca.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "app_mgr.h"
#include "common/seams.h"
#include "common/threads.h"
#include "test_support.h"

using namespace appmgr::test;
namespace threads = appmgr::threads;

namespace {

// The stack size of the calling thread.
std::size_t own_stack_size() {
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) != 0) return 0;
    std::size_t size = 0;
    pthread_attr_getstacksize(&attr, &size);
    pthread_attr_destroy(&attr);
    return size;
}

// glibc rounds a requested size up to whole pages and may add the guard.
// The thread sanitizer's runtime raises a small stack to a minimum of its
// own (its thread-local storage plus 128 KiB); it stays far below the 8 MiB
// default a thread started without a size gets.
::testing::AssertionResult about(std::size_t actual, std::size_t wanted) {
    std::size_t most = wanted + 64 * 1024;
#ifdef APPMGR_SANITIZED_STACKS
    most = std::max(most, 2 * wanted);
#endif
    if (actual >= wanted && actual <= most) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << actual << " bytes of stack, " << wanted << " wanted";
}

// Sets an environment variable for one test.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old, had_ = true;
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (had_)
            ::setenv(name_, old_.c_str(), 1);
        else
            ::unsetenv(name_);
    }

private:
    const char* name_;
    std::string old_;
    bool had_ = false;
};

// The stack size of the thread that last called record().
struct SeenStack {
    std::mutex mutex;
    std::condition_variable cv;
    std::size_t size = 0;
    void record() {
        std::lock_guard<std::mutex> lock(mutex);
        size = own_stack_size();
        cv.notify_all();
    }
    std::size_t wait() {
        std::unique_lock<std::mutex> lock(mutex);
        cv.wait_for(lock, std::chrono::seconds(4), [&] { return size != 0; });
        return size;
    }
};

int record_stack(void* data, char*, int) {
    static_cast<SeenStack*>(static_cast<Messenger_t*>(data)->priv)->record();
    return 0;
}

class ThreadStackTest : public LibraryTest {
protected:
    // A "dtvPlugins" messenger whose callback records its thread's stack.
    std::size_t receive_thread_stack() {
        SeenStack seen;
        Messenger_t m{};
        m.msg_type = MESSENGER_TYPE_SERVER;
        std::strncpy(m.name, "dtvPlugins", sizeof(m.name) - 1);
        m.msg_port = 9514;
        EXPECT_EQ(messenger_init(&m, record_stack, &seen), RET_OK);
        EXPECT_EQ(messenger_start(&m), RET_OK);
        EXPECT_TRUE(browser_.connect(Connection::DtvPlugins, 3000));
        EXPECT_TRUE(browser_.send(Connection::DtvPlugins, "1|"));
        const std::size_t size = seen.wait();
        messenger_stop(&m);
        browser_.disconnect(Connection::DtvPlugins);
        return size;
    }
};

SeenStack g_shell_thread;

}  // namespace

TEST(ThreadStackSize, EnvironmentOnlyRaisesTheOwnSize) {
    const std::size_t own = threads::stack_size(threads::Kind::Receive);
    EXPECT_EQ(own, threads::kReceiveStackSize);
    {
        ScopedEnv env("APPMGR_THREAD_STACK_KIB", "4096");
        EXPECT_EQ(threads::stack_size(threads::Kind::Receive), 4096u * 1024u);
        EXPECT_EQ(threads::stack_size(threads::Kind::Search), 4096u * 1024u);
    }
    // Smaller values, garbage and absurd sizes leave each kind as it is.
    for (const char* value : {"16", "0", "", "12x", "-1", "99999999999"}) {
        ScopedEnv env("APPMGR_THREAD_STACK_KIB", value);
        EXPECT_EQ(threads::stack_size(threads::Kind::Receive), threads::kReceiveStackSize) << value;
        EXPECT_EQ(threads::stack_size(threads::Kind::BrowserWait), threads::kBrowserWaitStackSize)
            << value;
    }
}

TEST_F(ThreadStackTest, ReceiveThreadRunsOnItsFixedStack) {
    EXPECT_TRUE(about(receive_thread_stack(), threads::kReceiveStackSize));
    // Raised by the environment for the next thread started.
    ScopedEnv env("APPMGR_THREAD_STACK_KIB", std::to_string(threads::kReceiveStackSize / 1024 * 2));
    EXPECT_TRUE(about(receive_thread_stack(), threads::kReceiveStackSize * 2));
}

// The browser wait that times out runs the kill command on its own thread.
TEST_F(ThreadStackTest, BrowserWaitRunsOnItsFixedStack) {
    appmgr::seams::set_browser_wait_seconds(1);
    appmgr::seams::set_shell_runner([](const char*) {
        g_shell_thread.record();
        return 0;
    });
    ASSERT_EQ(startWithBrowser(), 1);
    browser_.disconnect(Connection::Application);
    EXPECT_TRUE(about(g_shell_thread.wait(), threads::kBrowserWaitStackSize));
}

// What the measured sizes rest on: a thread that used N bytes of its stack
// reports at least N and not much more.
TEST(StackWatch, ReportsTheDeepestUse) {
#ifdef APPMGR_SANITIZED_STACKS
    GTEST_SKIP() << "the stack watch is off under the sanitizers";
#else
    TempDir dir;
    const std::string report = dir.path() + "stacks.txt";
    ScopedEnv env("APPMGR_STACK_REPORT", report);
    constexpr std::size_t kDeep = 40 * 1024;
    auto body = [](void* depth) -> void* {
        threads::StackWatch watch(threads::Kind::Search);
        const std::size_t n = *static_cast<std::size_t*>(depth);
        if (n > 0) {
            volatile unsigned char* block = static_cast<unsigned char*>(alloca(n));
            for (std::size_t i = 0; i < n; i += 64) block[i] = 1;
        }
        return nullptr;
    };
    for (std::size_t depth : {kDeep, std::size_t{0}}) {
        pthread_t thread;
        ASSERT_EQ(threads::start(&thread, threads::Kind::Search, body, &depth), 0);
        pthread_join(thread, nullptr);
    }
    std::ifstream in(report);
    std::string kind;
    std::size_t deep = 0, shallow = 0, size = 0;
    ASSERT_TRUE(in >> kind >> deep >> size);
    EXPECT_EQ(kind, "search");
    ASSERT_TRUE(in >> kind >> shallow >> size);
    EXPECT_GE(deep, kDeep);
    EXPECT_LT(deep, kDeep + 8 * 1024);
    EXPECT_LT(shallow, 8u * 1024u);
    EXPECT_GT(size, threads::kSearchStackSize / 2);
#endif
}
