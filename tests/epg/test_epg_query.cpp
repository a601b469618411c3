// Query semantics (the comparison table, OR-of-AND, the one-stream test) and
// the result store's chunk arithmetic, tested on the module's own types.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "epg/query_eval.h"
#include "epg/result_store.h"
#include "hbb_sim.h"

namespace appmgr::epg {
namespace {

tEIT_DVB_HbbTVDescriptor event_of(const char* name, int start, int duration = 600) {
    tEIT_DVB_HbbTVDescriptor e{};
    e.eitName = const_cast<char*>(name);
    e.eitStartTime = start;
    e.eitDuration = duration;
    e.eitOnid = 0x1;
    e.eitTsid = 0x3f;
    e.eitSid = 0x2a0;
    e.eitEventID = 0xbeef;
    return e;
}

Comparison comparison(int field, int compare, const char* value, int number = 0) {
    Comparison c;
    c.set = true;
    c.field = field;
    c.comparison = compare;
    c.value = copy_text(value);
    c.number = number;
    return c;
}

struct Row {
    int field;
    int compare;
    const char* value;
    int number;
    const char* name;
    int start;
    bool holds;
};

// Every field against every comparison. Values and events are chosen so
// that a swapped operand or a wrong operator changes the outcome.
const Row kTable[] = {
    // titles: exact (case-sensitive) equality, case-insensitive containment
    {eTitle, eEqual, "Evening NEWS", 0, "Evening NEWS", 0, true},
    {eTitle, eEqual, "evening news", 0, "Evening NEWS", 0, false},
    {eTitle, eNotEqual, "evening news", 0, "Evening NEWS", 0, true},
    {eTitle, eNotEqual, "Evening NEWS", 0, "Evening NEWS", 0, false},
    {eTitle, eContainString, "news", 0, "Evening NEWS", 0, true},
    {eTitle, eContainString, "NeWs", 0, "the news at ten", 0, true},
    {eTitle, eContainString, "newsy", 0, "Evening NEWS", 0, false},
    {eTitle, eContainString, "", 0, "Evening NEWS", 0, false},
    {eTitle, eDontContainString, "news", 0, "Evening NEWS", 0, false},
    {eTitle, eDontContainString, "sport", 0, "Evening NEWS", 0, true},
    {eTitle, eGreater, "A", 0, "B", 0, false},
    {eTitle, eGreaterOrEqual, "A", 0, "B", 0, false},
    {eTitle, eLess, "C", 0, "B", 0, false},
    {eTitle, eLessOrEqual, "C", 0, "B", 0, false},
    {eTitle, 8, "B", 0, "B", 0, false},
    {eTitle, -1, "B", 0, "B", 0, false},
    // start times: the event is the left operand
    {eStartTime, eEqual, "1000", 1000, "x", 1000, true},
    {eStartTime, eEqual, "1000", 1000, "x", 1001, false},
    {eStartTime, eNotEqual, "1000", 1000, "x", 1001, true},
    {eStartTime, eNotEqual, "1000", 1000, "x", 1000, false},
    {eStartTime, eGreater, "1000", 1000, "x", 1001, true},
    {eStartTime, eGreater, "1000", 1000, "x", 1000, false},
    {eStartTime, eGreaterOrEqual, "1000", 1000, "x", 1000, true},
    {eStartTime, eGreaterOrEqual, "1000", 1000, "x", 999, false},
    {eStartTime, eLess, "1000", 1000, "x", 999, true},
    {eStartTime, eLess, "1000", 1000, "x", 1000, false},
    {eStartTime, eLessOrEqual, "1000", 1000, "x", 1000, true},
    {eStartTime, eLessOrEqual, "1000", 1000, "x", 1001, false},
    {eStartTime, eContainString, "1000", 1000, "x", 1000, false},
    {eStartTime, eDontContainString, "1000", 1000, "x", 1000, false},
    {eStartTime, 9, "1000", 1000, "x", 1000, false},
    // programme ids: "dvb://1.3f.2a0;beef", exact text
    {eProgrammeID, eEqual, "dvb://1.3f.2a0;beef", 0, "x", 0, true},
    {eProgrammeID, eEqual, "dvb://1.3F.2A0;BEEF", 0, "x", 0, false},
    {eProgrammeID, eNotEqual, "dvb://1.3f.2a0;beee", 0, "x", 0, true},
    {eProgrammeID, eNotEqual, "dvb://1.3f.2a0;beef", 0, "x", 0, false},
    {eProgrammeID, eContainString, "dvb", 0, "x", 0, false},
    {eProgrammeID, eDontContainString, "dvb", 0, "x", 0, true},
    {eProgrammeID, eGreater, "dvb://0.0.0;0", 0, "x", 0, false},
    {eProgrammeID, eGreaterOrEqual, "dvb://1.3f.2a0;beef", 0, "x", 0, false},
    {eProgrammeID, eLess, "dvb://z", 0, "x", 0, false},
    {eProgrammeID, eLessOrEqual, "dvb://1.3f.2a0;beef", 0, "x", 0, false},
    // unknown fields never hold
    {3, eEqual, "x", 0, "x", 0, false},
    {-1, eContainString, "x", 0, "x", 0, false},
};

TEST(EpgQuery, ComparisonTable) {
    hbb_sim_set_log_stderr(0);
    for (const Row& row : kTable) {
        tEIT_DVB_HbbTVDescriptor e = event_of(row.name, row.start);
        EventView view(e);
        EXPECT_EQ(comparison_holds(view, comparison(row.field, row.compare, row.value, row.number)),
                  row.holds)
            << "field " << row.field << " comparison " << row.compare << " value " << row.value
            << " event " << row.name << "@" << row.start;
    }
}

TEST(EpgQuery, TitleTestsNeedAName) {
    hbb_sim_set_log_stderr(0);
    tEIT_DVB_HbbTVDescriptor e = event_of(nullptr, 0);
    EventView view(e);
    EXPECT_FALSE(comparison_holds(view, comparison(eTitle, eDontContainString, "news")));
    EXPECT_FALSE(comparison_holds(view, comparison(eTitle, eNotEqual, "news")));
    // A comparison the browser never filled holds for nothing.
    Comparison unset;
    EXPECT_FALSE(comparison_holds(view, unset));
}

TEST(EpgQuery, ContainsIgnoresAsciiCaseOnly) {
    EXPECT_TRUE(contains_ignore_case("abcABC", "cab"));
    EXPECT_TRUE(contains_ignore_case("aaab", "aab"));  // restart after a partial match
    EXPECT_FALSE(contains_ignore_case("ab", "abc"));
    EXPECT_FALSE(contains_ignore_case(nullptr, "a"));
    EXPECT_FALSE(contains_ignore_case("a", nullptr));
    EXPECT_FALSE(contains_ignore_case("\xc3\x84rger", "\xc3\xa4rger"));  // Ä vs ä: not ASCII
    const std::string long_text(1024, 'x');
    EXPECT_TRUE(contains_ignore_case((long_text + "END").c_str(), "end"));
    EXPECT_FALSE(contains_ignore_case(long_text.c_str(), (long_text + "x").c_str()));
}

TEST(EpgQuery, ProgrammeIdIsLowerHexWithoutPadding) {
    tEIT_DVB_HbbTVDescriptor e = event_of("x", 0);
    e.eitOnid = 0;
    e.eitTsid = 0x10;
    e.eitSid = 0xffff;
    e.eitEventID = -1;
    char id[kProgrammeIdSize];
    format_programme_id(e, id);
    EXPECT_STREQ(id, "dvb://0.10.ffff;ffffffff");
}

Query two_groups() {
    // (title contains "news" AND start > 100) OR (title == "Film")
    Query q;
    q.subgroups_number = 2;
    Subgroup a;
    a.comparisons.push_back(comparison(eTitle, eContainString, "news"));
    a.comparisons.push_back(comparison(eStartTime, eGreater, "100", 100));
    Subgroup b;
    b.comparisons.push_back(comparison(eTitle, eEqual, "Film"));
    q.groups.emplace_back(std::move(a));
    q.groups.emplace_back(std::move(b));
    return q;
}

TEST(EpgQuery, OrOfAnd) {
    const Query q = two_groups();
    EXPECT_TRUE(query_matches(q, event_of("News", 101)));
    EXPECT_FALSE(query_matches(q, event_of("News", 100)));  // first group: one AND fails
    EXPECT_TRUE(query_matches(q, event_of("Film", 0)));     // first fails, second holds
    EXPECT_FALSE(query_matches(q, event_of("Films", 500)));

    // A copy is deep: it still works once the original is gone.
    Query copy;
    {
        Query original = two_groups();
        copy = original.copy();
    }
    EXPECT_TRUE(query_matches(copy, event_of("Film", 0)));

    // An empty subgroup holds; an undimensioned one never does.
    Query empty;
    empty.subgroups_number = 2;
    empty.groups.resize(2);
    EXPECT_FALSE(query_matches(empty, event_of("x", 0)));
    empty.groups[1] = Subgroup{};
    EXPECT_TRUE(query_matches(empty, event_of("x", 0)));
}

TEST(EpgQuery, OnAirOrLater) {
    EXPECT_TRUE(on_air_or_later(1000, event_of("x", 900, 200)));   // on air at 1000
    EXPECT_FALSE(on_air_or_later(1000, event_of("x", 800, 200)));  // ended at 1000
    EXPECT_TRUE(on_air_or_later(1000, event_of("x", 1000, 0)));    // starts at 1000
    EXPECT_TRUE(on_air_or_later(1000, event_of("x", 5000, 10)));   // later
    // No overflow at the end of the int range.
    EXPECT_TRUE(on_air_or_later(2147483600, event_of("x", 2147483000, 2000)));
}

// ---- result store -------------------------------------------------------------

sSearchTaskResultsData result_named(const char* name) {
    sSearchTaskResultsData r{};
    r.programme.name = strdup(name);
    r.programme.programmeID = strdup("dvb://1.1.1;1");
    r.programme.channelID = strdup("0");
    r.eitShortEventDesc.eitEventSegmentNum = 1;
    r.eitShortEventDesc.eitEventSegments = static_cast<char**>(calloc(1, sizeof(char*)));
    r.eitShortEventDesc.eitEventSegments[0] = strdup("short");
    return r;
}

class EpgResultStore : public ::testing::Test {
protected:
    void SetUp() override {
        hbb_sim_set_log_stderr(0);
        result_pool().reset();
    }
};

TEST_F(EpgResultStore, GrowsByChunksAndReturnsThem) {
    ResultStore a;
    ResultStore b;
    for (int i = 0; i < 30; ++i) {
        sSearchTaskResultsData r = result_named("a");
        ASSERT_EQ(a.add(r), ResultStore::Added::Stored);
        EXPECT_EQ(r.programme.name, nullptr);  // taken over
        EXPECT_EQ(a.chunks(), i < 20 ? 1 : 2) << "after result " << i + 1;
    }
    for (int i = 0; i < 10; ++i) {
        sSearchTaskResultsData r = result_named("b");
        ASSERT_EQ(b.add(r), ResultStore::Added::Stored);
    }
    EXPECT_EQ(result_pool().acquired(), 3);
    EXPECT_EQ(a.release(0), 2);
    EXPECT_EQ(result_pool().acquired(), 1);
    EXPECT_EQ(a.size(), 0);
    // An empty store gives back nothing.
    EXPECT_EQ(a.release(0), 0);
    EXPECT_EQ(result_pool().acquired(), 1);
    ASSERT_NE(b.at(9), nullptr);
    EXPECT_STREQ(b.at(9)->programme.name, "b");
    EXPECT_EQ(b.at(10), nullptr);
    EXPECT_EQ(b.at(-1), nullptr);
}

TEST_F(EpgResultStore, PoolCapsAllStoresAtTwoThousandResults) {
    ResultStore a;
    ResultStore b;
    for (int i = 0; i < 1990; ++i) {
        sSearchTaskResultsData r = result_named("a");
        ASSERT_EQ(a.add(r), ResultStore::Added::Stored) << "result " << i + 1;
    }
    EXPECT_EQ(result_pool().acquired(), ResultPool::kChunkCount);
    // The pool is used up: another store cannot start...
    sSearchTaskResultsData refused = result_named("b");
    EXPECT_EQ(b.add(refused), ResultStore::Added::NoChunk);
    EXPECT_STREQ(refused.programme.name, "b");  // still the caller's
    // ...while the room left in a's last chunk needs no pool.
    for (int i = 1990; i < 2000; ++i) {
        sSearchTaskResultsData r = result_named("a");
        ASSERT_EQ(a.add(r), ResultStore::Added::Stored) << "result " << i + 1;
    }
    EXPECT_EQ(a.add(refused), ResultStore::Added::NoChunk);  // the 2001st
    release_result(refused);
    EXPECT_EQ(a.release(0), ResultPool::kChunkCount);
    EXPECT_EQ(result_pool().acquired(), 0);
    sSearchTaskResultsData late = result_named("b");
    EXPECT_EQ(b.add(late), ResultStore::Added::Stored);
}

TEST_F(EpgResultStore, PoolRefusesToGoNegative) {
    ResultPool pool;
    ASSERT_TRUE(pool.acquire());
    ASSERT_TRUE(pool.acquire());
    ASSERT_TRUE(pool.acquire());
    EXPECT_FALSE(pool.release(5));
    EXPECT_EQ(pool.acquired(), 3);
    EXPECT_FALSE(pool.release(-1));
    EXPECT_TRUE(pool.release(3));
    EXPECT_EQ(pool.acquired(), 0);
}

TEST_F(EpgResultStore, DescriptorWithoutSegmentsIsLeftAlone) {
    char* marker = reinterpret_cast<char*>(0x1);
    char** array = &marker;
    tEIT_DVB_EventDescriptor d{0, array};
    release_event_descriptor(&d);
    EXPECT_EQ(d.eitEventSegments, array);
    release_event_descriptor(nullptr);
}

}  // namespace
}  // namespace appmgr::epg
