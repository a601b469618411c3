// The search thread's loop and its start and end.
#include "search_task.h"

#include <exception>

#include "app_mgr_search.h"
#include "common/log.h"
#include "common/threads.h"
#include "eit_scan.h"
#include "search_slot.h"

namespace appmgr::epg {


SearchTask::SearchTask(SearchSlot& slot) : slot_(slot) {}

SearchTask::~SearchTask() {
    if (!joinable_) return;
    slot_.stop_current_search();
    ring_.close();
    join();
}

bool SearchTask::start() {
    if (threads::start(&thread_, threads::Kind::Search, &SearchTask::entry, this) != 0) {
        AM_ERROR("Unable to start Searching Task !");
        return false;
    }
    joinable_ = true;
    AM_INFO("Now wait for searching task to signal...");
    binder_.wait();
    AM_INFO("Searching task signaled - initializeSearchSyncUtil sucessfull");
    return true;
}

void SearchTask::join() {
    if (!joinable_) return;
    pthread_join(thread_, nullptr);
    joinable_ = false;
}

void* SearchTask::entry(void* self) {
    threads::StackWatch stack_watch(threads::Kind::Search);
    static_cast<SearchTask*>(self)->run();
    return nullptr;
}

void SearchTask::run() {
    binder_.post();
    bool running = true;
    while (running) {
        AM_INFO("Search task waiting for command...");
        int command = -1;
        const CommandRing::Taken taken = ring_.dequeue(command);
        if (taken == CommandRing::Taken::Closed) break;
        if (taken == CommandRing::Taken::Empty) {
            AM_INFO("Search task woke up to an empty command buffer");
            continue;
        }
        AM_INFO("Search task received command: %d", command);
        try {
            running = execute(command);
        } catch (const std::exception& e) {
            // Scans hold their platform resources through guards: an
            // exception (out of memory) leaves nothing locked or registered.
            AM_ERROR("Search task command %d failed: %s", command, e.what());
        }
    }
}

bool SearchTask::execute(int command) {
    switch (command) {
        case STC_CMD_START_SEARCH:
            AM_INFO("Search task execute STC_CMD_START_SEARCH command");
            start_search();
            return true;
        case STC_CMD_ABORT_SEARCH:
            AM_INFO("Search task execute STC_CMD_ABORT_SEARCH command");
            abort_search();
            return true;
        case STC_CMD_DESTROY_SEARCH:
            AM_INFO("Search task execute STC_CMD_DESTROY_SEARCH command");
            return false;
        default:
            AM_ERROR("Search task received unknown command: %d !", command);
            return true;
    }
}

void SearchTask::start_search() {
    slot_.release_results();
    const ScanInput input = slot_.scan_input();
    const int groups = input.query.subgroups_number;
    if (groups >= 1) {
        AM_INFO("Executing complex search...");
        search_for_events(slot_, input);
    } else if (groups == 0) {
        AM_INFO("Executing simple search...");
        search_one_stream(slot_, input.query);
    } else {
        AM_INFO("Search task (pluginID: %d, searchID: %d) group numbers: %d", slot_.plugin_id,
                slot_.search_id, groups);
        AM_INFO("Ignore this search command...");
    }
}

void SearchTask::abort_search() {
    slot_.release_results();
    AM_INFO("Search task release main thread (STC_CMD_ABORT_SEARCH)");
    binder_.post();
    search_status_notify(slot_.search_id, APPMGR_SEARCH_STATUS_ABORTED, 0, 0, 0);
}

}  // namespace appmgr::epg
