// The carousel service against loader answers a real middleware might give:
// malformed lists, impossible lengths, errors. The loader calls below replace
// the simulator's for this executable; mounting still goes to the simulator.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "hbb_sim.h"
#include "dsmcc/dsmcc.h"
#include "test_support.h"

using namespace appmgr::test;

namespace {

struct Answer {
    DSMCC_LoaderResult result = DSMCC_LOADER_OK;
    std::string bytes;
    bool null_buffer = false;
    unsigned int claimed_length = 0;  // 0: the length of bytes
};
Answer g_answer;
int g_calls = 0;
int g_released = 0;

DSMCC_LoaderResult hand_out(char** out, unsigned int* length) {
    ++g_calls;
    if (g_answer.result != DSMCC_LOADER_OK) return g_answer.result;
    char* buffer = nullptr;
    if (!g_answer.null_buffer) {
        buffer = static_cast<char*>(std::malloc(g_answer.bytes.size() + 1));
        std::memcpy(buffer, g_answer.bytes.data(), g_answer.bytes.size());
    }
    *out = buffer;
    *length = g_answer.claimed_length ? g_answer.claimed_length
                                      : static_cast<unsigned int>(g_answer.bytes.size());
    return DSMCC_LOADER_OK;
}

}  // namespace

extern "C" {

DSMCC_LoaderResult DSMCC_LoaderGetFile(const char*, unsigned char** data, unsigned int* length) {
    char* out = nullptr;
    DSMCC_LoaderResult r = hand_out(&out, length);
    if (r == DSMCC_LOADER_OK) *data = reinterpret_cast<unsigned char*>(out);
    return r;
}
DSMCC_LoaderResult DSMCC_LoaderGetDirectory(const char*, char** records, unsigned int* length) {
    return hand_out(records, length);
}
DSMCC_LoaderResult DSMCC_LoaderGetStreamEventList(const char*, char** names,
                                                  unsigned int* length) {
    return hand_out(names, length);
}
void DSMCC_LoaderRelease(void* buffer) {
    if (buffer) ++g_released;
    std::free(buffer);
}

}  // extern "C"

namespace {

class LoaderAnswersTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        g_answer = Answer{};
        g_calls = 0;
        g_released = 0;
        ASSERT_EQ(hbb_sim_set_carousel(0x65, dir_.path().c_str()), 0);
    }
    static std::string payload(HbbFileSystemEntryDescriptor* d) {
        if (d == nullptr) return "<null>";
        std::string bytes(d->entryPayload ? d->entryPayload : "",
                          static_cast<std::size_t>(d->entryPayloadLen));
        hbbReleaseDsmccEntryDescriptor(d);
        return bytes;
    }
    static constexpr const char* kUrl = "dvb://1.2.3.65/x";
};

TEST_F(LoaderAnswersTest, UnusableListEntriesAreSkipped) {
    g_answer.bytes = std::string("0good\0", 6) + std::string("9badkind\0", 9) +
                     std::string("1\0", 2) + std::string("0a\nb\0", 5) + std::string("0..\0", 4) +
                     std::string("1.\0", 3) + std::string("0a/b\0", 5) + std::string("2ev\0", 4) +
                     "0unterminated";
    EXPECT_EQ(payload(hbbGetDsmccDirContent(kUrl)), "0 good\n2 ev\n");

    // Names with control characters or the list separator "," are left out.
    g_answer.bytes = std::string("a\0\0b c\0x\ny\0z\x7f\0p,q\0d\0", 20) + "tail";
    EXPECT_EQ(payload(hbbGetDsmccStreamEventList(kUrl)), "a,b c,d");
    EXPECT_EQ(g_released, 2);
}

TEST_F(LoaderAnswersTest, EmptyListsAreEmptyPayloads) {
    g_answer.bytes.clear();
    g_answer.null_buffer = true;
    HbbFileSystemEntryDescriptor* d = hbbGetDsmccDirContent(kUrl);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->entryType, eHBBTV_FS_ENTRY_DIR_TYPE);
    EXPECT_EQ(d->entryPayloadLen, 0);
    hbbReleaseDsmccEntryDescriptor(d);
    EXPECT_EQ(payload(hbbGetDsmccFileContent(kUrl)), "");
}

TEST_F(LoaderAnswersTest, ImpossibleLengthsAreRefused) {
    // A length far beyond the buffer must never be read.
    g_answer.bytes = "abc";
    g_answer.claimed_length = 0xFFFFFFF0u;
    EXPECT_EQ(hbbGetDsmccFileContent(kUrl), nullptr);
    EXPECT_EQ(hbbGetDsmccDirContent(kUrl), nullptr);
    EXPECT_EQ(hbbGetDsmccStreamEventList(kUrl), nullptr);
    EXPECT_EQ(g_released, 3);
    // Bytes claimed without a buffer.
    g_answer = Answer{};
    g_answer.null_buffer = true;
    g_answer.claimed_length = 5;
    EXPECT_EQ(hbbGetDsmccFileContent(kUrl), nullptr);
    EXPECT_EQ(hbbGetDsmccDirContent(kUrl), nullptr);
}

TEST_F(LoaderAnswersTest, ErrorsRetriedOnlyOnAnEarlierMount) {
    g_answer.result = DSMCC_LOADER_ERROR;
    // Freshly mounted for this request: the error is final.
    EXPECT_EQ(hbbGetDsmccFileContent(kUrl), nullptr);
    EXPECT_EQ(g_calls, 1);
    // The failed carousel is forgotten, so the next request mounts afresh.
    g_answer.result = DSMCC_LOADER_OK;
    g_answer.bytes = "ok";
    EXPECT_EQ(payload(hbbGetDsmccFileContent(kUrl)), "ok");
    EXPECT_EQ(hbb_sim_call_count("QUMA_MountCarouselObject"), 2);
    // Mounted by an earlier request: one fresh mount and one retry.
    g_calls = 0;
    g_answer.result = DSMCC_LOADER_ERROR;
    EXPECT_EQ(hbbGetDsmccFileContent(kUrl), nullptr);
    EXPECT_EQ(g_calls, 2);
    EXPECT_EQ(hbb_sim_call_count("QUMA_MountCarouselObject"), 3);
    // Not found is an answer, never retried.
    g_calls = 0;
    g_answer.result = DSMCC_LOADER_NOT_FOUND;
    EXPECT_EQ(hbbGetDsmccFileContent(kUrl), nullptr);
    EXPECT_EQ(g_calls, 1);
}

}  // namespace
