// DSM-CC in a transport stream: the object carousel (download sections
// 0x3B/0x3C, modules, BIOP objects) and the stream descriptors of table 0x3D
// (stream events, NPT).
//
// Layers, bottom to top:
// - section decoders: pure functions from one whole section (header to CRC,
//   as the demultiplexer hands it over, CRC already checked) to a record plus
//   the list of what was skipped and why; each record has a text dump;
// - module assembly: the blocks of a module in any order, checked against
//   what the DII announced, inflated when compressed, never more memory than
//   the module's stated size;
// - BIOP: the objects a module carries (service gateway, directories, files,
//   streams, stream events);
// - ObjectCarousel: all of it for one PID, and the tree of named objects it
//   makes, with the modules that changed version;
// - StreamEventWatch: the events of 0x3D sections that are new.
// Nothing here keeps a pointer into a section after the call returns, and
// nothing reads outside the bytes it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tsdecode::dsmcc {

using Bytes = std::vector<std::uint8_t>;
// What a decoder left out, and why: one line per item.
using Skipped = std::vector<std::string>;

// The result of a decoder: `ok` false means nothing usable came out
// (`skipped` says why); `ok` true may still list parts that were skipped.
template <typename T>
struct Decoded {
    bool ok = false;
    T value{};
    Skipped skipped;
};

constexpr std::uint8_t kTableDownloadControl = 0x3B;    // DSI and DII
constexpr std::uint8_t kTableDownloadData = 0x3C;       // DDB
constexpr std::uint8_t kTableStreamDescriptors = 0x3D;  // stream events, NPT

// ---- sections -------------------------------------------------------------

struct SectionHeader {
    std::uint8_t table_id = 0;
    std::uint16_t table_id_extension = 0;
    std::uint8_t version = 0;
    bool current_next = false;
    std::uint8_t section_number = 0;
    std::uint8_t last_section_number = 0;
    std::size_t payload_offset = 0;  // from the section start
    std::size_t payload_length = 0;  // up to the CRC (or checksum)
};
Decoded<SectionHeader> decode_section_header(const std::uint8_t* section, std::size_t length);

// ---- download messages (0x3B, 0x3C) -----------------------------------------

constexpr std::uint16_t kMessageDii = 0x1002;
constexpr std::uint16_t kMessageDdb = 0x1003;
constexpr std::uint16_t kMessageDsi = 0x1006;

// Tap uses that matter here.
constexpr std::uint16_t kTapDeliveryParameters = 0x0016;  // the DII of a carousel
constexpr std::uint16_t kTapObject = 0x0017;              // the DDBs of a module
constexpr std::uint16_t kTapStreamNpt = 0x000B;
constexpr std::uint16_t kTapStreamStatusAndEvent = 0x000C;
constexpr std::uint16_t kTapStreamEvent = 0x000D;
constexpr std::uint16_t kTapStreamStatus = 0x000E;

struct Tap {
    std::uint16_t id = 0;
    std::uint16_t use = 0;
    std::uint16_t association_tag = 0;
    Bytes selector;
};

// An object reference (IOR) with its BIOP profile: where the object is
// (carousel, module, key) and the taps that lead to it.
struct ObjectRef {
    std::string kind;  // "srg", "dir", "fil", "str", "ste" (long type ids mapped to these)
    bool located = false;
    std::uint32_t carousel_id = 0;
    std::uint16_t module_id = 0;
    std::uint8_t version_major = 0;
    std::uint8_t version_minor = 0;
    Bytes object_key;
    std::vector<Tap> taps;
};

struct Dsi {
    std::uint32_t transaction_id = 0;
    ObjectRef service_gateway;
};

struct ModuleInfo {
    std::uint16_t module_id = 0;
    std::uint32_t size = 0;  // as carried (compressed size for a compressed module)
    std::uint8_t version = 0;
    std::uint32_t module_timeout = 0;
    std::uint32_t block_timeout = 0;
    std::uint32_t min_block_time = 0;
    std::vector<Tap> taps;
    bool compressed = false;
    std::uint8_t compression_method = 0;
    std::uint32_t original_size = 0;  // compressed modules: the inflated size
};

struct Dii {
    std::uint32_t transaction_id = 0;
    std::uint32_t download_id = 0;
    std::uint16_t block_size = 0;
    std::vector<ModuleInfo> modules;
};

struct Ddb {
    std::uint32_t download_id = 0;
    std::uint16_t module_id = 0;
    std::uint8_t module_version = 0;
    std::uint16_t block_number = 0;
    Bytes data;
};

// The message id of a download section (0x3B or 0x3C), 0 when it has none.
std::uint16_t download_message_id(const std::uint8_t* section, std::size_t length);
Decoded<Dsi> decode_dsi(const std::uint8_t* section, std::size_t length);
Decoded<Dii> decode_dii(const std::uint8_t* section, std::size_t length);
Decoded<Ddb> decode_ddb(const std::uint8_t* section, std::size_t length);
std::string dump(const Dsi& dsi);
std::string dump(const Dii& dii);
std::string dump(const Ddb& ddb);

// ---- modules ------------------------------------------------------------------

// Collects the blocks of one module version. Memory grows only with the
// blocks that arrived and never beyond the module's stated size.
class ModuleAssembler {
public:
    ModuleAssembler(const ModuleInfo& module, std::uint16_t block_size);

    enum class Result { Added, Repeated, Refused };
    // `why` (may be null) receives the reason of a refusal.
    Result add(const Ddb& block, std::string* why);
    bool complete() const { return received_blocks_ == blocks_.size(); }
    std::size_t received_blocks() const { return received_blocks_; }
    std::size_t total_blocks() const { return blocks_.size(); }
    std::size_t received_bytes() const { return received_bytes_; }
    // The module's bytes in block order; empty until complete.
    Bytes assemble() const;

private:
    ModuleInfo module_;
    std::uint16_t block_size_ = 0;
    std::vector<Bytes> blocks_;
    std::vector<bool> present_;
    std::size_t received_blocks_ = 0;
    std::size_t received_bytes_ = 0;
};

// Inflates a compressed module (zlib). It must inflate to exactly
// `stated_size` bytes: more is refused as soon as it shows, without
// inflating further.
Decoded<Bytes> inflate_module(const std::uint8_t* data, std::size_t size, std::size_t stated_size);

// ---- BIOP objects -----------------------------------------------------------------

struct Binding {
    std::string name;
    std::string kind;
    std::uint8_t binding_type = 0;  // 1 object, 2 context
    ObjectRef ref;
};

struct BiopObject {
    Bytes key;
    std::string kind;                      // "srg", "dir", "fil", "str", "ste"
    std::vector<Binding> bindings;         // srg, dir
    Bytes content;                         // fil
    std::vector<std::string> event_names;  // ste
    std::vector<std::uint16_t> event_ids;  // ste, in the order of the names
    std::vector<Tap> taps;                 // str, ste
};

// The BIOP messages of a whole module, in order. A message that does not fit
// ends the walk (the messages before it are kept); objects of an unknown
// kind are skipped.
Decoded<std::vector<BiopObject>> decode_biop_module(const std::uint8_t* data, std::size_t size);
std::string dump(const BiopObject& object);

// ---- the carousel of one PID ---------------------------------------------------------

struct CarouselLimits {
    std::size_t max_module_size = 16u << 20;    // stated or inflated
    std::size_t max_carousel_bytes = 64u << 20; // blocks held plus module contents
    std::size_t max_early_block_bytes = 4u << 20; // DDBs that came before their DII
    std::size_t max_depth = 32;                 // directory levels
    std::size_t max_entries = 65536;            // named objects in the tree
};

struct CarouselEntry {
    enum class Kind { Directory, File, Stream, StreamEvent };
    Kind kind = Kind::File;
    std::string path;  // "" for the service gateway, "dir/name" below it
    std::uint16_t module_id = 0;
    std::uint8_t module_version = 0;
    std::shared_ptr<const BiopObject> object;  // content, events and taps
};
const char* kind_name(CarouselEntry::Kind kind);

struct CarouselTree {
    bool has_gateway = false;  // false until DSI and the gateway's module arrived
    std::uint32_t carousel_id = 0;
    // The association tag the carousel's own taps name (its component tag
    // when the broadcaster follows the usual rule), -1 when none does.
    int association_tag = -1;
    std::vector<CarouselEntry> entries;  // depth first, in carousel order
    // Objects that are bound in a directory but whose module has not
    // arrived (complete) yet, as "path (module N)".
    std::vector<std::string> missing;
    // Bindings left out of the tree and why (unusable names, cycles,
    // objects of another carousel, limits).
    Skipped skipped;
};

struct ModuleChange {
    std::uint16_t module_id = 0;
    std::uint8_t version = 0;
    bool replaced = false;      // an earlier version was complete before
    bool directories = false;   // it carries a directory or the service gateway
};

struct CarouselCounts {
    std::uint64_t sections = 0;
    std::uint64_t dsi = 0;
    std::uint64_t dii = 0;
    std::uint64_t ddb = 0;
    std::uint64_t modules_complete = 0;  // module versions assembled and decoded
    std::uint64_t modules_replaced = 0;  // ... of which replaced an earlier version
    std::uint64_t skipped = 0;           // every skip below, each logged once per cause
};

// Everything on one PID's download sections: the DSI, the DIIs and the
// modules their DDBs assemble. Not thread-safe; one owner feeds it.
class ObjectCarousel {
public:
    using Log = std::function<void(const std::string& line)>;
    explicit ObjectCarousel(int pid, CarouselLimits limits = {}, Log log = {});
    ~ObjectCarousel();
    ObjectCarousel(const ObjectCarousel&) = delete;
    ObjectCarousel& operator=(const ObjectCarousel&) = delete;

    int pid() const;
    // One whole section of table 0x3B or 0x3C; others are counted and
    // skipped. Returns the module versions this section completed.
    std::vector<ModuleChange> feed(const std::uint8_t* section, std::size_t length);
    // The named objects reachable from the service gateway now.
    CarouselTree tree() const;
    CarouselCounts counts() const;
    // Modules a DII announced that are not complete, as
    // "module N version V: B of T blocks", for the end of a capture.
    std::vector<std::string> incomplete_modules() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

// ---- stream descriptors (0x3D) ----------------------------------------------------------

constexpr std::uint8_t kDescriptorNptReference = 0x17;
constexpr std::uint8_t kDescriptorNptEndpoint = 0x18;
constexpr std::uint8_t kDescriptorStreamMode = 0x19;
constexpr std::uint8_t kDescriptorStreamEvent = 0x1A;

struct StreamDescriptor {
    std::uint8_t tag = 0;
    // NPT reference
    bool post_discontinuity = false;
    std::uint8_t content_id = 0;
    std::uint64_t stc_reference = 0;
    std::uint64_t npt_reference = 0;
    std::uint16_t scale_numerator = 0;
    std::uint16_t scale_denominator = 0;
    // NPT endpoint
    std::uint64_t start_npt = 0;
    std::uint64_t stop_npt = 0;
    // stream mode
    std::uint8_t stream_mode = 0;
    // stream event
    std::uint16_t event_id = 0;
    std::uint64_t event_npt = 0;
    Bytes private_data;
};

struct StreamDescriptorSection {
    SectionHeader header;
    std::vector<StreamDescriptor> descriptors;  // the four kinds above, in order
};
Decoded<StreamDescriptorSection> decode_stream_descriptors(const std::uint8_t* section,
                                                           std::size_t length);
std::string dump(const StreamDescriptorSection& section);

struct StreamEvent {
    int pid = 0;
    std::uint16_t table_id_extension = 0;
    std::uint8_t version = 0;
    std::uint16_t event_id = 0;
    std::uint64_t npt = 0;
    Bytes data;
};
// "streamevent pid=0x138f event=1 npt=0x000000000 data=48656c6c6f version=0"
std::string event_line(const StreamEvent& event);

// Tells new events from repeats: a 0x3D section brings new events when it
// differs from the last one seen on its PID and table id extension (a new
// version, or new content under the same version). Repeated sections, as a
// broadcast sends them several times, bring none.
class StreamEventWatch {
public:
    std::vector<StreamEvent> feed(int pid, const StreamDescriptorSection& section,
                                  const std::uint8_t* bytes, std::size_t length);

private:
    std::map<std::pair<int, std::uint16_t>, Bytes> last_;
};

}  // namespace tsdecode::dsmcc
