// BIOP messages: the objects an object-carousel module carries, one message
// after the other. Service gateways and directories bind names to object
// references, files carry their bytes, stream and stream-event objects carry
// taps (and, for stream events, the names and ids of their events).
#include <sstream>

#include "dsmcc_internal.h"
#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

namespace {

constexpr uint32_t kBiopMagic = 0x42494F50;  // "BIOP"

// A text with its terminating zero byte (names, kinds, event names).
std::string zero_terminated(const Bytes& bytes) {
    std::string text(bytes.begin(), bytes.end());
    if (!text.empty() && text.back() == '\0') text.pop_back();
    return text;
}

bool read_bindings(Reader& body, BiopObject& object, Skipped& skipped, const std::string& where) {
    uint16_t count = 0;
    if (!body.u16(count)) {
        skipped.push_back(where + ": bindings count missing");
        return false;
    }
    for (unsigned i = 0; i < count; ++i) {
        Binding binding;
        uint8_t components = 0;
        body.u8(components);
        std::vector<std::pair<std::string, std::string>> names;
        for (unsigned c = 0; c < components && !body.failed(); ++c) {
            uint8_t id_length = 0, kind_length = 0;
            Bytes id, kind;
            body.u8(id_length);
            body.bytes(id_length, id);
            body.u8(kind_length);
            body.bytes(kind_length, kind);
            names.emplace_back(zero_terminated(id), zero_terminated(kind));
        }
        body.u8(binding.binding_type);
        if (body.failed()) {
            skipped.push_back(where + ": binding " + std::to_string(i) + " runs past the message");
            return false;
        }
        if (!read_object_ref(body, binding.ref, skipped)) {
            skipped.push_back(where + ": binding " + std::to_string(i) + " has a bad object reference");
            return false;
        }
        uint16_t info_length = 0;
        body.u16(info_length);
        if (body.failed() || !body.skip(info_length)) {
            skipped.push_back(where + ": binding " + std::to_string(i) + " runs past the message");
            return false;
        }
        // Carousels bind one name component per binding; a compound name
        // cannot be placed in the tree.
        if (names.size() != 1) {
            skipped.push_back(where + ": binding " + std::to_string(i) + " with " +
                              std::to_string(names.size()) + " name components skipped");
            continue;
        }
        binding.name = names[0].first;
        binding.kind = names[0].second;
        object.bindings.push_back(std::move(binding));
    }
    return true;
}

bool read_taps(Reader& r, std::vector<Tap>& taps) {
    uint8_t count = 0;
    if (!r.u8(count)) return false;
    for (unsigned i = 0; i < count; ++i) {
        Tap tap;
        if (!read_tap(r, tap)) return false;
        taps.push_back(std::move(tap));
    }
    return true;
}

// DSM::Stream::Info_T, which starts the object info of stream and
// stream-event objects: a description, a duration and three flags.
bool skip_stream_info(Reader& info) {
    uint8_t description_length = 0;
    info.u8(description_length);
    info.skip(description_length);
    info.skip(4 + 4 + 3);
    return !info.failed();
}

bool read_stream_event(Reader& info, Reader& body, BiopObject& object, Skipped& skipped,
                       const std::string& where) {
    uint16_t name_count = 0;
    if (!skip_stream_info(info) || !info.u16(name_count)) {
        skipped.push_back(where + ": stream-event info cut short");
        return false;
    }
    for (unsigned i = 0; i < name_count; ++i) {
        uint8_t length = 0;
        Bytes name;
        info.u8(length);
        if (!info.bytes(length, name)) {
            skipped.push_back(where + ": event name " + std::to_string(i) + " runs past the object info");
            return false;
        }
        object.event_names.push_back(zero_terminated(name));
    }
    uint8_t id_count = 0;
    if (!read_taps(body, object.taps) || !body.u8(id_count)) {
        skipped.push_back(where + ": stream-event body cut short");
        return false;
    }
    for (unsigned i = 0; i < id_count; ++i) {
        uint16_t id = 0;
        if (!body.u16(id)) {
            skipped.push_back(where + ": event ids run past the body");
            return false;
        }
        object.event_ids.push_back(id);
    }
    if (object.event_ids.size() != object.event_names.size()) {
        skipped.push_back(where + ": " + std::to_string(object.event_names.size()) + " event names but " +
                          std::to_string(object.event_ids.size()) + " event ids");
        return false;
    }
    return true;
}

// One BIOP message whose bytes (after the size field) are `message`. False
// when the object is unusable; the reason is in `skipped`.
bool read_object(Reader& message, BiopObject& object, Skipped& skipped, const std::string& where) {
    uint8_t key_length = 0, contexts = 0;
    uint32_t kind_length = 0, body_length = 0;
    uint16_t info_length = 0;
    Bytes kind;
    message.u8(key_length);
    message.bytes(key_length, object.key);
    message.u32(kind_length);
    if (message.failed() || kind_length > message.left()) {
        skipped.push_back(where + ": object kind runs past the message");
        return false;
    }
    message.bytes(kind_length, kind);
    object.kind = zero_terminated(kind);
    message.u16(info_length);
    Reader info(nullptr, 0);
    message.sub(info_length, info);
    message.u8(contexts);
    for (unsigned i = 0; i < contexts && !message.failed(); ++i) {
        uint16_t context_length = 0;
        message.skip(4);
        message.u16(context_length);
        message.skip(context_length);
    }
    message.u32(body_length);
    Reader body(nullptr, 0);
    if (message.failed() || !message.sub(body_length, body)) {
        skipped.push_back(where + ": object info or body runs past the message");
        return false;
    }
    const std::string what = where + " (" + printable(object.kind) + " key " + hex_bytes(object.key) + ")";
    if (object.kind == "srg" || object.kind == "dir") return read_bindings(body, object, skipped, what);
    if (object.kind == "fil") {
        uint32_t content_length = 0;
        if (!body.u32(content_length) || !body.bytes(content_length, object.content)) {
            skipped.push_back(what + ": file content runs past the message");
            return false;
        }
        return true;
    }
    if (object.kind == "str") {
        if (!read_taps(body, object.taps)) {
            skipped.push_back(what + ": stream taps run past the message");
            return false;
        }
        return true;
    }
    if (object.kind == "ste") return read_stream_event(info, body, object, skipped, what);
    skipped.push_back(what + ": unknown object kind skipped");
    return false;
}

}  // namespace

Decoded<std::vector<BiopObject>> decode_biop_module(const uint8_t* data, std::size_t size) {
    Decoded<std::vector<BiopObject>> out;
    Reader r(data, size);
    int index = 0;
    while (r.left() > 0) {
        const std::string where = "BIOP message " + std::to_string(index) + " at byte " +
                                  std::to_string(r.position());
        uint32_t magic = 0, message_size = 0;
        uint8_t major = 0, minor = 0, byte_order = 0, type = 0;
        r.u32(magic);
        r.u8(major);
        r.u8(minor);
        r.u8(byte_order);
        r.u8(type);
        r.u32(message_size);
        if (r.failed()) {
            out.skipped.push_back(where + ": header cut short; rest of the module skipped");
            break;
        }
        if (magic != kBiopMagic || major != 1 || byte_order != 0) {
            out.skipped.push_back(where + ": not a BIOP 1.0 big-endian message; rest of the module skipped");
            break;
        }
        Reader message(nullptr, 0);
        if (!r.sub(message_size, message)) {
            out.skipped.push_back(where + ": message size " + std::to_string(message_size) +
                                  " runs past the module; rest of the module skipped");
            break;
        }
        BiopObject object;
        if (read_object(message, object, out.skipped, where)) out.value.push_back(std::move(object));
        ++index;
    }
    out.ok = true;
    return out;
}

std::string dump(const BiopObject& object) {
    std::ostringstream s;
    s << "object kind=" << printable(object.kind) << " key=" << hex_bytes(object.key);
    if (object.kind == "fil") s << " size=" << object.content.size();
    s << "\n";
    for (const Binding& b : object.bindings)
        s << "  binding name=\"" << printable(b.name) << "\" kind=" << printable(b.kind) << " "
          << dump_object_ref(b.ref) << "\n";
    for (std::size_t i = 0; i < object.event_names.size() && i < object.event_ids.size(); ++i)
        s << "  event name=\"" << printable(object.event_names[i]) << "\" id=" << object.event_ids[i] << "\n";
    for (const Tap& tap : object.taps) s << "  " << dump_tap(tap) << "\n";
    return s.str();
}

}  // namespace ts::dsmcc
