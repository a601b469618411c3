// The scenario reader: the file's layout (lines of sections and keys), the
// values through the library's INI reader, and the section kinds of
// scenario_sections.cpp applied in their order.
#include "scenario_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

namespace appmgr::emu {

namespace {

// The logical lines of a file: physical lines without their trailing blanks,
// joined where one ends with "\".
class LogicalLines {
public:
    LogicalLines(std::FILE* in, const std::string& path) : in_(in), path_(path) {}

    // The next logical line and the number of its first physical line; false
    // at the end of the file.
    bool next(std::string& logical, int& first_line) {
        logical.clear();
        first_line = 0;
        while (!eof_) {
            std::string physical;
            if (!readPhysical(physical) && logical.empty()) return false;
            if (first_line == 0) first_line = lineno_;
            while (!physical.empty() && std::isspace(static_cast<unsigned char>(physical.back())))
                physical.pop_back();
            logical += physical;
            if (logical.size() > PARSE_INI_LINE_MAX)
                throw Failure{path_ + ":" + std::to_string(first_line) + ": line longer than " +
                              std::to_string(PARSE_INI_LINE_MAX) + " characters"};
            if (!logical.empty() && logical.back() == '\\') {
                logical.pop_back();
                if (!eof_) continue;
            }
            return true;
        }
        return false;
    }

private:
    // One physical line without its newline; false when the file had no
    // more bytes.
    bool readPhysical(std::string& line) {
        bool got = false;
        for (;;) {
            const int c = std::getc(in_);
            if (c == EOF) {
                eof_ = true;
                return got;
            }
            if (!got) {
                got = true;
                ++lineno_;
            }
            if (c == '\n') return true;
            if (c == '\0') throw Failure{path_ + ":" + std::to_string(lineno_) + ": NUL byte in the line"};
            line.push_back(static_cast<char>(c));
        }
    }

    std::FILE* in_;
    const std::string& path_;
    int lineno_ = 0;
    bool eof_ = false;
};

// Puts the sections and keys of logical lines into a Layout, refusing what
// the library's loader would merge or drop silently.
class LayoutScan {
public:
    void add(const std::string& logical, int line, const std::string& where) {
        char sec[PARSE_INI_LINE_MAX + 1] = "";
        char key[PARSE_INI_LINE_MAX + 1] = "";
        char val[PARSE_INI_LINE_MAX + 1] = "";
        switch (parse_ini_line(logical.c_str(), sec, key, val)) {
            case LINE_EMPTY:
            case LINE_COMMENT: return;
            case LINE_SECTION: return addSection(sec, line, where);
            case LINE_VALUE: return addKey(key, line, where);
            default:
                throw Failure{where + "not a [section], a 'key = value' or a '# comment' line: " + logical};
        }
    }
    Layout& layout() { return layout_; }

private:
    void addSection(const std::string& name, int line, const std::string& where) {
        section_ = name;
        if (section_.empty() || section_.find(':') != std::string::npos)
            throw Failure{where + "bad section name [" + section_ + "]"};
        if (!seen_sections_.insert(section_).second)
            throw Failure{where + "section [" + section_ + "] appears twice"};
        layout_.sections.emplace_back(section_, line);
    }
    void addKey(const std::string& key, int line, const std::string& where) {
        if (section_.empty()) throw Failure{where + "'" + key + "' is outside any section"};
        const std::string full = section_ + ":" + key;
        if (key.empty()) throw Failure{where + "key missing before '='"};
        if (layout_.key_line.count(full))
            throw Failure{where + "[" + section_ + "] " + key + " is given twice (first on line " +
                          std::to_string(layout_.key_line[full]) + ")"};
        layout_.key_line[full] = line;
        layout_.keys.push_back({section_, key, line});
    }

    Layout layout_;
    std::string section_;
    std::set<std::string> seen_sections_;
};

std::size_t kindIndex(const std::string& name) {
    const std::vector<SectionKind>& kinds = sectionKinds();
    for (std::size_t i = 0; i < kinds.size(); ++i)
        if (name == kinds[i].name) return i;
    return kinds.size();
}

// "scenario, service, ..., channel.NAME, ...": plain kinds first.
std::string knownSections() {
    std::vector<std::string> plain, named;
    for (const SectionKind& k : sectionKinds()) {
        if (k.suffix)
            named.push_back(std::string(k.name) + "." + k.suffix);
        else
            plain.push_back(k.name);
    }
    plain.insert(plain.end(), named.begin(), named.end());
    return joined(plain);
}

// The file's sections by kind (index into sectionKinds()), in file order.
std::vector<std::vector<FoundSection>> sortSections(const Reader& r) {
    const std::vector<SectionKind>& kinds = sectionKinds();
    std::vector<std::vector<FoundSection>> found(kinds.size());
    for (const auto& sec : r.layout().sections) {
        const std::string& name = sec.first;
        const std::size_t dot = name.find('.');
        const std::string kind = name.substr(0, dot);
        const std::size_t k = kindIndex(kind);
        const bool named = dot != std::string::npos;
        if (k < kinds.size() && (kinds[k].suffix != nullptr) == named) {
            const std::string suffix = named ? name.substr(dot + 1) : "";
            if (named && !validName(suffix))
                r.error(name, "", "the name after '" + kind + ".' may use letters, digits, '_' and '-'");
            found[k].push_back({name, suffix});
            continue;
        }
        if (k < kinds.size() && !named && kinds[k].bare_hint) r.error(name, "", kinds[k].bare_hint);
        r.error(name, "", "unknown section (known: " + knownSections() + ")");
    }
    return found;
}

bool usesHttpPlaceholder(const Scenario& s) {
    auto has = [](const std::string& t) { return t.find(kHttpPlaceholder) != std::string::npos; };
    for (const AppSpec& a : s.apps)
        if (has(a.url)) return true;
    for (const Step& st : s.timeline)
        if (has(st.text)) return true;
    return false;
}

Scenario build(const Reader& r) {
    const std::vector<std::vector<FoundSection>> found = sortSections(r);
    const std::vector<SectionKind>& kinds = sectionKinds();
    const Layout& layout = r.layout();
    for (std::size_t k = 0; k < kinds.size(); ++k) {
        if (!kinds[k].required || !found[k].empty()) continue;
        const std::string section = std::string("[") + kinds[k].name + "] section";
        throw Failure{layout.sections.empty() && layout.keys.empty()
                          ? r.path() + ": empty scenario (no " + section + ")"
                          : r.path() + ": " + section + " missing"};
    }
    Scenario s;
    s.path = r.path();
    ScenarioBuilder builder{r, s, {}};
    for (std::size_t k = 0; k < kinds.size(); ++k) kinds[k].read(builder, found[k]);
    // The HTTP responder runs for [http], and for any URL or step that names it.
    s.http.enabled = s.http.enabled || usesHttpPlaceholder(s);
    return s;
}

}  // namespace

Layout scanLayout(const std::string& path) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!in) throw Failure{path + ": cannot open: " + std::strerror(errno)};
    LogicalLines lines(in.get(), path);
    LayoutScan scan;
    std::string logical;
    int line = 0;
    while (lines.next(logical, line)) scan.add(logical, line, path + ":" + std::to_string(line) + ": ");
    if (std::ferror(in.get())) throw Failure{path + ": read error"};
    return std::move(scan.layout());
}

// ---- Reader ------------------------------------------------------------------------

std::optional<std::string> Reader::get(const std::string& section, const std::string& key) const {
    const std::string full = section + ":" + key;
    if (!parse_ini_find_entry(dict_, full.c_str())) return std::nullopt;
    const char* v = parse_ini_getstring(dict_, full.c_str(), nullptr);
    return std::string(v ? v : "");
}

void Reader::error(const std::string& section, const std::string& key, const std::string& what) const {
    int line = 0;
    if (!key.empty()) {
        auto it = layout_.key_line.find(section + ":" + key);
        if (it != layout_.key_line.end()) line = it->second;
    }
    if (line == 0)
        for (const auto& s : layout_.sections)
            if (s.first == section) line = s.second;
    std::string where = path_ + (line ? ":" + std::to_string(line) : "") + ": ";
    if (!section.empty()) where += "[" + section + "]" + (key.empty() ? "" : " " + key) + ": ";
    throw Failure{where + what};
}

void Reader::allowOnly(const std::string& section, const std::vector<std::string>& allowed) const {
    for (const KeyInfo& k : layout_.keys) {
        if (k.section != section) continue;
        if (std::find(allowed.begin(), allowed.end(), k.key) == allowed.end())
            error(section, k.key, "unknown key (known: " + joined(allowed) + ")");
    }
}

std::optional<long> Reader::integer(const std::string& section, const std::string& key, long min,
                                    long max) const {
    std::optional<std::string> v = get(section, key);
    if (!v) return std::nullopt;
    std::optional<long> n = number(*v, min, max);
    if (!n)
        error(section, key,
              "'" + *v + "' is not a number from " + std::to_string(min) + " to " + std::to_string(max) +
                  " (decimal, 0x hexadecimal or 0 octal)");
    return n;
}

long Reader::required(const std::string& section, const std::string& key, long min, long max) const {
    std::optional<long> n = integer(section, key, min, max);
    if (!n) error(section, "", "'" + key + "' is missing");
    return *n;
}

std::optional<bool> Reader::flag(const std::string& section, const std::string& key) const {
    std::optional<std::string> v = get(section, key);
    if (!v) return std::nullopt;
    std::optional<bool> b = boolean(*v);
    if (!b) error(section, key, "'" + *v + "' is not yes/no (true/false, on/off, 1/0)");
    return b;
}

// ---- Scenario ------------------------------------------------------------------------

const ChannelSpec* Scenario::channel(const std::string& name) const {
    for (const ChannelSpec& c : channels)
        if (c.name == name) return &c;
    return nullptr;
}

int Scenario::channelIndex(const std::string& name) const {
    for (std::size_t i = 0; i < channels.size(); ++i)
        if (channels[i].name == name) return static_cast<int>(i);
    return -1;
}

const AppSpec* Scenario::app(const std::string& section) const {
    for (const AppSpec& a : apps)
        if (a.section == section) return &a;
    return nullptr;
}

const AitSpec* Scenario::ait(const std::string& name) const {
    for (const AitSpec& a : aits)
        if (a.name == name) return &a;
    return nullptr;
}

std::optional<Scenario> loadScenario(const std::string& path, std::string* error) {
    try {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) throw Failure{path + ": cannot open: " + std::strerror(errno)};
        if (!S_ISREG(st.st_mode)) throw Failure{path + ": not a regular file"};
        if (st.st_size > kMaxFileBytes)
            throw Failure{path + ": larger than " + std::to_string(kMaxFileBytes) + " bytes"};

        Layout layout = scanLayout(path);
        std::unique_ptr<ini_dict, void (*)(ini_dict*)> dict(parse_ini_load(path.c_str()), parse_ini_freedict);
        if (!dict) throw Failure{path + ": the INI reader refused the file"};
        return build(Reader(path, dict.get(), layout));
    } catch (const Failure& f) {
        if (error) *error = f.message;
        return std::nullopt;
    }
}

}  // namespace appmgr::emu
