// Fixture of the search tests: the browser connections up (the end of a
// scan arrives as a CB_SEARCH_STATUS_EVENT frame on "Callbacks"), the search
// module initialised, and an empty simulated EIT cache.
#pragma once

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "epg/epg.h"
#include "epg/epg_internal.h"
#include "epg/result_store.h"
#include "hbb_sim.h"
#include "test_support.h"

namespace appmgr::test {

// One comparison: field, comparison, value.
using Cmp = std::tuple<int, int, std::string>;

// The search-status callback as the browser receives it.
struct Status {
    int search_id = -1;
    int status = -1;
    int offset = -1;
    int length = -1;
    int found = -1;
};

inline bool operator==(const Status& a, const Status& b) {
    return a.search_id == b.search_id && a.status == b.status && a.offset == b.offset &&
           a.length == b.length && a.found == b.found;
}

inline std::ostream& operator<<(std::ostream& out, const Status& s) {
    return out << "{id " << s.search_id << ", status " << s.status << ", offset " << s.offset
               << ", length " << s.length << ", found " << s.found << "}";
}

class SearchTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        hbb_sim_eit_clear();
        startMessagingOnly();
        ASSERT_EQ(initializeEPGExternal(), 0);
    }

    void TearDown() override {
        hbb_sim_eit_set_event_hook(nullptr, nullptr);
        EXPECT_EQ(deinitializeEPGExternal(), 0);
        // Nothing is left behind: no cache client, no cache lock, no chunk.
        EXPECT_EQ(hbb_sim_eit_client_count(), 0);
        EXPECT_EQ(hbb_sim_eit_cache_locked(), 0);
        EXPECT_EQ(epg::result_pool().acquired(), 0);
        LibraryTest::TearDown();
    }

    void feed(const std::string& line) { ASSERT_EQ(hbb_sim_eit_feed_line(line.c_str()), 0) << line; }

    // Creates (plugin, id) with a query of the given subgroups.
    void createWithQuery(int plugin, int id, const std::vector<std::vector<Cmp>>& groups) {
        ASSERT_EQ(hbbCreateNewSearch(plugin, id), 0);
        setQuery(plugin, id, groups);
    }

    void setQuery(int plugin, int id, const std::vector<std::vector<Cmp>>& groups) {
        ASSERT_EQ(hbbSetSearchQuerySubGroupsNumber(plugin, id, static_cast<int>(groups.size()), 0,
                                                   0, 0, 0, 0),
                  0);
        for (size_t g = 0; g < groups.size(); ++g) {
            ASSERT_EQ(hbbSetSearchQueryNumbersInSubgroup(plugin, id, static_cast<int>(g),
                                                         static_cast<int>(groups[g].size())),
                      0);
            for (size_t q = 0; q < groups[g].size(); ++q) {
                const auto& [field, compare, value] = groups[g][q];
                ASSERT_EQ(hbbSetQueryInSubgroup(plugin, id, static_cast<int>(g),
                                                static_cast<int>(q),
                                                static_cast<eQueryFieldType>(field),
                                                static_cast<eQueryComparisonType>(compare),
                                                strdup(value.c_str())),
                          0);
            }
        }
    }

    // The next search-status callback on "Callbacks".
    Status nextStatus(int timeout_ms = 10000) {
        standin::Frame f = nextFrame(Connection::Callbacks, timeout_ms);
        Status s;
        EXPECT_EQ(f.id, 67) << f.raw;
        if (f.id != 67 || f.fields.size() != 5) return s;
        s.search_id = std::stoi(f.fields[0]);
        s.status = std::stoi(f.fields[1]);
        s.offset = std::stoi(f.fields[2]);
        s.length = std::stoi(f.fields[3]);
        s.found = std::stoi(f.fields[4]);
        return s;
    }

    // Start and wait for the end of the scan.
    Status run(int plugin, int id, int offset, int count) {
        EXPECT_EQ(hbbStartSearch(plugin, id, offset, count), 0);
        return nextStatus();
    }

    std::vector<std::string> titles(int plugin, int id, int count) {
        std::vector<std::string> out;
        for (int i = 0; i < count; ++i) {
            ShortProgramme* p = hbbGetSearchItem(plugin, id, i);
            out.push_back(p != nullptr ? p->name : "<none>");
        }
        return out;
    }
};

}  // namespace appmgr::test
