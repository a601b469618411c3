// Download sections of an object carousel: the section header, the DSM-CC
// message header, and the three messages (DSI and DII in table 0x3B, DDB in
// table 0x3C) with the object references and taps inside them.
#include <cstdio>
#include <sstream>

#include "dsmcc_internal.h"
#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

namespace {

constexpr uint8_t kProtocolDiscriminator = 0x11;
constexpr uint8_t kDsmccTypeDownload = 0x03;
constexpr uint32_t kTagBiopProfile = 0x49534F06;
constexpr uint32_t kTagLiteOptions = 0x49534F05;
constexpr uint32_t kTagObjectLocation = 0x49534F50;
constexpr uint32_t kTagConnBinder = 0x49534F40;
constexpr uint8_t kDescriptorCompressedModule = 0x09;
constexpr std::size_t kServerIdLength = 20;

// The DSM-CC message header that starts the payload of a download section,
// and the message body that follows its adaptation field.
struct MessageHeader {
    uint16_t message_id = 0;
    uint32_t transaction_id = 0;  // the download id in a DDB
    Reader body{nullptr, 0};
};

// Reads the message header of a download section and checks that it
// starts the expected message.
bool read_message_header(const uint8_t* section, std::size_t length, uint8_t table_id, uint16_t message_id,
                         const char* message_name, MessageHeader& out, Skipped& skipped) {
    SectionHeader header;
    Reader r(nullptr, 0);
    if (!section_payload(section, length, table_id, header, r, skipped)) return false;
    uint8_t discriminator = 0, type = 0, reserved = 0, adaptation_length = 0;
    uint16_t message_length = 0;
    r.u8(discriminator);
    r.u8(type);
    r.u16(out.message_id);
    r.u32(out.transaction_id);
    r.u8(reserved);
    r.u8(adaptation_length);
    r.u16(message_length);
    if (r.failed()) {
        skipped.push_back("message header: section too short");
        return false;
    }
    if (discriminator != kProtocolDiscriminator || type != kDsmccTypeDownload) {
        skipped.push_back("message header: not a download message (protocol " + hex(discriminator, 2) +
                          ", type " + hex(type, 2) + ")");
        return false;
    }
    if (message_length > r.left()) {
        skipped.push_back("message header: message length " + std::to_string(message_length) +
                          " runs past the section (" + std::to_string(r.left()) + " bytes left)");
        return false;
    }
    if (adaptation_length > message_length) {
        skipped.push_back("message header: adaptation length " + std::to_string(adaptation_length) +
                          " exceeds the message length " + std::to_string(message_length));
        return false;
    }
    if (out.message_id != message_id) {
        skipped.push_back("message " + hex(out.message_id, 4) + " is not a " + message_name);
        return false;
    }
    r.skip(adaptation_length);
    r.sub(message_length - adaptation_length, out.body);
    return true;
}

std::string kind_of_type_id(const Bytes& type_id) {
    std::string text(type_id.begin(), type_id.end());
    while (!text.empty() && text.back() == '\0') text.pop_back();
    if (text == "DSM::ServiceGateway") return "srg";
    if (text == "DSM::Directory") return "dir";
    if (text == "DSM::File") return "fil";
    if (text == "DSM::Stream") return "str";
    if (text == "BIOP::StreamEvent") return "ste";
    return text;
}

bool read_object_location(Reader& r, ObjectRef& ref) {
    uint8_t key_length = 0;
    r.u32(ref.carousel_id);
    r.u16(ref.module_id);
    r.u8(ref.version_major);
    r.u8(ref.version_minor);
    r.u8(key_length);
    r.bytes(key_length, ref.object_key);
    ref.located = !r.failed();
    return ref.located;
}

bool read_conn_binder(Reader& r, ObjectRef& ref) {
    uint8_t count = 0;
    if (!r.u8(count)) return false;
    for (unsigned i = 0; i < count; ++i) {
        Tap tap;
        if (!read_tap(r, tap)) return false;
        ref.taps.push_back(std::move(tap));
    }
    return true;
}

bool read_biop_profile(Reader& r, ObjectRef& ref, Skipped& skipped) {
    uint8_t byte_order = 0, components = 0;
    r.u8(byte_order);
    r.u8(components);
    if (r.failed()) return false;
    if (byte_order != 0) {
        skipped.push_back("object reference: little-endian profile not supported");
        return false;
    }
    for (unsigned i = 0; i < components; ++i) {
        uint32_t tag = 0;
        uint8_t data_length = 0;
        Reader data(nullptr, 0);
        r.u32(tag);
        r.u8(data_length);
        if (!r.sub(data_length, data)) {
            skipped.push_back("object reference: component " + hex(tag, 8) + " runs past its profile");
            return false;
        }
        bool good = true;
        if (tag == kTagObjectLocation)
            good = read_object_location(data, ref);
        else if (tag == kTagConnBinder)
            good = read_conn_binder(data, ref);
        if (!good) {
            skipped.push_back("object reference: component " + hex(tag, 8) + " is cut short");
            return false;
        }
    }
    return true;
}

}  // namespace

bool read_tap(Reader& r, Tap& tap) {
    uint8_t selector_length = 0;
    r.u16(tap.id);
    r.u16(tap.use);
    r.u16(tap.association_tag);
    r.u8(selector_length);
    r.bytes(selector_length, tap.selector);
    return !r.failed();
}

// An IOP::IOR as BIOP carries it: type id (padded to four bytes), then the
// tagged profiles. Only the BIOP profile is read; an object that lives in
// another carousel (lite options profile) keeps located == false.
bool read_object_ref(Reader& r, ObjectRef& ref, Skipped& skipped) {
    uint32_t type_length = 0, profiles = 0;
    Bytes type_id;
    r.u32(type_length);
    if (r.failed() || type_length > r.left()) {
        skipped.push_back("object reference: type id runs past its message");
        return false;
    }
    r.bytes(type_length, type_id);
    if (type_length % 4 != 0) r.skip(4 - type_length % 4);
    r.u32(profiles);
    if (r.failed()) {
        skipped.push_back("object reference: cut short after the type id");
        return false;
    }
    ref.kind = kind_of_type_id(type_id);
    for (uint32_t i = 0; i < profiles; ++i) {
        uint32_t tag = 0, data_length = 0;
        Reader data(nullptr, 0);
        r.u32(tag);
        r.u32(data_length);
        if (r.failed() || !r.sub(data_length, data)) {
            skipped.push_back("object reference: profile runs past its message");
            return false;
        }
        if (tag == kTagBiopProfile) {
            if (!read_biop_profile(data, ref, skipped)) return false;
        } else if (tag == kTagLiteOptions) {
            skipped.push_back("object reference: object of another carousel (lite options) not followed");
        }
    }
    return true;
}

bool section_payload(const uint8_t* section, std::size_t length, uint8_t table_id, SectionHeader& header,
                     Reader& payload, Skipped& skipped) {
    std::string why;
    if (section == nullptr || !read_section_header(section, length, &header, &why)) {
        skipped.push_back(section == nullptr ? "no section" : why);
        return false;
    }
    if (header.table_id != table_id) {
        skipped.push_back("table id " + hex(header.table_id, 2) + " is not " + hex(table_id, 2));
        return false;
    }
    if (!header.long_form) {
        skipped.push_back("table " + hex(table_id, 2) + " section without its long header");
        return false;
    }
    // From after last_section_number up to the CRC (or checksum).
    payload = Reader(section + 8, header.length + 3u - 12u);
    return true;
}

uint16_t download_message_id(const uint8_t* section, std::size_t length) {
    if (section == nullptr || length < 12) return 0;
    if (section[0] != kTableDownloadControl && section[0] != kTableDownloadData) return 0;
    return static_cast<uint16_t>((section[10] << 8) | section[11]);
}

Decoded<Dsi> decode_dsi(const uint8_t* section, std::size_t length) {
    Decoded<Dsi> out;
    MessageHeader m;
    if (!read_message_header(section, length, kTableDownloadControl, kMessageDsi, "DSI", m, out.skipped)) return out;
    out.value.transaction_id = m.transaction_id;
    Reader& r = m.body;
    uint16_t compatibility_length = 0, private_length = 0;
    r.skip(kServerIdLength);
    r.u16(compatibility_length);
    r.skip(compatibility_length);
    r.u16(private_length);
    Reader gateway_info(nullptr, 0);
    if (r.failed() || !r.sub(private_length, gateway_info)) {
        out.skipped.push_back("DSI: fields run past the message");
        return out;
    }
    if (!read_object_ref(gateway_info, out.value.service_gateway, out.skipped)) return out;
    if (!out.value.service_gateway.located) {
        out.skipped.push_back("DSI: the service gateway has no object location");
        return out;
    }
    // Download taps, service contexts and user info follow; nothing here
    // needs them.
    out.ok = true;
    return out;
}

namespace {

// BIOP::ModuleInfo in a DII's module entry: time-outs, taps, and the
// descriptors of which only compressed_module_descriptor matters.
void read_module_info(Reader& r, ModuleInfo& module, Skipped& skipped) {
    uint8_t taps = 0, user_info_length = 0;
    r.u32(module.module_timeout);
    r.u32(module.block_timeout);
    r.u32(module.min_block_time);
    r.u8(taps);
    for (unsigned i = 0; i < taps && !r.failed(); ++i) {
        Tap tap;
        if (read_tap(r, tap)) module.taps.push_back(std::move(tap));
    }
    r.u8(user_info_length);
    Reader descriptors(nullptr, 0);
    if (r.failed() || !r.sub(user_info_length, descriptors)) {
        skipped.push_back("DII: module " + std::to_string(module.module_id) +
                          ": module info cut short");
        return;
    }
    while (descriptors.left() >= 2) {
        uint8_t tag = 0, descriptor_length = 0;
        descriptors.u8(tag);
        descriptors.u8(descriptor_length);
        Reader d(nullptr, 0);
        if (!descriptors.sub(descriptor_length, d)) {
            skipped.push_back("DII: module " + std::to_string(module.module_id) +
                              ": descriptor " + hex(tag, 2) + " runs past its loop");
            return;
        }
        if (tag == kDescriptorCompressedModule) {
            uint8_t method = 0;
            uint32_t original = 0;
            if (d.u8(method) && d.u32(original)) {
                module.compressed = true;
                module.compression_method = method;
                module.original_size = original;
            } else {
                skipped.push_back("DII: module " + std::to_string(module.module_id) +
                                  ": compressed module descriptor too short");
            }
        }
    }
}

}  // namespace

Decoded<Dii> decode_dii(const uint8_t* section, std::size_t length) {
    Decoded<Dii> out;
    MessageHeader m;
    if (!read_message_header(section, length, kTableDownloadControl, kMessageDii, "DII", m, out.skipped)) return out;
    Dii& dii = out.value;
    dii.transaction_id = m.transaction_id;
    Reader& r = m.body;
    uint8_t window = 0, ack = 0;
    uint32_t download_window = 0, scenario = 0;
    uint16_t compatibility_length = 0, count = 0;
    r.u32(dii.download_id);
    r.u16(dii.block_size);
    r.u8(window);
    r.u8(ack);
    r.u32(download_window);
    r.u32(scenario);
    r.u16(compatibility_length);
    r.skip(compatibility_length);
    r.u16(count);
    if (r.failed()) {
        out.skipped.push_back("DII: fields run past the message");
        return out;
    }
    if (dii.block_size == 0) {
        out.skipped.push_back("DII: block size 0");
        return out;
    }
    for (unsigned i = 0; i < count; ++i) {
        ModuleInfo module;
        uint8_t info_length = 0;
        r.u16(module.module_id);
        r.u32(module.size);
        r.u8(module.version);
        r.u8(info_length);
        Reader info(nullptr, 0);
        if (r.failed() || !r.sub(info_length, info)) {
            out.skipped.push_back("DII: module entry " + std::to_string(i) + " of " +
                                  std::to_string(count) + " runs past the message");
            break;
        }
        read_module_info(info, module, out.skipped);
        dii.modules.push_back(std::move(module));
    }
    out.ok = true;
    return out;
}

Decoded<Ddb> decode_ddb(const uint8_t* section, std::size_t length) {
    Decoded<Ddb> out;
    MessageHeader m;
    if (!read_message_header(section, length, kTableDownloadData, kMessageDdb, "DDB", m, out.skipped)) return out;
    Ddb& ddb = out.value;
    ddb.download_id = m.transaction_id;
    Reader& r = m.body;
    uint8_t reserved = 0;
    r.u16(ddb.module_id);
    r.u8(ddb.module_version);
    r.u8(reserved);
    r.u16(ddb.block_number);
    if (r.failed()) {
        out.skipped.push_back("DDB: header runs past the message");
        return out;
    }
    r.bytes(r.left(), ddb.data);
    out.ok = true;
    return out;
}

// ---- dumps --------------------------------------------------------------------

std::string dump_tap(const Tap& tap) {
    std::ostringstream s;
    s << "tap id=" << tap.id << " use=" << hex(tap.use, 4) << " tag=" << hex(tap.association_tag, 4);
    if (!tap.selector.empty()) s << " selector=" << hex_bytes(tap.selector);
    return s.str();
}

std::string dump_object_ref(const ObjectRef& ref) {
    std::ostringstream s;
    s << "kind=" << printable(ref.kind);
    if (ref.located)
        s << " carousel=" << hex(ref.carousel_id) << " module=" << ref.module_id
          << " key=" << hex_bytes(ref.object_key);
    for (const Tap& tap : ref.taps) s << " [" << dump_tap(tap) << "]";
    return s.str();
}

std::string dump(const Dsi& dsi) {
    return "DSI transaction=" + hex(dsi.transaction_id, 8) + "\n  gateway " +
           dump_object_ref(dsi.service_gateway) + "\n";
}

std::string dump(const Dii& dii) {
    std::ostringstream s;
    s << "DII transaction=" << hex(dii.transaction_id, 8) << " download=" << hex(dii.download_id)
      << " block_size=" << dii.block_size << " modules=" << dii.modules.size() << "\n";
    for (const ModuleInfo& m : dii.modules) {
        s << "  module " << m.module_id << " size=" << m.size << " version=" << unsigned(m.version);
        if (m.compressed)
            s << " compressed=" << hex(m.compression_method, 2) << " original_size=" << m.original_size;
        for (const Tap& tap : m.taps) s << " [" << dump_tap(tap) << "]";
        s << "\n";
    }
    return s.str();
}

std::string dump(const Ddb& ddb) {
    std::ostringstream s;
    s << "DDB download=" << hex(ddb.download_id) << " module=" << ddb.module_id
      << " version=" << unsigned(ddb.module_version) << " block=" << ddb.block_number
      << " bytes=" << ddb.data.size() << "\n";
    return s.str();
}

std::string hex(uint64_t value, int digits) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%0*llx", digits, static_cast<unsigned long long>(value));
    return buffer;
}

std::string hex_bytes(const uint8_t* data, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        out.push_back(digits[data[i] >> 4]);
        out.push_back(digits[data[i] & 0x0F]);
    }
    return out;
}

std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
            out.push_back(static_cast<char>(c));
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        }
    }
    return out;
}

}  // namespace ts::dsmcc
