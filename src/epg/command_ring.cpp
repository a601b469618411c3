// Search thread command ring and semaphore.
#include "command_ring.h"

#include "common/log.h"

namespace appmgr::epg {

void Semaphore::post() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++count_;
    }
    cv_.notify_one();
}

void Semaphore::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return count_ > 0; });
    --count_;
}

bool CommandRing::enqueue(int command) {
    bool stored = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (count_ > kCapacity - 1) {
            AM_ERROR("Command buffer should contain max 2 commands with planed usage, "
                     "COMMAND_BUFFER_SIZE is: %d",
                     static_cast<int>(kCapacity));
        } else {
            commands_[tail_] = command;
            tail_ = (tail_ + 1) % kCapacity;
            ++count_;
            stored = true;
        }
        ++wakeups_;
    }
    cv_.notify_one();
    return stored;
}

CommandRing::Taken CommandRing::dequeue(int& command) {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return wakeups_ > 0 || closed_; });
    if (closed_) return Taken::Closed;
    --wakeups_;
    if (count_ == 0) return Taken::Empty;
    --count_;
    command = commands_[head_];
    head_ = (head_ + 1) % kCapacity;
    return Taken::Command;
}

void CommandRing::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    cv_.notify_one();
}

}  // namespace appmgr::epg
