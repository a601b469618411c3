// Decoding of replies and callbacks: the record shapes of docs/protocol.md,
// one table per connection, so a trace shows "onid=1 tsid=2" instead of a
// row of bare fields.
#include <cstddef>
#include <initializer_list>
#include <utility>

#include "browser_standin.h"

namespace appmgr::standin {
namespace {

using Names = std::initializer_list<const char*>;

struct Shape {
    const char* kind;
    Names names;
};

const Names kChannel = {"type", "ccid", "onid", "nid", "tsid", "sid", "name", "dsd",
                        "terminalChannel", "majorChannel", "idType"};
const Names kVideo = {"type", "encoding", "encrypted", "componentTag", "pid", "aspectRatio"};
const Names kAudio = {"type",         "encoding", "encrypted",        "componentTag",
                      "pid",          "language", "audioDescription", "audioChannels"};
const Names kSubtitle = {"type", "encoding", "encrypted", "componentTag", "pid", "language",
                         "hearingImpaired"};
const Names kRating = {"name", "scheme", "value", "labels", "region"};
const Names kProgramme = {"name",          "description",     "startTime", "duration",
                          "channelID",     "programmeID",     "programmeIDType",
                          "longDescription", "ratings"};
// A search result item: a short programme without its rating.
const Names kSearchItem = {"name", "programmeID", "programmeIDType", "startTime", "duration",
                           "channelID"};
const Names kConfiguration = {"preferredAudioLanguage", "preferredSubtitleLanguage", "countryID",
                              "preferredUILanguage",    "subtitlesEnabled",
                              "timeShiftSynchronized",  "deviceId",
                              "audioDescriptionEnabled"};

// The shape of the reply to a request, by connection and id; null for a
// reply read as plain fields.
const Shape* replyShape(Connection c, int id) {
    static const Shape channel{"channel", kChannel};
    static const Shape video{"video component", kVideo};
    static const Shape audio{"audio component", kAudio};
    static const Shape subtitle{"subtitle component", kSubtitle};
    static const Shape number{"number", {"value"}};
    static const Shape result{"result", {"result"}};
    static const Shape rating{"parental rating", kRating};
    static const Shape programme{"programme", kProgramme};
    static const Shape search_item{"search item", kSearchItem};
    static const Shape configuration{"configuration", kConfiguration};
    static const Shape decodes{"decodes", {"extraSDVideoDecodes", "extraHDVideoDecodes"}};
    static const Shape document{"document", {"text"}};
    static const Shape info{"application", {"orgid", "appid"}};
    static const Shape dash{"DASH component", {"componentTag", "pid", "type"}};
    static const Shape entry{"carousel entry", {"kind", "moduleId", "reserved"}};
    static const Shape content{"carousel content", {"kind", "reserved", "length"}};

    const bool media = id >= 200 && id <= 315;
    if (c == Connection::Dsmcc) return id == 130 ? &entry : id >= 131 && id <= 133 ? &content : nullptr;
    if (c == Connection::VodPlugins && !media) return nullptr;
    if (c != Connection::DtvPlugins && c != Connection::VodPlugins) return nullptr;
    switch (id) {
        case 30: case 31: case 32: case 33: case 34: return &channel;
        case 35: case 43: case 44: case 56: case 78: case 114: case 118: case 234:
        case 240: case 308: case 312: case 125: case 90: case 103:
            return &number;
        case 41: return &rating;
        case 42: return &configuration;
        case 45: return &programme;
        case 99: return &search_item;
        case 57: return &info;
        case 71: return &decodes;
        case 72: case 401: case 100: case 102: case 104: case 105: return &document;
        case 115: case 119: case 309: case 313: return &video;
        case 116: case 120: case 310: case 314: return &audio;
        case 117: case 121: case 311: case 315: return &subtitle;
        case 241: return &dash;
        default: return &result;
    }
}

// The shape of a command or callback from the library.
const Shape* frameShape(int id) {
    static const Shape channel{"channel changed", kChannel};
    static const Shape text{"text", {"text"}};
    static const Shape value{"value", {"value"}};
    static const Shape rating{"parental rating changed", {"ratings", "blocked"}};
    static const Shape rating_error{"parental rating error", {"ratings"}};
    static const Shape event{"stream event", {"location", "name", "data", "text", "status"}};
    static const Shape search{"search status",
                              {"searchID", "searchStatus", "searchOffset", "searchResult", "eventsFound"}};
    static const Shape component{"component type", {"componentType"}};
    static const Shape drm_result{"DRM message result", {"msgID", "resultMsg", "resultCode"}};
    static const Shape drm_message{"DRM system message", {"msg", "drmSystemID"}};
    static const Shape none{"event", {}};
    switch (id) {
        case 60: return &channel;
        case 62: return &rating;
        case 63: return &rating_error;
        case 66: return &event;
        case 67: return &search;
        case 69: case 79: return &component;
        case 170: return &drm_result;
        case 172: return &drm_message;
        case 27: case 76: case 77: case 81: case 171: case 220: return &value;
        case 24: case 25: case 26: case 50: case 52: case 53: case 54: case 59: case 140:
        case 141: case 209: case 232: case 233: case 400: case 402:
            return &text;
        default: return &none;
    }
}

// Names the fields in order; what is left over goes to `extra`.
void name_fields(Decoded& d, Names names, const std::vector<std::string>& fields,
                 std::size_t first = 0) {
    std::size_t i = first;
    for (const char* name : names) {
        if (i >= fields.size()) break;
        d.fields.push_back({name, fields[i++]});
    }
    for (; i < fields.size(); ++i) d.extra.push_back(fields[i]);
}

// A programme's rating follows it when its count says so.
void name_programme(Decoded& d, const std::vector<std::string>& fields) {
    name_fields(d, kProgramme, fields);
    if (d.fields.size() == kProgramme.size() && d.fields.back().value == "1" &&
        d.extra.size() >= kRating.size()) {
        std::vector<std::string> rating = d.extra;
        d.extra.clear();
        Decoded r;
        name_fields(r, kRating, rating);
        for (auto& f : r.fields) d.fields.push_back({"rating." + f.name, f.value});
        d.extra = r.extra;
    }
}

bool isNumber(const std::string& text) {
    if (text.empty()) return false;
    std::size_t i = text[0] == '-' ? 1 : 0;
    if (i == text.size()) return false;
    for (; i < text.size(); ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return true;
}

}  // namespace

Decoded decodeReply(Connection c, int id, std::string_view reply) {
    Decoded d;
    std::optional<std::string> trailing;
    std::vector<std::string> fields = splitFields(reply, &trailing);
    d.trailing = trailing;
    if (fields.empty()) {
        d.kind = trailing ? "fields" : "empty";
        return d;
    }
    // The reply words stand for themselves.
    static const std::pair<const char*, const char*> kWords[] = {
        {"ACK", "done"}, {"TRUE", "true"}, {"FALSE", "false"}, {"NOT_AVAILABLE", "not available"}};
    for (const auto& [word, kind] : kWords) {
        if (fields.size() == 1 && fields[0] == word) {
            d.kind = kind;
            return d;
        }
    }
    const Shape* shape = replyShape(c, id);
    if (shape == nullptr) {
        d.kind = "fields";
        d.extra = fields;
        return d;
    }
    d.kind = shape->kind;
    if (shape->names.size() == 1 && std::string(*shape->names.begin()) == "result" &&
        (fields.size() != 1 || !isNumber(fields[0]))) {
        d.kind = "fields";
        d.extra = fields;
        return d;
    }
    if (id == 45)
        name_programme(d, fields);
    else
        name_fields(d, shape->names, fields);
    return d;
}

Decoded decodeFrame(const Frame& frame) {
    Decoded d;
    d.trailing = frame.trailing;
    if (frame.id == 61) {
        // The error, then the channel when the library had one.
        d.kind = "channel change error";
        if (!frame.fields.empty()) d.fields.push_back({"error", frame.fields[0]});
        name_fields(d, kChannel, frame.fields, 1);
        return d;
    }
    const Shape* shape = frameShape(frame.id);
    d.kind = shape->kind;
    name_fields(d, shape->names, frame.fields);
    return d;
}

std::string describe(const Decoded& decoded) {
    std::string out = decoded.kind;
    for (const NamedField& f : decoded.fields) {
        out += " " + f.name + "=";
        out += isNumber(f.value) ? f.value : "\"" + escapeBytes(f.value) + "\"";
    }
    for (const std::string& e : decoded.extra) out += " +\"" + escapeBytes(e) + "\"";
    if (decoded.trailing) out += " +unterminated \"" + escapeBytes(*decoded.trailing) + "\"";
    return out;
}

}  // namespace appmgr::standin
