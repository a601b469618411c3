// Inside the scenario reader: what it learns from the file's lines, the
// typed access to values that names the line of every mistake, and the
// table of section kinds that turn sections into the model.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "parse_ini.h"
#include "scenario.h"

namespace appmgr::emu {

// A mistake in the file; loadScenario turns it into its error text.
struct Failure {
    std::string message;
};

struct KeyInfo {
    std::string section;
    std::string key;
    int line;
};

// What the reader learns from the raw lines: the line of every section and
// key, and the order of both. The values come from the library's reader.
struct Layout {
    std::vector<std::pair<std::string, int>> sections;  // file order
    std::vector<KeyInfo> keys;                          // file order
    std::map<std::string, int> key_line;                // "section:key"
};

// Reads logical lines (joined at a final "\") and classifies them with the
// library's line parser, the way its loader does, to find what the loader
// only reports as a failure: the line of a syntax error, keys outside a
// section, and sections or keys given twice (the loader silently keeps the
// last value). Throws Failure.
Layout scanLayout(const std::string& path);

// The values of the file, with errors that name file, line, section and key.
// Every error throws Failure.
class Reader {
public:
    Reader(const std::string& path, const ini_dict* dict, const Layout& layout)
        : path_(path), dict_(dict), layout_(layout) {}

    const std::string& path() const { return path_; }
    const Layout& layout() const { return layout_; }

    std::optional<std::string> get(const std::string& section, const std::string& key) const;
    [[noreturn]] void error(const std::string& section, const std::string& key,
                            const std::string& what) const;
    // Every key of a section must be one of these.
    void allowOnly(const std::string& section, const std::vector<std::string>& allowed) const;
    std::optional<long> integer(const std::string& section, const std::string& key, long min, long max) const;
    long required(const std::string& section, const std::string& key, long min, long max) const;
    std::optional<bool> flag(const std::string& section, const std::string& key) const;

private:
    std::string path_;
    const ini_dict* dict_;
    const Layout& layout_;
};

// AIT settings that [service] gives every table and [ait.NAME] may override.
struct AitDefaults {
    int type = 16;
    bool test = false;
    int version = 1;
};

// What the section kinds read into, in the order of the table.
struct ScenarioBuilder {
    const Reader& reader;
    Scenario& scenario;
    AitDefaults ait_defaults;  // from [service]
};

// A section of the file as found: "app.shop" and its name "shop" ("" for a
// plain section).
struct FoundSection {
    std::string section;
    std::string name;
};

// One kind of section: [NAME] once, or [NAME.SUFFIX] any number of times.
struct SectionKind {
    const char* name;    // "app"
    const char* suffix;  // "NAME", "TAG"; nullptr for a plain section
    bool required;
    // Reads the sections of this kind, in file order, into the scenario. A
    // plain kind is read once whether or not the file has it (its keys keep
    // their defaults then), so `found` has at most one entry.
    void (*read)(ScenarioBuilder& b, const std::vector<FoundSection>& found);
    // Said when the kind is given without its suffix ([carousel]); nullptr:
    // such a section is an unknown one.
    const char* bare_hint = nullptr;
};

// Every section kind, in the order they are read: a kind may use what the
// kinds before it put into the scenario (an AIT its applications, a
// programme its channel, a step everything).
const std::vector<SectionKind>& sectionKinds();

}  // namespace appmgr::emu
