// The command ring of a search thread and the semaphore of its handshakes.
#pragma once

#include <condition_variable>
#include <mutex>

namespace appmgr::epg {

// A counting semaphore (initial value 0).
class Semaphore {
public:
    void post();
    void wait();

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    unsigned count_ = 0;
};

// Commands for one search thread: a ring of kCapacity commands. Every
// enqueue wakes the reader once, also when the ring was full and the command
// was refused; a wake-up then finds the ring as it is. In the planned use at
// most two commands wait at a time (an abort followed by a destroy).
class CommandRing {
public:
    static constexpr unsigned kCapacity = 10;

    enum class Taken { Command, Empty, Closed };

    // Appends a command; false (and logged) when the ring is full.
    bool enqueue(int command);
    // Waits for a wake-up and takes the oldest command. Empty when the
    // wake-up found no command. Closed once close() was called: the reader
    // must end.
    Taken dequeue(int& command);
    // Ends the reader's wait for good, whatever is queued. For tear-down,
    // when the destroy command cannot be queued.
    void close();

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int commands_[kCapacity] = {};
    unsigned head_ = 0;
    unsigned tail_ = 0;
    unsigned count_ = 0;
    unsigned wakeups_ = 0;
    bool closed_ = false;
};

}  // namespace appmgr::epg
