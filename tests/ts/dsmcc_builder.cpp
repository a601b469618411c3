#include "dsmcc_builder.h"

#include <zlib.h>

#include <map>

#include "ts_decode.h"
#include "ts_test_support.h"

namespace appmgr::test::build {

namespace {

void put8(Bytes& b, unsigned v) { b.push_back(static_cast<std::uint8_t>(v)); }
void put16(Bytes& b, unsigned v) {
    put8(b, v >> 8);
    put8(b, v);
}
void put32(Bytes& b, std::uint32_t v) {
    put16(b, v >> 16);
    put16(b, v & 0xFFFF);
}
void append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
Bytes kind_bytes(const std::string& kind) {
    Bytes b = text(kind);
    b.push_back(0);
    return b;
}

// A section of the given table around a payload, CRC included.
Bytes section(std::uint8_t table, std::uint16_t extension, std::uint8_t version, std::uint8_t number,
              const Bytes& payload) {
    Bytes s;
    const std::size_t length = 5 + payload.size() + 4;
    put8(s, table);
    put16(s, 0xB000 | static_cast<unsigned>(length));
    put16(s, extension);
    put8(s, 0xC1 | (version & 0x1F) << 1);
    put8(s, number);
    put8(s, 0);
    append(s, payload);
    s.resize(s.size() + 4);
    set_crc(s);
    return s;
}

Bytes message(std::uint16_t id, std::uint32_t transaction, const Bytes& body) {
    Bytes m;
    put8(m, 0x11);
    put8(m, 0x03);
    put16(m, id);
    put32(m, transaction);
    put8(m, 0xFF);
    put8(m, 0);
    put16(m, static_cast<unsigned>(body.size()));
    append(m, body);
    return m;
}

Bytes biop(const Bytes& key, const std::string& kind, const Bytes& info, const Bytes& body) {
    Bytes rest;
    put8(rest, static_cast<unsigned>(key.size()));
    append(rest, key);
    put32(rest, 4);
    append(rest, kind_bytes(kind));
    put16(rest, static_cast<unsigned>(info.size()));
    append(rest, info);
    put8(rest, 0);  // no service contexts
    put32(rest, static_cast<std::uint32_t>(body.size()));
    append(rest, body);
    Bytes m = text("BIOP");
    put8(m, 1);
    put8(m, 0);
    put8(m, 0);
    put8(m, 0);
    put32(m, static_cast<std::uint32_t>(rest.size()));
    append(m, rest);
    return m;
}

}  // namespace

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

Bytes deflate(const Bytes& data) {
    uLongf size = compressBound(static_cast<uLong>(data.size()));
    Bytes out(size);
    compress(out.data(), &size, data.data(), static_cast<uLong>(data.size()));
    out.resize(size);
    return out;
}

Bytes ior(const Ref& ref) {
    Bytes location;
    put32(location, 0x49534F50);
    put8(location, 9 + static_cast<unsigned>(ref.key.size()));
    put32(location, ref.carousel);
    put16(location, ref.module);
    put8(location, 1);
    put8(location, 0);
    put8(location, static_cast<unsigned>(ref.key.size()));
    append(location, ref.key);
    Bytes binder;
    put32(binder, 0x49534F40);
    put8(binder, 18);
    put8(binder, 1);
    put16(binder, 0);
    put16(binder, 0x0016);
    put16(binder, ref.tag);
    put8(binder, 10);
    put16(binder, 1);
    put32(binder, 0x80000002);
    put32(binder, 0xFFFFFFFF);
    Bytes profile;
    put8(profile, 0);
    put8(profile, 2);
    append(profile, location);
    append(profile, binder);
    Bytes out;
    put32(out, 4);
    append(out, kind_bytes(ref.kind));
    put32(out, 1);
    put32(out, 0x49534F06);
    put32(out, static_cast<std::uint32_t>(profile.size()));
    append(out, profile);
    return out;
}

Bytes directory(const std::string& kind, const Bytes& key, const std::vector<Bind>& bindings) {
    Bytes body;
    put16(body, static_cast<unsigned>(bindings.size()));
    for (const Bind& b : bindings) {
        put8(body, 1);
        Bytes name = text(b.name);
        name.push_back(0);
        put8(body, static_cast<unsigned>(name.size()));
        append(body, name);
        put8(body, 4);
        append(body, kind_bytes(b.ref.kind));
        put8(body, 1);
        append(body, ior(b.ref));
        put16(body, 0);
    }
    return biop(key, kind, {}, body);
}

Bytes file(const Bytes& key, const Bytes& content) {
    Bytes info(8, 0);
    for (int i = 0; i < 8; ++i) info[7 - i] = static_cast<std::uint8_t>(content.size() >> (8 * i));
    Bytes body;
    put32(body, static_cast<std::uint32_t>(content.size()));
    append(body, content);
    return biop(key, "fil", info, body);
}

Bytes stream_event(const Bytes& key, const std::vector<std::string>& names,
                   const std::vector<std::uint16_t>& ids, std::uint16_t tag) {
    Bytes info;
    put8(info, 0);          // no description
    put32(info, 0);         // duration
    put32(info, 0);
    put8(info, 0);          // audio, video, data
    put8(info, 0);
    put8(info, 0);
    put16(info, static_cast<unsigned>(names.size()));
    for (const std::string& n : names) {
        put8(info, static_cast<unsigned>(n.size()) + 1);
        append(info, text(n));
        put8(info, 0);
    }
    Bytes body;
    put8(body, 1);
    put16(body, 0);
    put16(body, 0x000D);
    put16(body, tag);
    put8(body, 0);
    put8(body, static_cast<unsigned>(ids.size()));
    for (std::uint16_t id : ids) put16(body, id);
    return biop(key, "ste", info, body);
}

Bytes dsi(const Ref& gateway) {
    Bytes body(20, 0xFF);
    put16(body, 0);
    Bytes info = ior(gateway);
    put8(info, 0);   // download taps
    put8(info, 0);   // service contexts
    put16(info, 0);  // user info
    put16(body, static_cast<unsigned>(info.size()));
    append(body, info);
    return section(0x3B, 0, 0, 0, message(0x1006, 0x80000000, body));
}

Bytes dii(std::uint32_t download_id, std::uint16_t block_size, const std::vector<Module>& modules) {
    Bytes body;
    put32(body, download_id);
    put16(body, block_size);
    put8(body, 0);
    put8(body, 0);
    put32(body, 0);
    put32(body, 0);
    put16(body, 0);
    put16(body, static_cast<unsigned>(modules.size()));
    for (const Module& m : modules) {
        Bytes info;
        put32(info, 0xFFFFFFFF);
        put32(info, 0xFFFFFFFF);
        put32(info, 0);
        put8(info, 1);
        put16(info, 0);
        put16(info, 0x0017);
        put16(info, 0x17);
        put8(info, 0);
        if (m.compressed) {
            put8(info, 7);
            put8(info, 0x09);
            put8(info, 5);
            put8(info, 0x08);
            put32(info, m.original_size);
        } else {
            put8(info, 0);
        }
        put16(body, m.id);
        put32(body, m.size);
        put8(body, m.version);
        put8(body, static_cast<unsigned>(info.size()));
        append(body, info);
    }
    put16(body, 0);
    return section(0x3B, 3, 0, 0, message(0x1002, 0x80000003, body));
}

Bytes ddb(std::uint32_t download_id, std::uint16_t module, std::uint8_t version, std::uint16_t block,
          const Bytes& data) {
    Bytes body;
    put16(body, module);
    put8(body, version);
    put8(body, 0xFF);
    put16(body, block);
    append(body, data);
    return section(0x3C, module, version, static_cast<std::uint8_t>(block),
                   message(0x1003, download_id, body));
}

std::vector<Bytes> ddbs(std::uint32_t download_id, std::uint16_t module, std::uint8_t version,
                        std::uint16_t block_size, const Bytes& content) {
    std::vector<Bytes> out;
    for (std::size_t at = 0, n = 0; at < content.size(); at += block_size, ++n) {
        const std::size_t end = std::min(content.size(), at + block_size);
        out.push_back(ddb(download_id, module, version, static_cast<std::uint16_t>(n),
                          Bytes(content.begin() + static_cast<long>(at), content.begin() + static_cast<long>(end))));
    }
    return out;
}

Bytes stream_event_section(std::uint16_t table_id_extension, std::uint8_t version, std::uint16_t event_id,
                           std::uint64_t npt, const Bytes& data) {
    Bytes payload;
    put8(payload, 0x1A);
    put8(payload, 10 + static_cast<unsigned>(data.size()));
    put16(payload, event_id);
    put32(payload, 0xFFFFFFFE | static_cast<std::uint32_t>((npt >> 32) & 1));
    put32(payload, static_cast<std::uint32_t>(npt));
    append(payload, data);
    return section(0x3D, table_id_extension, version, 0, payload);
}

Bytes pat(std::uint16_t tsid, std::uint16_t program, std::uint16_t pmt_pid) {
    Bytes payload;
    put16(payload, program);
    put16(payload, 0xE000 | pmt_pid);
    return section(0x00, tsid, 0, 0, payload);
}

Bytes pmt(std::uint16_t program, const std::vector<Component>& components) {
    Bytes payload;
    put16(payload, 0xE000 | 0x1FFF);  // no PCR
    put16(payload, 0xF000);           // no program descriptors
    for (const Component& c : components) {
        put8(payload, c.stream_type);
        put16(payload, 0xE000 | c.pid);
        if (c.tag >= 0) {
            put16(payload, 0xF000 | 3);
            put8(payload, 0x52);
            put8(payload, 1);
            put8(payload, static_cast<unsigned>(c.tag));
        } else {
            put16(payload, 0xF000);
        }
    }
    return section(0x02, program, 0, 0, payload);
}

Bytes transport_stream(const std::vector<std::pair<std::uint16_t, Bytes>>& sections) {
    Bytes out;
    std::map<std::uint16_t, std::uint8_t> counters;
    for (const auto& [pid, s] : sections) {
        const Bytes packets = ts::packetize_section(pid, s.data(), s.size(), &counters[pid]);
        out.insert(out.end(), packets.begin(), packets.end());
    }
    return out;
}

void set_crc(Bytes& s) { tstest::seal(&s); }

}  // namespace appmgr::test::build
