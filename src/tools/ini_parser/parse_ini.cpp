// INI file loader and typed getters on top of ini_dict.
//
// Files are untrusted: every copy is bounded by PARSE_INI_LINE_MAX, lines are
// read byte by byte so NUL bytes and a missing final newline are seen, and a
// logical line (continuations included) longer than the buffer fails the load.
#include "parse_ini.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log.h"

namespace {

constexpr size_t kLineMax = PARSE_INI_LINE_MAX;

// Copies src (at most kLineMax characters) into a kLineMax + 1 byte buffer.
void copy_line(char* dst, const char* src) {
    const size_t len = strnlen(src, kLineMax);
    memmove(dst, src, len);
    dst[len] = '\0';
}

// Strips and lower-cases a kLineMax + 1 byte buffer in place.
void normalize_key(char* buf) {
    copy_line(buf, strstrip(buf));
    copy_line(buf, strlwc(buf));
}

const char* lookup(const ini_dict* d, const char* key, bool* found) {
    *found = false;
    if (d == nullptr || key == nullptr) return nullptr;
    const char* lower = strlwc(key);
    const uint32_t h = ini_dict_hash(lower);
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] != nullptr && d->hash[i] == h && strcmp(d->key[i], lower) == 0) {
            *found = true;
            return d->val[i];
        }
    }
    return nullptr;
}

// Length of the section part of a key: up to its first ':' or the whole key.
size_t group_len(const char* key) {
    const char* colon = strchr(key, ':');
    return colon != nullptr ? static_cast<size_t>(colon - key) : strlen(key);
}

// Writes "name = value", quoting values the loader would otherwise cut or strip.
void write_value(FILE* out, const char* name, const char* val) {
    if (val[0] == '\0') {
        fprintf(out, "%s =\n", name);
        return;
    }
    const size_t len = strlen(val);
    const bool plain = strpbrk(val, ";#\"'") == nullptr &&
                       !isspace(static_cast<unsigned char>(val[0])) &&
                       !isspace(static_cast<unsigned char>(val[len - 1])) && val[len - 1] != '\\';
    if (plain)
        fprintf(out, "%s = %s\n", name, val);
    else if (strchr(val, '"') == nullptr)
        fprintf(out, "%s = \"%s\"\n", name, val);
    else if (strchr(val, '\'') == nullptr)
        fprintf(out, "%s = '%s'\n", name, val);
    else
        fprintf(out, "%s = %s\n", name, val);
}

// Prints the entries "name:..." of one section. Entries with a null value are
// printed last as "[name:...]" headers, which the loader reads back as the
// same null-valued entries.
void write_group(const ini_dict* d, FILE* out, const char* name, size_t len) {
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < d->size; ++i) {
            const char* k = d->key[i];
            if (k == nullptr || strncmp(k, name, len) != 0 || k[len] != ':') continue;
            if (pass == 0 && d->val[i] != nullptr) write_value(out, k + len + 1, d->val[i]);
            if (pass == 1 && d->val[i] == nullptr) fprintf(out, "[%s]\n", k);
        }
    }
}

enum class Store { kOk, kSyntax, kMemory };

Store store_line(ini_dict* d, const char* line, char* section) {
    char key[kLineMax + 1];
    char val[kLineMax + 1];
    char full[2 * kLineMax + 2];
    switch (parse_ini_line(line, section, key, val)) {
        case LINE_EMPTY:
        case LINE_COMMENT:
            return Store::kOk;
        case LINE_SECTION:
            return ini_dict_set(d, section, nullptr) == 0 ? Store::kOk : Store::kMemory;
        case LINE_VALUE:
            snprintf(full, sizeof full, "%s:%s", section, key);
            return ini_dict_set(d, full, val) == 0 ? Store::kOk : Store::kMemory;
        default:
            return Store::kSyntax;
    }
}

// Reads the logical lines of a file: physical lines joined where one ends
// in '\', trailing blanks cut. Bytes are read one by one, so NUL bytes and a
// last line without a newline are seen.
class LogicalLines {
public:
    enum class Next { kLine, kEnd, kTooLong };

    LogicalLines(FILE* in, const char* path) : in_(in), path_(path) {}

    // The next logical line into line(); kTooLong (logged) when it does not
    // fit the buffer.
    Next next() {
        if (at_eof_) return Next::kEnd;
        len_ = 0;
        has_nul_ = false;
        bool continued = false;
        for (;;) {
            bool got = false;
            if (!read_physical(&got)) return Next::kTooLong;
            if (!got && !continued) return Next::kEnd;
            while (len_ > 0 && isspace(static_cast<unsigned char>(line_[len_ - 1]))) --len_;
            line_[len_] = '\0';
            if (len_ > 0 && line_[len_ - 1] == '\\') {
                line_[--len_] = '\0';
                continued = true;
                if (!at_eof_) continue;  // a '\' on the last line just ends it
            }
            return Next::kLine;
        }
    }

    const char* line() const { return line_; }
    int lineno() const { return lineno_; }
    bool has_nul() const { return has_nul_; }

private:
    // Appends one physical line; *got tells whether it had any byte (its
    // newline included). False when the logical line grows too long.
    bool read_physical(bool* got) {
        for (;;) {
            const int c = getc(in_);
            if (c == EOF) {
                at_eof_ = true;
                return true;
            }
            if (!*got) {
                *got = true;
                ++lineno_;
            }
            if (c == '\n') return true;
            if (len_ >= kLineMax) {
                AM_ERROR("PARSE_INI: input line too long in %s (%d)\n", path_, lineno_);
                return false;
            }
            if (c == '\0') has_nul_ = true;
            line_[len_++] = static_cast<char>(c);
        }
    }

    FILE* in_;
    const char* path_;
    char line_[kLineMax + 1] = "";
    size_t len_ = 0;
    int lineno_ = 0;
    bool has_nul_ = false;
    bool at_eof_ = false;
};

// Stores every logical line of the file in the dictionary. False when the
// file cannot be taken: a syntax error (every one is logged), a line too
// long, no memory or a read error.
bool load_lines(FILE* in, const char* path, ini_dict* d) {
    LogicalLines lines(in, path);
    char section[kLineMax + 1] = "";
    int errs = 0;
    for (;;) {
        const LogicalLines::Next next = lines.next();
        if (next == LogicalLines::Next::kTooLong) return false;
        if (next == LogicalLines::Next::kEnd) break;
        const Store st = lines.has_nul() ? Store::kSyntax : store_line(d, lines.line(), section);
        if (st == Store::kSyntax) {
            AM_ERROR("PARSE_INI: syntax error in %s\n", path);
            AM_ERROR("(%d):-> %s\n", lines.lineno(), lines.line());
            ++errs;
        } else if (st == Store::kMemory) {
            AM_ERROR("PARSE_INI: memory allocation failure\n");
            return false;
        }
    }
    if (ferror(in)) {
        AM_ERROR("PARSE_INI: cannot open %s\n\n", path);
        return false;
    }
    return errs == 0;
}

}  // namespace

extern "C" {

line_status parse_ini_line(const char* input_line, char* section, char* key, char* value) {
    if (input_line == nullptr || section == nullptr || key == nullptr || value == nullptr)
        return LINE_ERROR;
    char line[kLineMax + 1];
    copy_line(line, strstrip(input_line));
    const size_t len = strlen(line);

    if (len == 0) return LINE_EMPTY;
    if (line[0] == '#') return LINE_COMMENT;
    if (line[0] == '[' && line[len - 1] == ']') {
        if (sscanf(line, "[%1024[^]]", section) != 1) section[0] = '\0';
        normalize_key(section);
        return LINE_SECTION;
    }
    if (sscanf(line, "%1024[^=] = \"%1024[^\"]\"", key, value) == 2 ||
        sscanf(line, "%1024[^=] = '%1024[^']'", key, value) == 2 ||
        sscanf(line, "%1024[^=] = %1024[^;#]", key, value) == 2) {
        normalize_key(key);
        copy_line(value, strstrip(value));
        if (strcmp(value, "\"\"") == 0 || strcmp(value, "''") == 0) value[0] = '\0';
        return LINE_VALUE;
    }
    if (sscanf(line, "%1024[^=] = %1024[;#]", key, value) == 2 ||
        sscanf(line, "%1024[^=] %1024[=]", key, value) == 2) {
        normalize_key(key);
        value[0] = '\0';
        return LINE_VALUE;
    }
    return LINE_ERROR;
}

ini_dict* parse_ini_load(const char* path) {
    if (path == nullptr) {
        AM_ERROR("PARSE_INI: cannot open %s\n\n", "(null)");
        return nullptr;
    }
    FILE* in = fopen(path, "r");
    if (in == nullptr) {
        AM_ERROR("PARSE_INI: cannot open %s\n\n", path);
        return nullptr;
    }
    ini_dict* d = ini_dict_new(0);
    if (d == nullptr) {
        AM_ERROR("PARSE_INI: memory allocation failure\n");
        fclose(in);
        return nullptr;
    }
    const bool loaded = load_lines(in, path, d);
    fclose(in);
    if (!loaded) {
        ini_dict_del(d);
        return nullptr;
    }
    return d;
}

void parse_ini_freedict(ini_dict* d) { ini_dict_del(d); }

int parse_ini_getnsec(const ini_dict* d) {
    if (d == nullptr) return -1;
    int count = 0;
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] != nullptr && strchr(d->key[i], ':') == nullptr) ++count;
    }
    return count;
}

const char* parse_ini_getsecname(const ini_dict* d, int n) {
    if (d == nullptr || n < 0) return nullptr;
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] != nullptr && strchr(d->key[i], ':') == nullptr && n-- == 0)
            return d->key[i];
    }
    return nullptr;
}

const char* parse_ini_getstring(const ini_dict* d, const char* key, const char* def) {
    bool found = false;
    const char* v = lookup(d, key, &found);
    return found ? v : def;
}

int parse_ini_getint(const ini_dict* d, const char* key, int notfound) {
    bool found = false;
    const char* v = lookup(d, key, &found);
    if (v == nullptr) return notfound;
    const long n = strtol(v, nullptr, 0);
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

double parse_ini_getdouble(const ini_dict* d, const char* key, double notfound) {
    bool found = false;
    const char* v = lookup(d, key, &found);
    return v == nullptr ? notfound : strtod(v, nullptr);
}

int parse_ini_getboolean(const ini_dict* d, const char* key, int notfound) {
    bool found = false;
    const char* v = lookup(d, key, &found);
    if (v == nullptr) return notfound;
    switch (v[0]) {
        case 'y': case 'Y': case '1': case 't': case 'T':
            return 1;
        case 'n': case 'N': case '0': case 'f': case 'F':
            return 0;
        default:
            return notfound;
    }
}

int parse_ini_set(ini_dict* d, const char* entry, const char* val) {
    if (entry == nullptr) return -1;
    return ini_dict_set(d, strlwc(entry), val);
}

void parse_ini_unset(ini_dict* d, const char* entry) {
    if (entry == nullptr) return;
    ini_dict_unset(d, strlwc(entry));
}

int parse_ini_find_entry(const ini_dict* d, const char* entry) {
    bool found = false;
    lookup(d, entry, &found);
    return found ? 1 : 0;
}

void parse_ini_dump(const ini_dict* d, FILE* out) {
    if (d == nullptr || out == nullptr) return;
    for (int i = 0; i < d->size; ++i) {
        if (d->key[i] == nullptr) continue;
        if (d->val[i] != nullptr)
            fprintf(out, "[%s]=[%s]\n", d->key[i], d->val[i]);
        else
            fprintf(out, "[%s]=UNDEF\n", d->key[i]);
    }
}

void parse_ini_dump_ini(const ini_dict* d, FILE* out) {
    if (d == nullptr || out == nullptr) return;
    // Entries stored before any section (":key") come first, without a header.
    write_group(d, out, "", 0);
    for (int i = 0; i < d->size; ++i) {
        const char* k = d->key[i];
        if (k == nullptr) continue;
        const size_t len = group_len(k);
        if (len == 0) continue;
        bool seen = false;
        for (int j = 0; j < i && !seen; ++j) {
            seen = d->key[j] != nullptr && group_len(d->key[j]) == len &&
                   strncmp(d->key[j], k, len) == 0;
        }
        if (seen) continue;
        fprintf(out, "\n[%.*s]\n", static_cast<int>(len), k);
        write_group(d, out, k, len);
    }
}

}  // extern "C"
