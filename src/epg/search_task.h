// The thread of one search: it waits for commands on its ring, runs scans,
// drops results on an abort and ends on a destroy.
#pragma once

#include <pthread.h>

#include <cstddef>

#include "command_ring.h"

namespace appmgr::epg {

class SearchSlot;

class SearchTask {
public:
    explicit SearchTask(SearchSlot& slot);
    // A thread still running is ended: its ring is closed (whatever is
    // queued) after asking a scan in progress to stop, and it is joined.
    ~SearchTask();
    SearchTask(const SearchTask&) = delete;
    SearchTask& operator=(const SearchTask&) = delete;

    // Starts the thread and waits until it runs. False when the thread
    // cannot be created.
    bool start();
    bool enqueue(int command) { return ring_.enqueue(command); }
    // Waits until the thread has dropped the results of an abort.
    void wait_for_abort() { binder_.wait(); }
    // Waits for the thread to end (after the destroy command).
    void join();

private:
    static void* entry(void* self);
    void run();
    // Returns false when the thread must end.
    bool execute(int command);
    void start_search();
    void abort_search();

    SearchSlot& slot_;
    CommandRing ring_;
    Semaphore binder_;
    pthread_t thread_{};
    bool joinable_ = false;
};

}  // namespace appmgr::epg
