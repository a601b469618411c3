// EPG search over a 100,000-event cache (50 services of 2,000 events):
// the time from hbbStartSearch until the browser holds the end-of-search
// callback, beside a plain loop that walks the same cache and makes the same
// comparisons in one go; then the address space and resident memory of 128
// live searches. See README.md.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>
#include <string>
#include <thread>

#include "app_mgr.h"
#include "app_mgr_state.h"
#include "browser_standin.h"
#include "common/seams.h"
#include "common/threads.h"
#include "epg/epg.h"
#include "epg/query_eval.h"
#include "epg/search_task.h"
#include "figures.h"
#include "hbb_sim.h"

using appmgr::standin::BrowserStandin;
using appmgr::standin::Connection;

namespace {

constexpr int kServices = 50;
constexpr int kEventsPerService = 2000;
constexpr int kFirstStart = 1790000000;
// About 1,000 of the 100,000 events start in this range.
constexpr int kRangeFrom = kFirstStart + 40000;
constexpr int kRangeTo = kRangeFrom + 74400;
// Event 1000 (0x3e8) of service 20 (triplet 1.3.120).
constexpr const char* kProgrammeId = "dvb://1.3.78;3e8";

struct Setup {
    std::string dir;
    BrowserStandin* browser = nullptr;
    Setup() {
        hbb_sim_set_log_stderr(0);
        hbb_sim_set_log_level(5);
        hbb_sim_eit_trace_event_calls(0);
        char tmpl[] = "/tmp/appmgr-bench-search-XXXXXX";
        dir = std::string(mkdtemp(tmpl)) + "/";
        appmgr::seams::set_socket_dir(dir);
        appmgr::seams::set_settle_millis(0);
        tools_msg_init(&gData, 0, nullptr);
        tools_msg_connect(&gData);
        browser = new BrowserStandin(dir);
        browser->connectAll(5000);
        while (gData.mng_connection[MNG_CONNECTION_TYPE_CALLBACK].messenger.state !=
               MESSENGER_STATE_STARTED)
            std::this_thread::yield();
        initializeEPGExternal();
        hbb_sim_eit_clear();
        hbb_sim_eit_generate(kServices, kEventsPerService, kFirstStart, 2024);
    }
    ~Setup() {
        deinitializeEPGExternal();
        tools_msg_close(&gData);
        delete browser;
        std::filesystem::remove_all(dir);
    }
};

Setup& setup() {
    static Setup s;
    return s;
}

// Waits for the search-status callback; returns its eventsFound, or -1.
int wait_end_of_search() {
    auto frame = setup().browser->readFrame(Connection::Callbacks, 30000);
    if (!frame || frame->id != 67 || frame->fields.size() != 5) return -1;
    return std::atoi(frame->fields[4].c_str());
}

void set_single(int id, int field, int comparison, const char* value) {
    hbbSetQueryInSubgroup(1, id, 0, 0, static_cast<eQueryFieldType>(field),
                          static_cast<eQueryComparisonType>(comparison), strdup(value));
}

// Search ids: 1 title contains, 2 start-time range, 3 programme id.
void create_searches() {
    static bool created = false;
    if (created) return;
    created = true;
    for (int id = 1; id <= 3; ++id) {
        hbbCreateNewSearch(1, id);
        hbbSetSearchQuerySubGroupsNumber(1, id, 1, 0, 0, 0, 0, 0);
    }
    hbbSetSearchQueryNumbersInSubgroup(1, 1, 0, 1);
    set_single(1, eTitle, eContainString, "news");
    hbbSetSearchQueryNumbersInSubgroup(1, 2, 0, 2);
    set_single(2, eStartTime, eGreaterOrEqual, std::to_string(kRangeFrom).c_str());
    hbbSetQueryInSubgroup(1, 2, 0, 1, eStartTime, eLess,
                          strdup(std::to_string(kRangeTo).c_str()));
    hbbSetSearchQueryNumbersInSubgroup(1, 3, 0, 1);
    set_single(3, eProgrammeID, eEqual, kProgrammeId);
}

// One search, from the start request to the browser's receipt of the
// end-of-search callback. Returns its duration; *found gets its count.
double search_once(int id, int* found) {
    const auto begin = std::chrono::steady_clock::now();
    hbbStartSearch(1, id, 0, 5000);
    *found = wait_end_of_search();
    const auto end = std::chrono::steady_clock::now();
    // The next start drops these results; the abort keeps the pool free
    // for the other searches of the run.
    hbbAbortSearch(1, id);
    wait_end_of_search();
    return std::chrono::duration<double>(end - begin).count();
}

void release_descriptors(tEIT_DVB_HbbTVDescriptor& e) {
    for (tEIT_DVB_EventDescriptor* d : {&e.eitShortEventDesc, &e.eitLongEventDesc}) {
        for (int i = 0; i < d->eitEventSegmentNum; ++i)
            UT_FreeDVBStringConverted(d->eitEventSegments[i]);
        std::free(d->eitEventSegments);
    }
}

// The floor: one client walks every service under the cache lock, reads
// each event, makes the query's comparisons, and fetches (and drops) the
// texts of the matches, as any scan must.
template <typename Matches>
int plain_loop(Matches&& matches) {
    int found = 0;
    int handle = EIT_DVB_ClientRegister();
    for (int more_services = EIT_DVB_GetFirstServiceCache(handle); more_services;
         more_services = EIT_DVB_GetNextServiceCache(handle)) {
        EIT_DVB_LockCache();
        for (int more = EIT_DVB_GetFirstEventFromCacheNonLock(handle); more;
             more = EIT_DVB_GetNextEventFromCacheNonLock(handle)) {
            tEIT_DVB_HbbTVDescriptor e{};
            EIT_DVB_GetEventDataNonLock(handle, &e);
            if (!matches(e)) continue;
            ++found;
            EIT_DVB_GetRestOfEventDataNonLock(handle, &e);
            release_descriptors(e);
        }
        EIT_DVB_UnlockCache();
    }
    EIT_DVB_ClientUnregister(handle);
    return found;
}

bool title_contains(const tEIT_DVB_HbbTVDescriptor& e) {
    return appmgr::epg::contains_ignore_case(e.eitName, "news");
}
bool start_in_range(const tEIT_DVB_HbbTVDescriptor& e) {
    return e.eitStartTime >= kRangeFrom && e.eitStartTime < kRangeTo;
}
bool programme_id_equal(const tEIT_DVB_HbbTVDescriptor& e) {
    char id[appmgr::epg::kProgrammeIdSize];
    appmgr::epg::format_programme_id(e, id);
    return std::strcmp(id, kProgrammeId) == 0;
}

// Search id (1 title contains, 2 start-time range, 3 programme id) and the
// plain loop's comparison for it.
struct Query {
    int id;
    bool (*matches)(const tEIT_DVB_HbbTVDescriptor&);
};
constexpr Query kQueries[] = {{1, title_contains}, {2, start_in_range}, {3, programme_id_equal}};

// The search and the plain loop alternate, one of each per iteration, so
// that both see the same moments of a shared machine. The iteration's time
// is the search's; the medians of both are counters ("search_ns",
// "loop_ns"), with the numbers of events each found.
void BM_SearchBesideLoop(benchmark::State& state) {
    setup();
    create_searches();
    const Query& query = kQueries[state.range(0) - 1];
    std::vector<double> search_s, loop_s;
    int found = 0, loop_found = 0;
    for (auto _ : state) {
        auto begin = std::chrono::steady_clock::now();
        loop_found = plain_loop(query.matches);
        loop_s.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
        search_s.push_back(search_once(query.id, &found));
        state.SetIterationTime(search_s.back());
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v.empty() ? 0.0 : v[v.size() / 2] * 1e9;
    };
    state.counters["search_ns"] = median(search_s);
    state.counters["loop_ns"] = median(loop_s);
    state.counters["found"] = found;
    state.counters["loop_found"] = loop_found;
    if (found != loop_found) state.SkipWithError("the search and the loop found different counts");
}
BENCHMARK(BM_SearchBesideLoop)->ArgName("query")->DenseRange(1, 3)->Iterations(40)->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// VmSize and VmRSS of this process, in KiB.
void memory_kib(long* size, long* rss) {
    *size = *rss = -1;
    FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) return;
    char line[256];
    while (std::fgets(line, sizeof line, status)) {
        std::sscanf(line, "VmSize: %ld", size);
        std::sscanf(line, "VmRSS: %ld", rss);
    }
    std::fclose(status);
}

void report_live_searches() {
    // The three benchmark searches go first, so that only the 128 count.
    for (int id = 1; id <= 3; ++id) hbbDestroySearch(1, id);
    long size0, rss0, size1, rss1, size2, rss2;
    memory_kib(&size0, &rss0);
    int created = 0;
    for (int id = 0; id < 128; ++id) {
        if (hbbCreateNewSearch(2, id) != 0) break;
        ++created;
        hbbSetSearchQuerySubGroupsNumber(2, id, 1, 0, 0, 0, 0, 0);
        hbbSetSearchQueryNumbersInSubgroup(2, id, 0, 1);
        hbbSetQueryInSubgroup(2, id, 0, 0, eTitle, eContainString, strdup("news"));
    }
    memory_kib(&size1, &rss1);
    // Every search scans the whole cache once (the pool lets the first ones
    // keep up to 2,000 results in all).
    for (int id = 0; id < created; ++id) hbbStartSearch(2, id, 0, 100);
    for (int id = 0; id < created; ++id) wait_end_of_search();
    memory_kib(&size2, &rss2);
    std::printf("\n128 live searches (stack %zu KiB each):\n",
                appmgr::threads::stack_size(appmgr::threads::Kind::Search) / 1024);
    std::printf("  created: %d\n", created);
    std::printf("  idle:            address space +%ld KiB (%.1f KiB per search), resident +%ld KiB\n",
                size1 - size0, static_cast<double>(size1 - size0) / created, rss1 - rss0);
    std::printf("  after one scan:  address space +%ld KiB, resident +%ld KiB\n", size2 - size0,
                rss2 - rss0);
    for (int id = 0; id < created; ++id) hbbDestroySearch(2, id);
}

}  // namespace

int main(int argc, char** argv) {
    const appmgr::bench::FiguresFile figures(&argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    appmgr::bench::Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    const char* what[] = {"title contains \"news\"", "start time in a 20.7 h range",
                          "programme id equal to one id"};
    std::printf("\nscan / plain loop (medians, %d events):\n", kServices * kEventsPerService);
    std::vector<std::string> rows;
    for (int q = 1; q <= 3; ++q) {
        const std::string name = "BM_SearchBesideLoop/query:" + std::to_string(q);
        const auto found = collector.counter(name, "found");
        const std::string matches = found ? std::to_string(static_cast<long>(*found)) : "?";
        appmgr::bench::Row row{"EPG search of 100,000 events, " + std::string(what[q - 1]) + " (" +
                                   matches + " found), start to end-of-search callback",
                               collector.counter(name, "search_ns"), "plain loop over the same cache",
                               collector.counter(name, "loop_ns"), "1.5", ""};
        rows.push_back(appmgr::bench::table_row(row));
        std::printf("  %s\n", rows.back().c_str());
    }
    setup();
    create_searches();
    report_live_searches();
    benchmark::Shutdown();
    if (!figures.write(rows)) {
        std::fprintf(stderr, "appmgr-bench-search: cannot write the figures\n");
        return 1;
    }
    return 0;
}
