// The object carousel of one PID: the test suite's captured carousel, and
// built carousels that change version, arrive out of order, never finish or
// carry broken modules.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dsmcc_builder.h"
#include "ts_capture.h"
#include "ts_decode.h"

using namespace appmgr::test;
using namespace ts::dsmcc;
using ts::Skipped;
namespace b = appmgr::test::build;

namespace {

std::string as_text(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

const CarouselEntry* find(const CarouselTree& tree, const std::string& path) {
    for (const CarouselEntry& e : tree.entries)
        if (e.path == path) return &e;
    return nullptr;
}

std::vector<std::string> paths(const CarouselTree& tree) {
    std::vector<std::string> out;
    for (const CarouselEntry& e : tree.entries) out.push_back(std::string(kind_name(e.kind)) + " " + e.path);
    return out;
}

TEST(CapturedCarousel, TheTestSuitesStreamEventPage) {
    TsLogLines log;
    ObjectCarousel carousel(0x138E);
    std::vector<ModuleChange> changes;
    for (const PidSection& s :
         read_ts_sections(stream_event_data("mitxp-hbbtv-testsuite/imuxcfg_tsfiles_sevent.m2ts"), {0x138E})) {
        auto more = carousel.feed(s.bytes.data(), s.bytes.size());
        changes.insert(changes.end(), more.begin(), more.end());
    }
    // One module, assembled once: the repetitions of the cycle change nothing.
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].module_id, 1);
    EXPECT_EQ(changes[0].version, 1);
    EXPECT_FALSE(changes[0].replaced);
    EXPECT_TRUE(changes[0].directories);
    const CarouselCounts counts = carousel.counts();
    EXPECT_EQ(counts.sections, 170u);
    EXPECT_EQ(counts.modules_complete, 1u);
    EXPECT_EQ(counts.skipped, 0u);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(carousel.incomplete_modules().empty());

    const CarouselTree tree = carousel.tree();
    ASSERT_TRUE(tree.has_gateway);
    EXPECT_EQ(tree.carousel_id, 0xCu);
    EXPECT_EQ(tree.association_tag, 0x17);  // the suite's dsmccctag
    EXPECT_TRUE(tree.missing.empty());
    EXPECT_TRUE(tree.skipped.empty());
    EXPECT_EQ(paths(tree), (std::vector<std::string>{"dir ", "file base.css", "file base.js", "file index.html",
                                                     "file logo.png", "streamevent sevent"}));
    // The suite's own copy of the logo, byte for byte.
    EXPECT_EQ(find(tree, "logo.png")->object->content,
              read_bytes(stream_event_data("mitxp-hbbtv-testsuite/logo.png")));
    const std::string page = as_text(find(tree, "index.html")->object->content);
    EXPECT_EQ(page.size(), 3039u);
    EXPECT_NE(page.find("videlem.addStreamEventListener('sevent', 'testevent'"), std::string::npos);
    EXPECT_EQ(page.substr(page.size() - 9), "\r\n</html>");
    // The stream-event object names the events of the suite's description
    // (testevent = 1, badid = 2) on component tag 19.
    const BiopObject& sevent = *find(tree, "sevent")->object;
    EXPECT_EQ(sevent.event_names, (std::vector<std::string>{"badid", "testevent"}));
    EXPECT_EQ(sevent.event_ids, (std::vector<std::uint16_t>{2, 1}));
    ASSERT_EQ(sevent.taps.size(), 1u);
    EXPECT_EQ(sevent.taps[0].use, kTapStreamEvent);
    EXPECT_EQ(sevent.taps[0].association_tag, 19);
}

// No path in a tree can leave the carousel's directory.
bool safe_path(const std::string& path) {
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = path.find('/', start);
        const std::string name = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (name.empty() || name == "." || name == ".." || name.find('\\') != std::string::npos) return false;
        for (unsigned char c : name)
            if (c < 0x20) return false;
        if (slash == std::string::npos) return true;
        start = slash + 1;
    }
}

// The captured carousel's sections cut short and with bytes changed (the
// CRC made right again, as a broken multiplexer would send them), and its
// module's bytes changed after inflation: whatever comes out is bounded and
// every path stays inside the carousel. The sanitizer builds run it too.
TEST(CapturedCarousel, CutAndChangedSectionsAndModules) {
    TsLogLines quiet;
    std::vector<Bytes> distinct;
    for (const PidSection& s :
         read_ts_sections(stream_event_data("mitxp-hbbtv-testsuite/imuxcfg_tsfiles_sevent.m2ts"), {0x138E}))
        if (std::find(distinct.begin(), distinct.end(), s.bytes) == distinct.end()) distinct.push_back(s.bytes);
    ASSERT_EQ(distinct.size(), 4u);  // DSI, DII and two blocks

    std::size_t trees = 0;
    auto play = [&](std::size_t replaced, const Bytes& section) {
        ObjectCarousel carousel(0x138E);
        for (std::size_t i = 0; i < distinct.size(); ++i) {
            const Bytes& s = i == replaced ? section : distinct[i];
            carousel.feed(s.data(), s.size());
        }
        const CarouselTree tree = carousel.tree();
        trees += tree.has_gateway;
        for (const CarouselEntry& e : tree.entries) {
            EXPECT_TRUE(e.path.empty() || safe_path(e.path)) << e.path;
            EXPECT_LE(e.object->content.size(), 10230u);
        }
    };
    for (std::size_t k = 0; k < distinct.size(); ++k) {
        const Bytes& original = distinct[k];
        for (std::size_t cut = 0; cut < original.size(); cut += cut < 64 ? 1 : 61)
            play(k, Bytes(original.begin(), original.begin() + static_cast<long>(cut)));
        for (std::size_t at = 0; at + 4 < original.size(); at += at < 160 ? 1 : 37)
            for (std::uint8_t value : {std::uint8_t(original[at] ^ 0xFF), std::uint8_t(0x00)}) {
                Bytes changed = original;
                changed[at] = value;
                b::set_crc(changed);
                play(k, changed);
            }
    }
    EXPECT_GT(trees, 0u);

    // The inflated module with each byte changed, straight into BIOP.
    const auto dii = decode_dii(distinct[1].data(), distinct[1].size());
    ASSERT_TRUE(dii.ok);
    Bytes packed;
    for (std::size_t k = 2; k < 4; ++k) {
        auto ddb = decode_ddb(distinct[k].data(), distinct[k].size());
        ASSERT_TRUE(ddb.ok);
        if (ddb.value.block_number == 0) packed.insert(packed.begin(), ddb.value.data.begin(), ddb.value.data.end());
        else packed.insert(packed.end(), ddb.value.data.begin(), ddb.value.data.end());
    }
    auto inflated = inflate_module(packed.data(), packed.size(), dii.value.modules[0].original_size);
    ASSERT_TRUE(inflated.ok);
    const Bytes& module = inflated.value;
    std::size_t objects = 0;
    for (std::size_t at = 0; at < module.size(); at += at < 1200 ? 1 : 13) {
        Bytes changed = module;
        changed[at] ^= 0xFF;
        const auto decoded = decode_biop_module(changed.data(), changed.size());
        objects += decoded.value.size();
        for (const BiopObject& o : decoded.value) {
            EXPECT_LE(o.content.size(), module.size());
            EXPECT_EQ(o.event_ids.size(), o.event_names.size());
        }
    }
    EXPECT_GT(objects, 0u);
}

// A built carousel: the gateway and a directory in module 1, files and a
// stream-event object in module 2.
class BuiltCarousel : public ::testing::Test {
protected:
    static constexpr std::uint32_t kDownload = 7;
    static constexpr std::uint16_t kBlock = 64;

    static b::Ref ref(const std::string& kind, std::uint16_t module, std::uint8_t key) {
        return b::Ref{kind, kDownload, module, {key}};
    }
    static Bytes directory_module(const std::string& extra_name = "") {
        std::vector<b::Bind> top = {{"index.html", ref("fil", 2, 1)},
                                    {"sub", ref("dir", 1, 2)},
                                    {"events", ref("ste", 2, 2)}};
        if (!extra_name.empty()) top.push_back({extra_name, ref("fil", 3, 1)});
        Bytes m = b::directory("srg", {1}, top);
        const Bytes sub = b::directory("dir", {2}, {{"page.html", ref("fil", 2, 3)}});
        m.insert(m.end(), sub.begin(), sub.end());
        return m;
    }
    static Bytes file_module(const std::string& index) {
        Bytes m = b::file({1}, b::text(index));
        const Bytes events = b::stream_event({2}, {"go", "stop"}, {5, 6}, 0x13);
        const Bytes page = b::file({3}, b::text(std::string(150, 'p')));
        m.insert(m.end(), events.begin(), events.end());
        m.insert(m.end(), page.begin(), page.end());
        return m;
    }

    std::vector<ModuleChange> feed(const Bytes& section) {
        return carousel_.feed(section.data(), section.size());
    }
    std::vector<ModuleChange> feed(const std::vector<Bytes>& sections) {
        std::vector<ModuleChange> all;
        for (const Bytes& s : sections) {
            auto more = feed(s);
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }
    int logged(const std::string& part) const { return log_.count(part); }

    TsLogLines log_;
    ObjectCarousel carousel_{0x100};
};

TEST_F(BuiltCarousel, ModulesInAnyOrderThenANewVersion) {
    const Bytes dirs = directory_module();
    const Bytes files = file_module("v0");
    feed(b::dsi(ref("srg", 1, 1)));
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(files.size()), 0}}));
    auto file_blocks = b::ddbs(kDownload, 2, 0, kBlock, files);
    ASSERT_GE(file_blocks.size(), 3u);
    std::reverse(file_blocks.begin(), file_blocks.end());
    auto changes = feed(file_blocks);
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_FALSE(changes[0].directories);
    EXPECT_FALSE(carousel_.tree().has_gateway);
    EXPECT_EQ(carousel_.tree().missing, (std::vector<std::string>{"service gateway (module 1)"}));

    changes = feed(b::ddbs(kDownload, 1, 0, kBlock, dirs));
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_TRUE(changes[0].directories);
    CarouselTree tree = carousel_.tree();
    ASSERT_TRUE(tree.has_gateway);
    EXPECT_EQ(tree.association_tag, 0x17);
    EXPECT_EQ(paths(tree), (std::vector<std::string>{"dir ", "file index.html", "dir sub", "file sub/page.html",
                                                     "streamevent events"}));
    EXPECT_EQ(as_text(find(tree, "index.html")->object->content), "v0");
    EXPECT_EQ(find(tree, "sub/page.html")->object->content.size(), 150u);
    EXPECT_EQ(find(tree, "events")->object->event_ids, (std::vector<std::uint16_t>{5, 6}));
    // The cycle repeats: nothing changes.
    EXPECT_TRUE(feed(b::ddbs(kDownload, 2, 0, kBlock, files)).empty());

    // Module 2 moves to version 1; the old files stay until it is whole.
    const Bytes files1 = file_module("version one");
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(files1.size()), 1}}));
    auto blocks1 = b::ddbs(kDownload, 2, 1, kBlock, files1);
    EXPECT_TRUE(feed(std::vector<Bytes>(blocks1.begin(), blocks1.end() - 1)).empty());
    EXPECT_EQ(as_text(find(carousel_.tree(), "index.html")->object->content), "v0");
    changes = feed(blocks1.back());
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0].module_id, 2);
    EXPECT_EQ(changes[0].version, 1);
    EXPECT_TRUE(changes[0].replaced);
    EXPECT_FALSE(changes[0].directories);
    tree = carousel_.tree();
    EXPECT_EQ(as_text(find(tree, "index.html")->object->content), "version one");
    EXPECT_EQ(find(tree, "index.html")->module_version, 1);
    EXPECT_EQ(carousel_.counts().modules_replaced, 1u);
    EXPECT_EQ(carousel_.counts().skipped, 0u);
}

TEST_F(BuiltCarousel, BlocksBeforeTheirDiiAreKept) {
    const Bytes dirs = directory_module();
    const Bytes files = file_module("early");
    feed(b::dsi(ref("srg", 1, 1)));
    EXPECT_TRUE(feed(b::ddbs(kDownload, 1, 0, kBlock, dirs)).empty());
    EXPECT_TRUE(feed(b::ddbs(kDownload, 2, 0, kBlock, files)).empty());
    auto changes = feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                                   {2, static_cast<std::uint32_t>(files.size()), 0}}));
    EXPECT_EQ(changes.size(), 2u);
    EXPECT_EQ(as_text(find(carousel_.tree(), "index.html")->object->content), "early");
}

// A DII that names a module that never comes: what is bound in it is
// missing, the module is reported incomplete, the rest is served.
TEST_F(BuiltCarousel, ModulesThatNeverArrive) {
    const Bytes dirs = directory_module("late.txt");
    const Bytes files = file_module("here");
    feed(b::dsi(ref("srg", 1, 1)));
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(files.size()), 0},
                                    {3, 1000, 4}}));
    feed(b::ddbs(kDownload, 1, 0, kBlock, dirs));
    auto blocks = b::ddbs(kDownload, 2, 0, kBlock, files);
    feed(std::vector<Bytes>(blocks.begin(), blocks.begin() + 1));
    CarouselTree tree = carousel_.tree();
    EXPECT_EQ(paths(tree), (std::vector<std::string>{"dir ", "dir sub"}));
    EXPECT_EQ(tree.missing, (std::vector<std::string>{"index.html (module 2)", "sub/page.html (module 2)",
                                                      "events (module 2)", "late.txt (module 3)"}));
    EXPECT_EQ(carousel_.incomplete_modules(),
              (std::vector<std::string>{"module 2 of download 0x7 version 0: 1 of " +
                                            std::to_string(blocks.size()) + " blocks",
                                        "module 3 of download 0x7 version 4: 0 of 16 blocks"}));
}

// Broken modules are skipped with one log line per cause and a count per
// occurrence; nothing of them is served.
TEST_F(BuiltCarousel, BrokenModulesAreSkippedAndCounted) {
    const Bytes dirs = directory_module();
    const Bytes plain = file_module("never");
    const Bytes packed = b::deflate(plain);
    Bytes garbage = plain;
    garbage.resize(200);
    feed(b::dsi(ref("srg", 1, 1)));
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0}}));
    feed(b::ddbs(kDownload, 1, 0, kBlock, dirs));

    // A block of the wrong length, sent twice: logged once, counted twice.
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0}, {2, 100, 0}}));
    const Bytes short_block = b::ddb(kDownload, 2, 0, 0, Bytes(10, 0));
    feed(short_block);
    feed(short_block);
    EXPECT_EQ(logged("module 2 of download 0x7: block 0 carries 10 bytes instead of 64"), 1);
    EXPECT_EQ(carousel_.counts().skipped, 2u);
    // A block number beyond the module.
    feed(b::ddb(kDownload, 2, 0, 5, Bytes(kBlock, 0)));
    EXPECT_EQ(logged("block 5 beyond the 2 blocks of 100 bytes"), 1);

    // A compressed module whose bytes do not inflate, then one that
    // inflates past its stated size.
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(garbage.size()), 1, true, 500}}));
    EXPECT_TRUE(feed(b::ddbs(kDownload, 2, 1, kBlock, garbage)).empty());
    EXPECT_EQ(logged("module 2 of download 0x7 version 1 skipped: inflate: not a valid zlib stream"), 1);
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(packed.size()), 2, true,
                                     static_cast<std::uint32_t>(plain.size() - 1)}}));
    EXPECT_TRUE(feed(b::ddbs(kDownload, 2, 2, kBlock, packed)).empty());
    EXPECT_EQ(logged("version 2 skipped: inflate: module inflates past its stated size"), 1);
    // The same announcement again does not retry the version.
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(packed.size()), 2, true,
                                     static_cast<std::uint32_t>(plain.size() - 1)}}));
    EXPECT_TRUE(feed(b::ddbs(kDownload, 2, 2, kBlock, packed)).empty());
    EXPECT_EQ(logged("inflates past"), 1);
    EXPECT_EQ(find(carousel_.tree(), "index.html"), nullptr);

    // A module whose last BIOP message runs past its end: the objects before
    // it are served.
    Bytes cut = plain;
    cut.resize(cut.size() - 20);
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(dirs.size()), 0},
                                    {2, static_cast<std::uint32_t>(cut.size()), 3}}));
    EXPECT_EQ(feed(b::ddbs(kDownload, 2, 3, kBlock, cut)).size(), 1u);
    EXPECT_EQ(logged("runs past the module; rest of the module skipped"), 1);
    CarouselTree tree = carousel_.tree();
    EXPECT_EQ(as_text(find(tree, "index.html")->object->content), "never");
    EXPECT_NE(find(tree, "events"), nullptr);
    EXPECT_EQ(tree.missing, (std::vector<std::string>{"sub/page.html (module 2)"}));
}

TEST_F(BuiltCarousel, NamesThatCannotBePathsRepeatsAndCyclesAreLeftOut) {
    Bytes gateway = b::directory("srg", {1}, {{"..", ref("fil", 1, 3)},
                                               {"a/b", ref("fil", 1, 3)},
                                               {"", ref("fil", 1, 3)},
                                               {"ok", ref("fil", 1, 3)},
                                               {"ok", ref("dir", 1, 2)},
                                               {"loop", ref("dir", 1, 2)}});
    const Bytes loop = b::directory("dir", {2}, {{"up", ref("srg", 1, 1)}, {"again", ref("dir", 1, 2)}});
    const Bytes file = b::file({3}, b::text("f"));
    gateway.insert(gateway.end(), loop.begin(), loop.end());
    gateway.insert(gateway.end(), file.begin(), file.end());
    feed(b::dsi(ref("srg", 1, 1)));
    feed(b::dii(kDownload, kBlock, {{1, static_cast<std::uint32_t>(gateway.size()), 0}}));
    feed(b::ddbs(kDownload, 1, 0, kBlock, gateway));
    const CarouselTree tree = carousel_.tree();
    EXPECT_EQ(paths(tree), (std::vector<std::string>{"dir ", "file ok", "dir loop"}));
    EXPECT_EQ(tree.skipped, (std::vector<std::string>{
                                "name \"..\" in \"\" is not usable as a path component",
                                "name \"a/b\" in \"\" is not usable as a path component",
                                "name \"\" in \"\" is not usable as a path component",
                                "\"ok\" bound twice; the first binding kept",
                                "\"loop/up\" names a directory already in the tree",
                                "\"loop/again\" names a directory already in the tree"}));
}

// Memory stays within the limits whatever the DIIs announce.
TEST(CarouselLimits, AnnouncementsDoNotBuyMemory) {
    TsLogLines log_lines;
    const std::vector<std::string>& log = log_lines.lines();
    CarouselLimits limits;
    limits.max_module_size = 1000;
    limits.max_carousel_bytes = 400;
    limits.max_early_block_bytes = 100;
    ObjectCarousel carousel(0x100, limits);
    auto feed = [&](const Bytes& s) { return carousel.feed(s.data(), s.size()); };
    feed(b::dii(7, 100, {{1, 5000000, 0}, {2, 900, 0}, {3, 900, 0, true, 4000000}}));
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0], "carousel pid 0x0100: module 1 of download 0x7 version 0: size 5000000 over the limit of 1000 bytes");
    EXPECT_EQ(log[1], "carousel pid 0x0100: module 3 of download 0x7 version 0: size 4000000 over the limit of 1000 bytes");
    // Blocks of modules no DII announced yet: kept up to their own limit,
    // and counted in the carousel's.
    feed(b::ddb(7, 9, 0, 0, Bytes(100, 1)));
    feed(b::ddb(7, 9, 0, 1, Bytes(100, 1)));
    EXPECT_EQ(log.back(), "carousel pid 0x0100: blocks arriving before their DII: over the limit of 100 bytes, dropped");
    for (std::uint16_t block = 0; block < 9; ++block) feed(b::ddb(7, 2, 0, block, Bytes(100, 1)));
    EXPECT_EQ(carousel.incomplete_modules(),
              (std::vector<std::string>{"module 2 of download 0x7 version 0: 3 of 9 blocks"}));
    EXPECT_EQ(log.back(), "carousel pid 0x0100: module 2 of download 0x7: carousel over its memory limit of 400 "
                          "bytes, block dropped");
    EXPECT_EQ(carousel.counts().skipped, 2u + 1u + 6u);
}

}  // namespace
