// INI reader: dictionary growth and updates, the loader's line rules and
// failure cases, typed getters and the INI dump round trip.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ini_dict.h"
#include "parse_ini.h"

namespace {

// Writes text (which may hold NUL bytes) to a fresh temp file, removed on scope exit.
struct TempIni {
    std::string path;
    explicit TempIni(const std::string& text) {
        char name[] = "/tmp/test_ini_XXXXXX";
        int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        path = name;
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    }
    ~TempIni() { unlink(path.c_str()); }
};

ini_dict* load(const std::string& text) { return parse_ini_load(TempIni(text).path.c_str()); }

std::string get(const ini_dict* d, const char* key) {
    const char* v = parse_ini_getstring(d, key, "<absent>");
    return v != nullptr ? v : "<null>";
}

}  // namespace

TEST(IniDict, GrowsFrom128To256AndKeepsEveryEntry) {
    ini_dict* d = ini_dict_new(10);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(d->size, 128);
    for (int i = 0; i < 129; ++i) {
        const std::string k = "key" + std::to_string(i);
        ASSERT_EQ(ini_dict_set(d, k.c_str(), ("v" + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(d->size, i < 128 ? 128 : 256) << i;
    }
    EXPECT_EQ(d->n, 129);
    for (int i = 0; i < 129; ++i) {
        const std::string k = "key" + std::to_string(i);
        EXPECT_STREQ(ini_dict_get(d, k.c_str(), nullptr), ("v" + std::to_string(i)).c_str());
    }
    ini_dict_del(d);
    ini_dict_del(nullptr);
}

TEST(IniDict, SetGetUnsetAndNullValues) {
    ini_dict* d = ini_dict_new(0);
    EXPECT_EQ(ini_dict_set(nullptr, "k", "v"), -1);
    EXPECT_EQ(ini_dict_set(d, nullptr, "v"), -1);
    ASSERT_EQ(ini_dict_set(d, "k", "one"), 0);
    ASSERT_EQ(ini_dict_set(d, "k", "two"), 0);  // overwrite, not a second entry
    EXPECT_EQ(d->n, 1);
    EXPECT_STREQ(ini_dict_get(d, "k", "def"), "two");
    ASSERT_EQ(ini_dict_set(d, "k", nullptr), 0);
    EXPECT_EQ(ini_dict_get(d, "k", "def"), nullptr);  // present with a null value
    EXPECT_STREQ(ini_dict_get(d, "K", "def"), "def");  // case-sensitive at this level
    ini_dict_set(d, "other", "x");
    ini_dict_unset(d, "k");
    ini_dict_unset(d, "missing");
    EXPECT_EQ(d->n, 1);
    EXPECT_STREQ(ini_dict_get(d, "k", "def"), "def");
    ASSERT_EQ(ini_dict_set(d, "k", "back"), 0);  // the freed slot is reused
    EXPECT_EQ(d->key[0] != nullptr && std::string(d->key[0]) == "k", true);
    EXPECT_STREQ(ini_dict_get(d, "other", nullptr), "x");
    ini_dict_del(d);
}

TEST(IniDict, HashMatchesPublishedOneAtATimeValues) {
    EXPECT_EQ(ini_dict_hash("a"), 0xca2e9442u);
    EXPECT_EQ(ini_dict_hash("The quick brown fox jumps over the lazy dog"), 0x519e91f5u);
    EXPECT_EQ(ini_dict_hash(""), 0u);
}

TEST(IniDict, HelpersAreBoundedAndNullSafe) {
    EXPECT_EQ(xstrdup(nullptr), nullptr);
    EXPECT_EQ(strlwc(nullptr), nullptr);
    EXPECT_STREQ(strlwc("MiXeD\xC3\x89"), "mixed\xC3\x89");  // high bytes left alone
    EXPECT_STREQ(strstrip(" \t a b \r\n"), "a b");
    const std::string longtext(3000, 'X');
    EXPECT_EQ(std::string(strlwc(longtext.c_str())), std::string(1024, 'x'));
    EXPECT_EQ(strlen(strstrip(longtext.c_str())), 1024u);
    auto* block = static_cast<unsigned char*>(malloc(4));
    memcpy(block, "\1\2\3\4", 4);
    block = static_cast<unsigned char*>(mem_double(block, 4));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(memcmp(block, "\1\2\3\4\0\0\0\0", 8), 0);
    free(block);
}

TEST(IniLoad, SectionsKeysQuotesCommentsAndContinuations) {
    ini_dict* d = load(
        "top = before any section\n"
        "# a comment; with = inside\n"
        "\n"
        "[Main Section]\r\n"
        "  Name = Value With Case  \r\n"
        "dq = \"a; b\"\n"
        "sq = 'c # d'\n"
        "plain = a; b\n"
        "hash = x # trailing\n"
        "empty =\n"
        "quoted_empty = \"\"\n"
        "only_comment = ;\n"
        "url = http://h/p?a=b\n"
        "[Other]\n"
        "multi = one \\\n"
        "  two\\\n"
        "three\n"
        "last = tail\\");  // continuation on the last line, no final newline
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(get(d, ":top"), "before any section");
    EXPECT_EQ(get(d, "main section"), "<null>");
    EXPECT_EQ(get(d, "MAIN SECTION:NAME"), "Value With Case");
    EXPECT_EQ(get(d, "main section:dq"), "a; b");
    EXPECT_EQ(get(d, "main section:sq"), "c # d");
    EXPECT_EQ(get(d, "main section:plain"), "a");
    EXPECT_EQ(get(d, "main section:hash"), "x");
    EXPECT_EQ(get(d, "main section:empty"), "");
    EXPECT_EQ(get(d, "main section:quoted_empty"), "");
    EXPECT_EQ(get(d, "main section:only_comment"), "");
    EXPECT_EQ(get(d, "main section:url"), "http://h/p?a=b");
    EXPECT_EQ(get(d, "other:multi"), "one   twothree");
    EXPECT_EQ(get(d, "other:last"), "tail");
    EXPECT_EQ(d->n, 14);
    parse_ini_freedict(d);
}

TEST(IniLoad, RejectsMalformedAndOversizedInput) {
    EXPECT_EQ(parse_ini_load("/nonexistent/dir/x.ini"), nullptr);
    EXPECT_EQ(parse_ini_load(nullptr), nullptr);
    EXPECT_EQ(load("[s]\na = 1\n; comment text\n"), nullptr);  // ';' does not start a comment
    EXPECT_EQ(load("[s]\nno equals sign\n"), nullptr);
    EXPECT_EQ(load("k = " + std::string(1100, 'v') + "\n"), nullptr);
    EXPECT_EQ(load("k = " + std::string(1100, 'v')), nullptr);  // no final newline
    std::string cont;  // short lines whose continuation overflows the buffer
    for (int i = 0; i < 30; ++i) cont += std::string(50, 'c') + "\\\n";
    EXPECT_EQ(load("k = " + cont + "end\n"), nullptr);
    EXPECT_EQ(load(std::string("k = a\0b\n", 8)), nullptr);
    // A line of exactly 1024 characters still fits.
    ini_dict* d = load("k = " + std::string(1020, 'v') + "\n");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(get(d, ":k").size(), 1020u);
    parse_ini_freedict(d);
    // Binary bytes are just text: no crash, value kept as written.
    d = load("[b]\nk = \xff\xfe\x80\x01\n");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(get(d, "b:k"), "\xff\xfe\x80\x01");
    parse_ini_freedict(d);
}

TEST(IniLine, ClassifiesSingleLines) {
    char sec[PARSE_INI_LINE_MAX + 1], key[PARSE_INI_LINE_MAX + 1], val[PARSE_INI_LINE_MAX + 1];
    EXPECT_EQ(parse_ini_line("   \t", sec, key, val), LINE_EMPTY);
    EXPECT_EQ(parse_ini_line("# x", sec, key, val), LINE_COMMENT);
    EXPECT_EQ(parse_ini_line(" [ A b ] ", sec, key, val), LINE_SECTION);
    EXPECT_STREQ(sec, "a b");
    EXPECT_EQ(parse_ini_line("[open", sec, key, val), LINE_ERROR);
    EXPECT_EQ(parse_ini_line("=v", sec, key, val), LINE_ERROR);
    EXPECT_EQ(parse_ini_line("Key = ''", sec, key, val), LINE_VALUE);
    EXPECT_STREQ(key, "key");
    EXPECT_STREQ(val, "");
    const std::string huge = "k = " + std::string(5000, 'z');  // cut, never overflows
    EXPECT_EQ(parse_ini_line(huge.c_str(), sec, key, val), LINE_VALUE);
    EXPECT_EQ(strlen(val), 1020u);
}

TEST(IniGetters, TypedValuesSectionsAndEntries) {
    ini_dict* d = load(
        "[Num]\nhex = 0x1F\noct = 017\nneg = -5\nbig = 99999999999\nf = 2.5e1\ntext = abc\n"
        "[Bool]\ny = yes\nt = True\none = 1\nn = No\nf = false\nz = 0\nq = maybe\n");
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(parse_ini_getint(d, "num:hex", -1), 31);
    EXPECT_EQ(parse_ini_getint(d, "NUM:OCT", -1), 15);
    EXPECT_EQ(parse_ini_getint(d, "num:neg", -1), -5);
    EXPECT_EQ(parse_ini_getint(d, "num:big", -1), INT_MAX);
    EXPECT_EQ(parse_ini_getint(d, "num:missing", -7), -7);
    EXPECT_DOUBLE_EQ(parse_ini_getdouble(d, "num:f", -1.0), 25.0);
    EXPECT_DOUBLE_EQ(parse_ini_getdouble(d, "num:missing", -1.5), -1.5);
    for (const char* k : {"bool:y", "bool:t", "bool:one"}) EXPECT_EQ(parse_ini_getboolean(d, k, 7), 1) << k;
    for (const char* k : {"bool:n", "bool:f", "bool:z"}) EXPECT_EQ(parse_ini_getboolean(d, k, 7), 0) << k;
    EXPECT_EQ(parse_ini_getboolean(d, "bool:q", 7), 7);
    EXPECT_EQ(parse_ini_getboolean(d, "bool:none", 7), 7);
    EXPECT_EQ(parse_ini_getnsec(d), 2);
    EXPECT_STREQ(parse_ini_getsecname(d, 0), "num");
    EXPECT_STREQ(parse_ini_getsecname(d, 1), "bool");
    EXPECT_EQ(parse_ini_getsecname(d, 2), nullptr);
    EXPECT_EQ(parse_ini_getnsec(nullptr), -1);
    EXPECT_EQ(parse_ini_find_entry(d, "Num"), 1);  // a section: present, null value
    EXPECT_EQ(parse_ini_set(d, "NUM:New", "v"), 0);
    EXPECT_EQ(get(d, "num:new"), "v");
    parse_ini_unset(d, "Num:NEW");
    EXPECT_EQ(parse_ini_find_entry(d, "num:new"), 0);
    parse_ini_freedict(d);
}

TEST(IniDump, DumpIniReloadsToTheSameEntries) {
    ini_dict* d = load("g = global\n[A]\nx = 1\nq = \"v; # w\"\nsp = ' padded '\n[B]\ne =\n");
    ASSERT_NE(d, nullptr);
    parse_ini_set(d, "b:dq", "say \"hi\"; bye");
    parse_ini_set(d, "b:bs", "ends\\");
    parse_ini_set(d, "b:ap", "it's; here");
    TempIni out("");
    FILE* f = fopen(out.path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    parse_ini_dump_ini(d, f);
    fclose(f);
    ini_dict* back = parse_ini_load(out.path.c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->n, d->n);
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] == nullptr) continue;
        const char* v = ini_dict_get(back, d->key[i], "<absent>");
        if (d->val[i] == nullptr)
            EXPECT_EQ(v, nullptr) << d->key[i];
        else
            EXPECT_STREQ(v, d->val[i]) << d->key[i];
    }
    parse_ini_freedict(back);
    parse_ini_freedict(d);
}
