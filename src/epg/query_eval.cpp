// Query evaluation: the comparison table of the metadata search.
#include "query_eval.h"

#include <cstring>

#include "common/log.h"

namespace appmgr::epg {

namespace {

inline unsigned char lower_ascii(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

// Appends the lower-case hexadecimal digits of value (no padding).
char* put_hex(char* out, unsigned value) {
    char digits[8];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[value & 0xF];
        value >>= 4;
    } while (value != 0);
    while (n > 0) *out++ = digits[--n];
    return out;
}

// A comparison the field does not support, and one of no known kind:
// logged, and the event does not match.
bool unsupported_for_field(const Comparison& c) {
    AM_ERROR("Unsupported comparison type: %d for this query type: %d !", c.comparison, c.field);
    return false;
}

bool unknown_comparison(const Comparison& c) {
    AM_ERROR("Unsupported Query comparison type: %d", c.field);
    return false;
}

bool title_holds(EventView& view, const Comparison& c) {
    const char* name = view.event().eitName;
    if (name == nullptr) {
        AM_INFO("Event name not available from middleware !");
        return false;
    }
    const char* value = c.value.get();
    switch (c.comparison) {
        case eEqual: return value != nullptr && std::strcmp(name, value) == 0;
        case eNotEqual: return value != nullptr && std::strcmp(name, value) != 0;
        case eContainString: return contains_ignore_case(name, value);
        case eDontContainString: return !contains_ignore_case(name, value);
        case eGreater:
        case eGreaterOrEqual:
        case eLess:
        case eLessOrEqual:
            return unsupported_for_field(c);
        default: return unknown_comparison(c);
    }
}

bool start_time_holds(const EventView& view, const Comparison& c) {
    const int start = view.event().eitStartTime;
    switch (c.comparison) {
        case eEqual: return start == c.number;
        case eNotEqual: return start != c.number;
        case eGreater: return start > c.number;
        case eGreaterOrEqual: return start >= c.number;
        case eLess: return start < c.number;
        case eLessOrEqual: return start <= c.number;
        case eContainString:
        case eDontContainString:
            return unsupported_for_field(c);
        default: return unknown_comparison(c);
    }
}

bool programme_id_holds(EventView& view, const Comparison& c) {
    const char* value = c.value.get();
    switch (c.comparison) {
        case eEqual: return value != nullptr && std::strcmp(view.programme_id(), value) == 0;
        case eNotEqual: return value != nullptr && std::strcmp(view.programme_id(), value) != 0;
        // The containment tests are not made for programme ids: "contains"
        // never holds and "does not contain" always does.
        case eContainString: return false;
        case eDontContainString: return true;
        default: return unknown_comparison(c);
    }
}

}  // namespace

bool contains_ignore_case(const char* str, const char* sub) {
    if (str == nullptr || sub == nullptr || *sub == '\0') return false;
    const unsigned char first = lower_ascii(static_cast<unsigned char>(*sub));
    for (const char* start = str; *start != '\0'; ++start) {
        if (lower_ascii(static_cast<unsigned char>(*start)) != first) continue;
        const char* s = start + 1;
        const char* p = sub + 1;
        while (*p != '\0' && *s != '\0' &&
               lower_ascii(static_cast<unsigned char>(*s)) ==
                   lower_ascii(static_cast<unsigned char>(*p))) {
            ++s;
            ++p;
        }
        if (*p == '\0') return true;
        if (*s == '\0') return false;  // the rest of str is shorter than sub
    }
    return false;
}

std::size_t format_programme_id(const tEIT_DVB_HbbTVDescriptor& event,
                                char (&out)[kProgrammeIdSize]) {
    char* p = out;
    std::memcpy(p, "dvb://", 6);
    p += 6;
    p = put_hex(p, static_cast<unsigned>(event.eitOnid));
    *p++ = '.';
    p = put_hex(p, static_cast<unsigned>(event.eitTsid));
    *p++ = '.';
    p = put_hex(p, static_cast<unsigned>(event.eitSid));
    *p++ = ';';
    p = put_hex(p, static_cast<unsigned>(event.eitEventID));
    *p = '\0';
    return static_cast<std::size_t>(p - out);
}

const char* EventView::programme_id() {
    if (!id_ready_) {
        format_programme_id(event_, id_);
        id_ready_ = true;
    }
    return id_;
}

bool comparison_holds(EventView& event, const Comparison& comparison) {
    if (!comparison.set) return false;
    switch (comparison.field) {
        case eTitle: return title_holds(event, comparison);
        case eStartTime: return start_time_holds(event, comparison);
        case eProgrammeID: return programme_id_holds(event, comparison);
        default:
            AM_ERROR("Unsupported Query field type %d", comparison.field);
            return false;
    }
}

bool subgroup_holds(EventView& event, const Subgroup& subgroup) {
    for (const Comparison& c : subgroup.comparisons)
        if (!comparison_holds(event, c)) return false;
    return true;
}

bool query_matches(const Query& query, const tEIT_DVB_HbbTVDescriptor& event) {
    EventView view(event);
    for (const auto& group : query.groups)
        if (group && subgroup_holds(view, *group)) return true;
    return false;
}

bool on_air_or_later(int start_time, const tEIT_DVB_HbbTVDescriptor& event) {
    const long long start = event.eitStartTime;
    const long long end = start + event.eitDuration;
    return (start <= start_time && start_time < end) || start_time <= start;
}

HeapText copy_text(const char* text) {
    if (text == nullptr) return HeapText();
    const std::size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy == nullptr) throw std::bad_alloc();
    std::memcpy(copy, text, size);
    return HeapText(copy);
}

Query Query::copy() const {
    Query out;
    out.subgroups_number = subgroups_number;
    out.start_time = start_time;
    out.count = count;
    out.onid = onid;
    out.tsid = tsid;
    out.sid = sid;
    out.plugin_id = plugin_id;
    out.search_id = search_id;
    out.groups.reserve(groups.size());
    for (const auto& group : groups) {
        if (!group) {
            out.groups.emplace_back();
            continue;
        }
        Subgroup copy;
        copy.comparisons.reserve(group->comparisons.size());
        for (const Comparison& c : group->comparisons) {
            Comparison d;
            d.set = c.set;
            d.field = c.field;
            d.comparison = c.comparison;
            d.value = copy_text(c.value.get());
            d.number = c.number;
            copy.comparisons.push_back(std::move(d));
        }
        out.groups.emplace_back(std::move(copy));
    }
    return out;
}

}  // namespace appmgr::epg
