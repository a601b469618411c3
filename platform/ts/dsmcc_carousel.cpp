// The object carousel of one PID: the DSI names the service gateway, DIIs
// announce modules (size, version, block size, compression), DDBs fill
// them. A module version that is complete is inflated when compressed and
// decoded into its BIOP objects; the tree of names is walked from the
// service gateway on demand.
//
// Memory is bounded three ways: a module larger than max_module_size is
// never collected, blocks that come before their DII are kept only up to
// max_early_block_bytes, and the blocks in progress plus the decoded module
// contents of the whole carousel stay under max_carousel_bytes. A complete
// module stays served while its next version is collected, as a receiver
// keeps showing the old files until the new ones are there.
#include <set>
#include <tuple>

#include "dsmcc_reader.h"
#include "ts_decode.h"

namespace ts::dsmcc {

namespace {

// Distinct skip reasons logged; a broadcast repeats its faults every cycle,
// so each reason is logged once and counted every time.
constexpr std::size_t kMaxLoggedReasons = 1000;
constexpr std::size_t kMaxNameLength = 255;

using ModuleKey = std::pair<uint32_t, uint16_t>;                            // download, module
using EarlyKey = std::tuple<uint32_t, uint16_t, uint8_t, uint16_t>;  // ... version, block

struct ModuleSlot {
    ModuleInfo info;
    uint16_t block_size = 0;
    std::unique_ptr<ModuleAssembler> assembler;  // the announced version while it is collected
    bool failed = false;                         // the announced version could not be used
    bool has_content = false;                    // a version was complete
    uint8_t content_version = 0;
    std::vector<std::shared_ptr<const BiopObject>> objects;
    std::size_t content_bytes = 0;
};

std::size_t object_bytes(const BiopObject& object) {
    std::size_t bytes = sizeof object + object.content.size() + object.key.size();
    for (const Binding& b : object.bindings) bytes += sizeof b + b.name.size() + b.ref.object_key.size();
    for (const std::string& name : object.event_names) bytes += name.size() + sizeof name;
    return bytes;
}

bool usable_name(const std::string& name) {
    if (name.empty() || name == "." || name == ".." || name.size() > kMaxNameLength) return false;
    for (unsigned char c : name)
        if (c < 0x20 || c == 0x7F || c == '/' || c == '\\') return false;
    return true;
}

}  // namespace

struct ObjectCarousel::State {
    int pid = 0;
    CarouselLimits limits;
    bool has_dsi = false;
    Dsi dsi;
    std::map<ModuleKey, ModuleSlot> modules;
    std::map<EarlyKey, Bytes> early;
    std::size_t early_bytes = 0;
    CarouselCounts counts;
    std::set<std::string> logged;

    void skip(const std::string& reason) {
        ++counts.skipped;
        if (logged.count(reason)) return;
        if (logged.size() == kMaxLoggedReasons) {
            logged.insert(reason);
            ts::log(3, "carousel pid " + hex(pid, 4) + ": more skip reasons; only counted from now on");
            return;
        }
        if (logged.size() > kMaxLoggedReasons) return;
        logged.insert(reason);
        ts::log(3, "carousel pid " + hex(pid, 4) + ": " + reason);
    }
    void skip_all(const Skipped& reasons, const std::string& prefix = "") {
        for (const std::string& r : reasons) skip(prefix + r);
    }

    std::size_t held_bytes() const {
        std::size_t total = early_bytes;
        for (const auto& [key, slot] : modules) {
            total += slot.content_bytes;
            if (slot.assembler) total += slot.assembler->received_bytes();
        }
        return total;
    }

    static std::string module_name(const ModuleKey& key) {
        return "module " + std::to_string(key.second) + " of download " + hex(key.first);
    }

    void on_dsi(const uint8_t* section, std::size_t length) {
        auto dsi_result = decode_dsi(section, length);
        if (!dsi_result.ok) {
            skip_all(dsi_result.skipped, "DSI skipped: ");
            return;
        }
        skip_all(dsi_result.skipped);
        ++counts.dsi;
        dsi = std::move(dsi_result.value);
        has_dsi = true;
    }

    void on_dii(const uint8_t* section, std::size_t length, std::vector<ModuleChange>& changes) {
        auto dii_result = decode_dii(section, length);
        if (!dii_result.ok) {
            skip_all(dii_result.skipped, "DII skipped: ");
            return;
        }
        skip_all(dii_result.skipped);
        ++counts.dii;
        const Dii& dii = dii_result.value;
        for (const ModuleInfo& info : dii.modules) {
            const ModuleKey key{dii.download_id, info.module_id};
            ModuleSlot& slot = modules[key];
            const bool announced = slot.assembler || slot.failed;
            if (announced && slot.info.version == info.version && slot.info.size == info.size &&
                slot.block_size == dii.block_size)
                continue;  // the same announcement again
            if (!announced && slot.has_content && slot.content_version == info.version) continue;
            slot.info = info;
            slot.block_size = dii.block_size;
            slot.assembler.reset();
            slot.failed = false;
            if (info.size > limits.max_module_size ||
                (info.compressed && info.original_size > limits.max_module_size)) {
                slot.failed = true;
                skip(module_name(key) + " version " + std::to_string(info.version) + ": size " +
                     std::to_string(info.compressed ? info.original_size : info.size) + " over the limit of " +
                     std::to_string(limits.max_module_size) + " bytes");
                continue;
            }
            if (info.compressed && (info.compression_method & 0x0F) != 8) {
                slot.failed = true;
                skip(module_name(key) + ": unknown compression method " + hex(info.compression_method, 2));
                continue;
            }
            slot.assembler = std::make_unique<ModuleAssembler>(info, dii.block_size);
            take_early_blocks(key, slot, changes);
            if (slot.assembler && slot.assembler->complete()) finish(key, slot, changes);
        }
    }

    void take_early_blocks(const ModuleKey& key, ModuleSlot& slot, std::vector<ModuleChange>& changes) {
        auto it = early.lower_bound(EarlyKey{key.first, key.second, 0, 0});
        while (it != early.end() && std::get<0>(it->first) == key.first && std::get<1>(it->first) == key.second) {
            if (std::get<2>(it->first) == slot.info.version && slot.assembler) {
                Ddb block;
                block.download_id = key.first;
                block.module_id = key.second;
                block.module_version = std::get<2>(it->first);
                block.block_number = std::get<3>(it->first);
                block.data = std::move(it->second);
                add_block(key, slot, block, changes);
            }
            early_bytes -= it->second.size();
            it = early.erase(it);
        }
    }

    void on_ddb(const uint8_t* section, std::size_t length, std::vector<ModuleChange>& changes) {
        auto ddb_result = decode_ddb(section, length);
        if (!ddb_result.ok) {
            skip_all(ddb_result.skipped, "DDB skipped: ");
            return;
        }
        ++counts.ddb;
        Ddb& block = ddb_result.value;
        const ModuleKey key{block.download_id, block.module_id};
        auto found = modules.find(key);
        if (found == modules.end()) {
            keep_early(block);
            return;
        }
        ModuleSlot& slot = found->second;
        if (slot.assembler && block.module_version == slot.info.version)
            add_block(key, slot, block, changes);
        else if (slot.has_content && block.module_version == slot.content_version)
            return;  // a repeat of the complete version
        else if (slot.failed && block.module_version == slot.info.version)
            return;  // the announced version is unusable; its reason was logged
        else
            keep_early(block);  // a version whose DII has not come yet
    }

    void keep_early(Ddb& block) {
        const EarlyKey key{block.download_id, block.module_id, block.module_version, block.block_number};
        if (early.count(key)) return;
        if (early_bytes + block.data.size() > limits.max_early_block_bytes ||
            held_bytes() + block.data.size() > limits.max_carousel_bytes) {
            skip("blocks arriving before their DII: over the limit of " +
                 std::to_string(limits.max_early_block_bytes) + " bytes, dropped");
            return;
        }
        early_bytes += block.data.size();
        early.emplace(key, std::move(block.data));
    }

    void add_block(const ModuleKey& key, ModuleSlot& slot, const Ddb& block, std::vector<ModuleChange>& changes) {
        if (held_bytes() + block.data.size() > limits.max_carousel_bytes) {
            skip(module_name(key) + ": carousel over its memory limit of " +
                 std::to_string(limits.max_carousel_bytes) + " bytes, block dropped");
            return;
        }
        std::string why;
        if (slot.assembler->add(block, &why) == ModuleAssembler::Result::Refused) {
            skip(module_name(key) + ": " + why);
            return;
        }
        if (slot.assembler->complete()) finish(key, slot, changes);
    }

    // A module version is complete: inflate, decode, and replace the
    // objects of the version before.
    void finish(const ModuleKey& key, ModuleSlot& slot, std::vector<ModuleChange>& changes) {
        Bytes content = slot.assembler->assemble();
        slot.assembler.reset();
        const std::string name = module_name(key) + " version " + std::to_string(slot.info.version);
        if (slot.info.compressed) {
            auto inflated = inflate_module(content.data(), content.size(), slot.info.original_size);
            if (!inflated.ok) {
                slot.failed = true;
                skip_all(inflated.skipped, name + " skipped: ");
                return;
            }
            content = std::move(inflated.value);
        }
        auto objects = decode_biop_module(content.data(), content.size());
        skip_all(objects.skipped, name + ": ");
        ModuleChange change;
        change.module_id = key.second;
        change.version = slot.info.version;
        change.replaced = slot.has_content;
        slot.objects.clear();
        slot.content_bytes = 0;
        for (BiopObject& object : objects.value) {
            if (object.kind == "srg" || object.kind == "dir") change.directories = true;
            slot.content_bytes += object_bytes(object);
            slot.objects.push_back(std::make_shared<const BiopObject>(std::move(object)));
        }
        slot.has_content = true;
        slot.content_version = slot.info.version;
        ++counts.modules_complete;
        if (change.replaced) ++counts.modules_replaced;
        changes.push_back(change);
    }

    std::shared_ptr<const BiopObject> find_object(const ObjectRef& ref, const ModuleSlot** where) const {
        auto look = [&](const ModuleSlot& slot) -> std::shared_ptr<const BiopObject> {
            if (!slot.has_content) return nullptr;
            for (const auto& object : slot.objects)
                if (object->key == ref.object_key) {
                    *where = &slot;
                    return object;
                }
            return nullptr;
        };
        auto found = modules.find(ModuleKey{ref.carousel_id, ref.module_id});
        if (found != modules.end()) return look(found->second);
        // Some carousels give their DII a download id other than the
        // carousel id: the module of that number on this PID then serves.
        for (const auto& [key, slot] : modules)
            if (key.second == ref.module_id)
                if (auto object = look(slot)) return object;
        return nullptr;
    }

    void walk(const BiopObject& directory, const std::string& path, std::size_t depth, CarouselTree& tree,
              std::set<std::pair<uint16_t, Bytes>>& visited) const {
        std::set<std::string> names;
        for (const Binding& binding : directory.bindings) {
            const std::string child = path.empty() ? binding.name : path + "/" + binding.name;
            if (!usable_name(binding.name)) {
                tree.skipped.push_back("name \"" + printable(binding.name) + "\" in \"" + printable(path) +
                                       "\" is not usable as a path component");
                continue;
            }
            if (!names.insert(binding.name).second) {
                tree.skipped.push_back("\"" + printable(child) + "\" bound twice; the first binding kept");
                continue;
            }
            if (!binding.ref.located) {
                tree.skipped.push_back("\"" + printable(child) + "\" lives in another carousel");
                continue;
            }
            if (tree.entries.size() >= limits.max_entries) {
                tree.skipped.push_back("more than " + std::to_string(limits.max_entries) + " objects");
                return;
            }
            const ModuleSlot* slot = nullptr;
            auto object = find_object(binding.ref, &slot);
            if (!object) {
                tree.missing.push_back(child + " (module " + std::to_string(binding.ref.module_id) + ")");
                continue;
            }
            CarouselEntry entry;
            entry.path = child;
            entry.module_id = binding.ref.module_id;
            entry.module_version = slot->content_version;
            entry.object = object;
            if (object->kind == "dir" || object->kind == "srg") {
                if (depth + 1 > limits.max_depth) {
                    tree.skipped.push_back("\"" + printable(child) + "\" deeper than " +
                                           std::to_string(limits.max_depth) + " levels");
                    continue;
                }
                if (!visited.insert({binding.ref.module_id, binding.ref.object_key}).second) {
                    tree.skipped.push_back("\"" + printable(child) + "\" names a directory already in the tree");
                    continue;
                }
                entry.kind = CarouselEntry::Kind::Directory;
                tree.entries.push_back(entry);
                walk(*object, child, depth + 1, tree, visited);
            } else if (object->kind == "fil") {
                entry.kind = CarouselEntry::Kind::File;
                tree.entries.push_back(entry);
            } else if (object->kind == "ste") {
                entry.kind = CarouselEntry::Kind::StreamEvent;
                tree.entries.push_back(entry);
            } else if (object->kind == "str") {
                entry.kind = CarouselEntry::Kind::Stream;
                tree.entries.push_back(entry);
            }
        }
    }
};

const char* kind_name(CarouselEntry::Kind kind) {
    switch (kind) {
    case CarouselEntry::Kind::Directory: return "dir";
    case CarouselEntry::Kind::File: return "file";
    case CarouselEntry::Kind::Stream: return "stream";
    case CarouselEntry::Kind::StreamEvent: return "streamevent";
    }
    return "?";
}

ObjectCarousel::ObjectCarousel(int pid, CarouselLimits limits) : state_(std::make_unique<State>()) {
    state_->pid = pid;
    state_->limits = limits;
}

ObjectCarousel::~ObjectCarousel() = default;

int ObjectCarousel::pid() const { return state_->pid; }

int ObjectCarousel::association_tag() const {
    if (!state_->has_dsi) return -1;
    for (const Tap& tap : state_->dsi.service_gateway.taps)
        if (tap.use == kTapDeliveryParameters) return tap.association_tag;
    return -1;
}

std::vector<ModuleChange> ObjectCarousel::feed(const uint8_t* section, std::size_t length) {
    std::vector<ModuleChange> changes;
    State& s = *state_;
    ++s.counts.sections;
    SectionHeader header;
    std::string why;
    if (section == nullptr || !read_section_header(section, length, &header, &why)) {
        s.skip("section skipped: " + (section ? why : std::string("no section")));
        return changes;
    }
    switch (download_message_id(section, length)) {
    case kMessageDsi:
        if (header.table_id == kTableDownloadControl) s.on_dsi(section, length);
        else s.skip("DSI message in table " + hex(header.table_id, 2) + " skipped");
        break;
    case kMessageDii:
        if (header.table_id == kTableDownloadControl) s.on_dii(section, length, changes);
        else s.skip("DII message in table " + hex(header.table_id, 2) + " skipped");
        break;
    case kMessageDdb:
        if (header.table_id == kTableDownloadData) s.on_ddb(section, length, changes);
        else s.skip("DDB message in table " + hex(header.table_id, 2) + " skipped");
        break;
    default:
        s.skip("section of table " + hex(header.table_id, 2) + " with message " +
               hex(download_message_id(section, length), 4) + " skipped");
    }
    return changes;
}

CarouselTree ObjectCarousel::tree() const {
    const State& s = *state_;
    CarouselTree tree;
    if (!s.has_dsi) return tree;
    const ObjectRef& gateway_ref = s.dsi.service_gateway;
    tree.carousel_id = gateway_ref.carousel_id;
    tree.association_tag = association_tag();
    const ModuleSlot* slot = nullptr;
    auto gateway = s.find_object(gateway_ref, &slot);
    if (!gateway) {
        tree.missing.push_back("service gateway (module " + std::to_string(gateway_ref.module_id) + ")");
        return tree;
    }
    if (tree.association_tag < 0)
        for (const Tap& tap : slot->info.taps)
            if (tap.use == kTapObject) {
                tree.association_tag = tap.association_tag;
                break;
            }
    tree.has_gateway = true;
    CarouselEntry root;
    root.kind = CarouselEntry::Kind::Directory;
    root.module_id = gateway_ref.module_id;
    root.module_version = slot->content_version;
    root.object = gateway;
    tree.entries.push_back(root);
    std::set<std::pair<uint16_t, Bytes>> visited{{gateway_ref.module_id, gateway_ref.object_key}};
    s.walk(*gateway, "", 0, tree, visited);
    return tree;
}

CarouselCounts ObjectCarousel::counts() const { return state_->counts; }

std::vector<std::string> ObjectCarousel::incomplete_modules() const {
    std::vector<std::string> out;
    for (const auto& [key, slot] : state_->modules) {
        if (!slot.assembler) continue;
        out.push_back(State::module_name(key) + " version " + std::to_string(slot.info.version) + ": " +
                      std::to_string(slot.assembler->received_blocks()) + " of " +
                      std::to_string(slot.assembler->total_blocks()) + " blocks");
    }
    return out;
}

}  // namespace ts::dsmcc
