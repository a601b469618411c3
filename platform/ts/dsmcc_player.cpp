// What a capture's carousels and stream events do in the simulated
// receiver: each carousel of the played service is written into a private
// directory and served as the carousel of its component tag
// (hbb_sim_set_carousel, with the real module numbers); a module that
// changes version serves a new generation of the directory and fires the
// module update notification; each new stream event fires the listeners
// subscribed to it, by component tag and event id and by the names the
// carousel's stream-event objects give it.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "dsmcc_reader.h"
#include "hbb_sim.h"
#include "ts_decode.h"

namespace ts {

namespace {

std::string tag_text(int tag) { return dsmcc::hex(static_cast<uint64_t>(tag)); }

}  // namespace

struct DsmccFeed {
    // A stream-event object of a served carousel.
    struct EventObject {
        int carousel_tag = -1;
        std::string path;
        std::shared_ptr<const dsmcc::BiopObject> object;
    };
    struct Served {
        std::string directory;
        std::vector<EventObject> events;
    };

    DsmccFeed(CapturePlayer& player, const PlayerOptions& options, PlayerStats& stats)
        : player(player), options(options), stats(stats), collector(player.capture()) {
        if (options.feed_carousels)
            collector.on_carousel_change([this](const dsmcc::ObjectCarousel& c,
                                                const std::vector<dsmcc::ModuleChange>& changes) {
                carousel_changed(c, changes);
            });
        if (options.feed_stream_events)
            collector.on_stream_event([this](const dsmcc::StreamEvent& e) { stream_event(e); });
    }

    ~DsmccFeed() {
        for (const auto& [tag, served] : carousels) {
            hbb_sim_set_carousel(tag, nullptr);
            remove(served.directory);
        }
        if (own_root) remove(root);
    }

    static void remove(const std::string& path) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    void once(int level, const std::string& line) {
        if (logged.size() < 256 && logged.insert(line).second) log(level, line);
    }

    // Tables of other services than the played one are decoded, not fed.
    bool ours(uint16_t pid) const {
        const int service = player.capture().service_of_pid(pid);
        return service < 0 || player.service() < 0 || service == player.service();
    }

    bool ensure_root() {
        if (!root.empty()) return true;
        if (!options.carousel_dir.empty()) {
            std::error_code error;
            std::filesystem::create_directories(options.carousel_dir, error);
            if (error) {
                once(5, "carousels cannot be served: " + options.carousel_dir + ": " + error.message());
                return false;
            }
            root = options.carousel_dir;
            return true;
        }
        const char* tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/appmgr-carousels-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            once(5, "carousels cannot be served: no private directory under " + pattern);
            return false;
        }
        root = pattern;
        own_root = true;
        return true;
    }

    void carousel_changed(const dsmcc::ObjectCarousel& carousel, const std::vector<dsmcc::ModuleChange>& changes) {
        stats.carousel_modules += changes.size();
        const uint16_t pid = static_cast<uint16_t>(carousel.pid());
        if (!ours(pid)) return;
        const int tag = collector.component_tag(pid);
        if (tag < 0) {
            once(3, "carousel on pid " + dsmcc::hex(pid, 4) + " has no component tag; it is not served");
            return;
        }
        const dsmcc::CarouselTree tree = carousel.tree();
        if (!tree.has_gateway || !ensure_root()) return;

        // A new generation beside the one served now, so that a reader
        // never sees a tree half written.
        const std::string directory = root + "/" + tag_text(tag).substr(2) + "." + std::to_string(++generation);
        Skipped problems;
        const bool written = dsmcc::write_carousel(tree, directory, &problems);
        for (const std::string& p : problems) once(3, "carousel " + tag_text(tag) + ": " + p);
        if (!written) {
            remove(directory);
            return;
        }
        std::vector<std::string> paths;
        std::vector<unsigned short> modules;
        Served served;
        served.directory = directory;
        std::size_t files = 0, directories = 0;
        for (const dsmcc::CarouselEntry& e : tree.entries) {
            paths.push_back(e.path);
            modules.push_back(e.module_id);
            if (e.kind == dsmcc::CarouselEntry::Kind::File) ++files;
            if (e.kind == dsmcc::CarouselEntry::Kind::Directory) ++directories;
            if (e.kind == dsmcc::CarouselEntry::Kind::StreamEvent) served.events.push_back({tag, e.path, e.object});
        }
        std::vector<const char*> path_texts;
        for (const std::string& p : paths) path_texts.push_back(p.c_str());
        hbb_sim_set_carousel_modules(tag, path_texts.data(), modules.data(), static_cast<int>(modules.size()));
        if (hbb_sim_set_carousel(tag, directory.c_str()) != 0) {
            once(5, "carousel " + tag_text(tag) + ": the simulated carousel refused " + directory);
            remove(directory);
            return;
        }
        ++stats.carousels_served;
        auto& slot = carousels[tag];
        const std::string previous = slot.directory;
        slot = std::move(served);
        if (!previous.empty()) remove(previous);
        log(2, "carousel " + tag_text(tag) + " (pid " + dsmcc::hex(pid, 4) + ") served from " + directory + ": " +
                   std::to_string(files) + " files, " + std::to_string(directories) + " directories, " +
                   std::to_string(slot.events.size()) + " stream-event objects" +
                   (tree.missing.empty() ? "" : ", " + std::to_string(tree.missing.size()) + " objects missing"));
        for (const dsmcc::ModuleChange& change : changes) {
            if (!change.replaced) continue;
            if (hbb_sim_fire_module_update(change.module_id, change.directories ? 1 : 0, nullptr) == 0)
                ++stats.module_updates;
            log(2, "carousel " + tag_text(tag) + ": module " + std::to_string(change.module_id) + " now version " +
                       std::to_string(change.version) + (change.directories ? " (directories)" : ""));
        }
    }

    void stream_event(const dsmcc::StreamEvent& event) {
        const uint16_t pid = static_cast<uint16_t>(event.pid);
        if (!ours(pid)) return;
        ++stats.stream_events;
        const int tag = collector.component_tag(pid);
        if (tag < 0) {
            once(3, "stream events on pid " + dsmcc::hex(pid, 4) +
                        " have no component tag (no PMT names the PID); no listener can be reached");
            return;
        }
        const void* data = event.data.empty() ? nullptr : event.data.data();
        const int length = static_cast<int>(event.data.size());
        int reached = hbb_sim_fire_stream_event_by_id(tag, event.event_id, eQUMAm_DSMCC_EVENT_FIRE, data, length);
        for (const auto& [carousel_tag, served] : carousels)
            for (const EventObject& o : served.events) {
                if (dsmcc::event_stream_tag(*o.object) != tag) continue;
                for (std::size_t i = 0; i < o.object->event_ids.size() && i < o.object->event_names.size(); ++i)
                    if (o.object->event_ids[i] == event.event_id)
                        reached += hbb_sim_fire_carousel_stream_event(o.carousel_tag, o.path.c_str(),
                                                                      o.object->event_names[i].c_str(),
                                                                      eQUMAm_DSMCC_EVENT_FIRE, data, length);
            }
        stats.stream_event_listeners += static_cast<uint64_t>(reached);
    }

    CapturePlayer& player;
    const PlayerOptions options;
    PlayerStats& stats;
    dsmcc::DsmccCollector collector;
    std::string root;
    bool own_root = false;
    unsigned generation = 0;
    std::map<int, Served> carousels;  // by component tag
    std::set<std::string> logged;
};

void DsmccFeedDeleter::operator()(DsmccFeed* feed) const { delete feed; }

void CapturePlayer::attach_dsmcc() {
    if (!dsmcc_) dsmcc_.reset(new DsmccFeed(*this, options_, stats_));
}

const dsmcc::DsmccCollector* CapturePlayer::dsmcc() const { return dsmcc_ ? &dsmcc_->collector : nullptr; }

std::string CapturePlayer::carousel_directory(int component_tag) const {
    if (!dsmcc_) return "";
    const auto found = dsmcc_->carousels.find(component_tag);
    return found == dsmcc_->carousels.end() ? "" : found->second.directory;
}

}  // namespace ts
