// AIT sections (table 0x74) to records, with their descriptors: no Debian
// package decodes them. Every length is checked against the loop that holds
// it; what does not fit is skipped with a reason, never read.
#include <cstdio>

#include "dvbpsi_glue.h"

namespace ts {
namespace {

using detail::hex;

// Bounds-checked reading of a byte range.
class Bytes {
public:
    Bytes(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    std::size_t left() const { return size_ - at_; }
    bool has(std::size_t n) const { return left() >= n; }
    uint8_t peek() const { return data_[at_]; }
    uint8_t u8() { return data_[at_++]; }
    uint16_t u16() {
        const uint16_t v = static_cast<uint16_t>((data_[at_] << 8) | data_[at_ + 1]);
        at_ += 2;
        return v;
    }
    uint32_t u32() {
        const uint32_t v = (static_cast<uint32_t>(data_[at_]) << 24) |
                           (static_cast<uint32_t>(data_[at_ + 1]) << 16) |
                           (static_cast<uint32_t>(data_[at_ + 2]) << 8) | data_[at_ + 3];
        at_ += 4;
        return v;
    }
    const uint8_t* take(std::size_t n) {
        const uint8_t* p = data_ + at_;
        at_ += n;
        return p;
    }
    std::string text(std::size_t n) { return std::string(reinterpret_cast<const char*>(take(n)), n); }

private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

void note(Skipped* skipped, const std::string& what) {
    if (skipped) skipped->push_back(what);
}

// Calls fn(tag, body) for each descriptor of a loop; a descriptor whose
// length runs past the loop ends it.
template <typename Fn>
void for_each_descriptor(const uint8_t* data, std::size_t size, const char* loop, Skipped* skipped,
                         Fn fn) {
    Bytes b(data, size);
    while (b.left() > 0) {
        if (!b.has(2)) {
            note(skipped, std::string("AIT ") + loop + ": a stray byte after the last descriptor");
            return;
        }
        const uint8_t tag = b.u8();
        const uint8_t length = b.u8();
        if (!b.has(length)) {
            char text[128];
            std::snprintf(text, sizeof text,
                          "AIT %s: descriptor 0x%02x of %u bytes runs past its loop (%zu left)", loop,
                          tag, length, b.left());
            note(skipped, text);
            return;
        }
        fn(tag, Bytes(b.take(length), length));
    }
}

void decode_application_descriptor(Bytes b, AitApplication* app, Skipped* skipped) {
    if (!b.has(1)) return note(skipped, "AIT application_descriptor without its profiles length");
    const uint8_t profiles_length = b.u8();
    if (!b.has(profiles_length) || profiles_length % 5 != 0)
        return note(skipped, "AIT application_descriptor whose profiles run past it");
    for (int i = 0; i < profiles_length / 5; ++i) {
        AitProfile p;
        p.profile = b.u16();
        p.major = b.u8();
        p.minor = b.u8();
        p.micro = b.u8();
        app->profiles.push_back(p);
    }
    if (!b.has(2)) return note(skipped, "AIT application_descriptor without its flags and priority");
    const uint8_t flags = b.u8();
    app->has_descriptor = true;
    app->service_bound = (flags & 0x80) != 0;
    app->visibility = (flags >> 5) & 0x03;
    app->priority = b.u8();
    while (b.left() > 0) app->labels.push_back(b.u8());
}

void decode_names(Bytes b, std::vector<AitName>* names, Skipped* skipped) {
    while (b.left() > 0) {
        if (!b.has(4)) return note(skipped, "AIT application_name_descriptor with a partial entry");
        AitName name;
        name.language = detail::code3(b.take(3));
        const uint8_t length = b.u8();
        if (!b.has(length)) return note(skipped, "AIT application name runs past its descriptor");
        name.text = dvb_text_to_utf8(b.take(length), length, skipped);
        names->push_back(std::move(name));
    }
}

bool decode_transport(Bytes b, AitTransport* t, Skipped* skipped) {
    if (!b.has(3)) {
        note(skipped, "AIT transport_protocol_descriptor shorter than its header");
        return false;
    }
    t->protocol_id = b.u16();
    t->label = b.u8();
    if (t->protocol_id == 1) {  // object carousel
        if (!b.has(1)) return true;  // a bare label: the selector is optional
        t->remote = (b.u8() & 0x80) != 0;
        if (t->remote) {
            if (!b.has(6)) {
                note(skipped, "AIT carousel transport without its remote service");
                return false;
            }
            t->onid = b.u16();
            t->tsid = b.u16();
            t->sid = b.u16();
        }
        if (!b.has(1)) {
            note(skipped, "AIT carousel transport without its component tag");
            return false;
        }
        t->component_tag = b.u8();
    } else if (t->protocol_id == 3) {  // HTTP
        while (b.left() > 0) {
            AitUrlBase url;
            const uint8_t length = b.u8();
            if (!b.has(length + 1u)) {
                note(skipped, "AIT HTTP transport: URL base runs past its descriptor");
                return !t->urls.empty();
            }
            url.base = b.text(length);
            const uint8_t count = b.u8();
            for (int i = 0; i < count; ++i) {
                if (!b.has(1) || !b.has(1u + b.peek())) {
                    note(skipped, "AIT HTTP transport: URL extension runs past its descriptor");
                    t->urls.push_back(std::move(url));
                    return true;
                }
                const uint8_t ext = b.u8();
                url.extensions.push_back(b.text(ext));
            }
            t->urls.push_back(std::move(url));
        }
    }
    return true;
}

void decode_ratings(Bytes b, std::vector<ParentalRating>* ratings, Skipped* skipped) {
    while (b.has(4)) {
        ParentalRating r;
        r.country = detail::code3(b.take(3));
        r.rating = b.u8();
        ratings->push_back(r);
    }
    if (b.left() > 0) note(skipped, "AIT parental_rating_descriptor with a partial entry");
}

std::vector<std::string> decode_boundaries(Bytes b, Skipped* skipped) {
    std::vector<std::string> out;
    if (!b.has(1)) return out;
    const uint8_t count = b.u8();
    for (int i = 0; i < count; ++i) {
        if (!b.has(1) || !b.has(1u + b.peek())) {
            note(skipped, "AIT simple_application_boundary_descriptor: a prefix runs past it");
            break;
        }
        const uint8_t length = b.u8();
        out.push_back(b.text(length));
    }
    return out;
}

}  // namespace

bool decode_ait(const uint8_t* data, std::size_t size, AitRecord* out, Skipped* skipped) {
    // The CRC is checked here too, so the function is safe on any bytes;
    // the common descriptors length follows the common header.
    detail::PsiSection checked(data, size, "AIT", 0x74, 0x74, 11, skipped);
    if (!checked.get()) return false;
    const SectionHeader& h = checked.header();
    AitRecord ait;
    ait.test = (data[3] & 0x80) != 0;
    ait.app_type = ((data[3] & 0x7F) << 8) | data[4];
    ait.version = h.version;
    ait.current = h.current;
    ait.number = h.number;
    ait.last_number = h.last_number;
    const std::size_t end = static_cast<std::size_t>(h.length) + 3 - 4;
    ait.crc = (static_cast<uint32_t>(data[end]) << 24) | (static_cast<uint32_t>(data[end + 1]) << 16) |
              (static_cast<uint32_t>(data[end + 2]) << 8) | data[end + 3];
    Bytes body(data + 8, end - 8);
    std::size_t common = body.u16() & 0x0FFF;
    if (!body.has(common)) {
        note(skipped, "AIT common descriptor loop runs past the section");
        common = body.left();
    }
    for_each_descriptor(body.take(common), common, "common loop", skipped,
                        [&](uint8_t tag, Bytes d) {
                            switch (tag) {
                                case 0x02: {
                                    AitTransport t;
                                    if (decode_transport(d, &t, skipped))
                                        ait.common_transports.push_back(std::move(t));
                                    break;
                                }
                                case 0x16:
                                    if (d.has(1)) ait.common_usage_types.push_back(d.u8());
                                    break;
                                case 0x55: decode_ratings(d, &ait.common_ratings, skipped); break;
                                default: ait.common_other_tags.push_back(tag);
                            }
                        });
    if (!body.has(2)) {
        note(skipped, "AIT section without its application loop");
        *out = std::move(ait);
        return true;
    }
    std::size_t loop = body.u16() & 0x0FFF;
    if (!body.has(loop)) {
        note(skipped, "AIT application loop runs past the section");
        loop = body.left();
    }
    Bytes apps(body.take(loop), loop);
    while (apps.left() > 0) {
        if (!apps.has(9)) {
            note(skipped, "AIT application loop ends in a partial application");
            break;
        }
        AitApplication app;
        app.org_id = apps.u32();
        app.app_id = apps.u16();
        app.control_code = apps.u8();
        std::size_t length = apps.u16() & 0x0FFF;
        if (!apps.has(length)) {
            note(skipped, "AIT application " + hex(app.org_id) + "/" + hex(app.app_id) +
                              ": descriptor loop runs past the application loop");
            length = apps.left();
        }
        for_each_descriptor(apps.take(length), length, "application loop", skipped,
                            [&](uint8_t tag, Bytes d) {
                                switch (tag) {
                                    case 0x00: decode_application_descriptor(d, &app, skipped); break;
                                    case 0x01: decode_names(d, &app.names, skipped); break;
                                    case 0x02: {
                                        AitTransport t;
                                        if (decode_transport(d, &t, skipped))
                                            app.transports.push_back(std::move(t));
                                        break;
                                    }
                                    case 0x15:
                                        app.has_location = true;
                                        app.location = d.text(d.left());
                                        break;
                                    case 0x16:
                                        if (d.has(1)) app.usage_types.push_back(d.u8());
                                        break;
                                    case 0x17: {
                                        const auto prefixes = decode_boundaries(d, skipped);
                                        app.boundaries.insert(app.boundaries.end(), prefixes.begin(), prefixes.end());
                                        break;
                                    }
                                    case 0x55: decode_ratings(d, &app.ratings, skipped); break;
                                    default: app.other_tags.push_back(tag);
                                }
                            });
        ait.apps.push_back(std::move(app));
    }
    *out = std::move(ait);
    return true;
}

std::string control_code_name(int code) {
    static const char* const kNames[] = {nullptr,  "AUTOSTART", "PRESENT",  "DESTROY",
                                         "KILL",   "PREFETCH",  "REMOTE",   "DISABLED",
                                         "PLAYBACK_AUTOSTART"};
    if (code >= 1 && code <= 8) return kNames[code];
    return hex(static_cast<unsigned>(code), 2);
}

namespace {

const AitTransport* transport_with_label(const AitRecord& ait, const AitApplication& app, int label) {
    for (const auto& t : app.transports)
        if (t.label == label) return &t;
    for (const auto& t : ait.common_transports)
        if (t.label == label) return &t;
    return nullptr;
}

bool usable(const AitTransport& t) {
    return (t.protocol_id == 3 && !t.urls.empty()) || (t.protocol_id == 1 && t.component_tag >= 0);
}

std::string transport_text(const AitTransport& t) {
    std::string out;
    if (t.protocol_id == 3) {
        out = "http:" + std::to_string(t.label);
    } else if (t.protocol_id == 1) {
        out = "oc:" + std::to_string(t.label);
        if (t.component_tag >= 0) out += "/" + hex(static_cast<unsigned>(t.component_tag), 2);
        if (t.remote) out += "@" + hex(t.onid) + "." + hex(t.tsid) + "." + hex(t.sid);
    } else {
        out = hex(static_cast<unsigned>(t.protocol_id), 4) + ":" + std::to_string(t.label);
    }
    return out;
}

}  // namespace

std::string entry_url(const AitRecord& ait, const AitApplication& app, const Triplet& own,
                      bool broadband, const AitTransport** chosen) {
    // The candidate transports in signalling order: those the application
    // descriptor's labels name, else every transport of the application
    // and then of the common loop.
    std::vector<const AitTransport*> order;
    if (!app.labels.empty()) {
        for (int label : app.labels)
            if (const AitTransport* t = transport_with_label(ait, app, label)) order.push_back(t);
    } else {
        for (const auto& t : app.transports) order.push_back(&t);
        for (const auto& t : ait.common_transports) order.push_back(&t);
    }
    const AitTransport* pick = nullptr;
    if (!broadband) {
        for (const AitTransport* t : order)
            if (t->protocol_id == 1 && usable(*t)) {
                pick = t;
                break;
            }
    }
    if (pick == nullptr) {
        for (const AitTransport* t : order)
            if (usable(*t)) {
                pick = t;
                break;
            }
    }
    if (chosen) *chosen = pick;
    if (pick == nullptr) return "";
    if (pick->protocol_id == 3) return pick->urls.front().base + app.location;
    const int onid = pick->remote ? pick->onid : own.onid;
    const int tsid = pick->remote ? pick->tsid : own.tsid;
    const int sid = pick->remote ? pick->sid : own.sid;
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "dvb://%x.%x.%x.%x/", static_cast<unsigned>(onid),
                  static_cast<unsigned>(tsid), static_cast<unsigned>(sid),
                  static_cast<unsigned>(pick->component_tag));
    std::string location = app.location;
    while (!location.empty() && location.front() == '/') location.erase(0, 1);
    return prefix + location;
}

std::string dump_ait_app(const AitRecord& ait, const AitApplication& app, const Triplet& own) {
    std::string line = "app org=" + hex(app.org_id) + " app=" + hex(app.app_id) +
                       " control=" + control_code_name(app.control_code);
    line += " url=" + entry_url(ait, app, own, true);
    line += " name=" + detail::quoted(app.names.empty() ? std::string() : app.names.front().text);
    if (!app.profiles.empty()) {
        const AitProfile& p = app.profiles.front();
        line += " profile=" + hex(static_cast<unsigned>(p.profile)) + " version=" +
                std::to_string(p.major) + "." + std::to_string(p.minor) + "." + std::to_string(p.micro);
    }
    if (app.has_descriptor) {
        line += " priority=" + std::to_string(app.priority) +
                " visibility=" + std::to_string(app.visibility) +
                " service_bound=" + std::to_string(app.service_bound ? 1 : 0);
    }
    std::string transports;
    for (int label : app.labels)
        if (const AitTransport* t = transport_with_label(ait, app, label))
            transports += (transports.empty() ? "" : ",") + transport_text(*t);
    if (app.labels.empty())
        for (const auto& t : app.transports) transports += (transports.empty() ? "" : ",") + transport_text(t);
    if (!transports.empty()) line += " transports=" + transports;
    for (int usage : app.usage_types) line += " usage=" + hex(static_cast<unsigned>(usage), 2);
    for (const auto& r : app.ratings) line += " rating=" + r.country + ":" + std::to_string(r.rating);
    return line;
}

std::string dump_ait(const AitRecord& ait) {
    std::string out;
    char line[160];
    std::snprintf(line, sizeof line, "AIT type=0x%04x test=%d version=%u section=%u/%u crc=0x%08x\n",
                  static_cast<unsigned>(ait.app_type), ait.test ? 1 : 0, ait.version, ait.number,
                  ait.last_number, ait.crc);
    out += line;
    auto transport = [&](const AitTransport& t, const char* indent) {
        out += indent + std::string("transport protocol=") + hex(static_cast<unsigned>(t.protocol_id), 4) +
               " label=" + std::to_string(t.label);
        if (t.protocol_id == 1) {
            if (t.remote) out += " remote=" + hex(t.onid) + "." + hex(t.tsid) + "." + hex(t.sid);
            if (t.component_tag >= 0) out += " component_tag=" + hex(static_cast<unsigned>(t.component_tag), 2);
        }
        out += "\n";
        for (const auto& u : t.urls) {
            out += indent + std::string("  url_base=") + detail::quoted(u.base) + "\n";
            for (const auto& e : u.extensions)
                out += indent + std::string("    extension=") + detail::quoted(e) + "\n";
        }
    };
    auto ratings = [&](const std::vector<ParentalRating>& list, const char* indent) {
        for (const auto& r : list)
            out += indent + std::string("parental_rating country=") + r.country +
                   " rating=" + std::to_string(r.rating) + "\n";
    };
    auto others = [&](const std::vector<int>& tags, const char* indent) {
        if (tags.empty()) return;
        out += indent + std::string("not decoded:");
        for (int tag : tags) out += " " + hex(static_cast<unsigned>(tag), 2);
        out += "\n";
    };
    for (const auto& t : ait.common_transports) transport(t, "  common ");
    for (int usage : ait.common_usage_types)
        out += "  common usage=" + hex(static_cast<unsigned>(usage), 2) + "\n";
    ratings(ait.common_ratings, "  common ");
    others(ait.common_other_tags, "  common ");
    for (const auto& app : ait.apps) {
        out += "  application org=" + hex(app.org_id) + " app=" + hex(app.app_id) +
               " control=" + control_code_name(app.control_code) + "\n";
        for (const auto& p : app.profiles)
            out += "    profile=" + hex(static_cast<unsigned>(p.profile), 4) + " version=" +
                   std::to_string(p.major) + "." + std::to_string(p.minor) + "." +
                   std::to_string(p.micro) + "\n";
        if (app.has_descriptor) {
            out += "    service_bound=" + std::to_string(app.service_bound ? 1 : 0) +
                   " visibility=" + std::to_string(app.visibility) +
                   " priority=" + std::to_string(app.priority) + " labels=";
            for (std::size_t i = 0; i < app.labels.size(); ++i)
                out += (i ? "," : "") + std::to_string(app.labels[i]);
            out += "\n";
        }
        for (const auto& n : app.names) out += "    name lang=" + n.language + " " + detail::quoted(n.text) + "\n";
        for (const auto& t : app.transports) transport(t, "    ");
        if (app.has_location) out += "    location=" + detail::quoted(app.location) + "\n";
        for (const auto& b : app.boundaries) out += "    boundary=" + detail::quoted(b) + "\n";
        for (int usage : app.usage_types) out += "    usage=" + hex(static_cast<unsigned>(usage), 2) + "\n";
        ratings(app.ratings, "    ");
        others(app.other_tags, "    ");
    }
    return out;
}

}  // namespace ts
