// Bytes as a transport-stream file: the packet reader (lost sync bytes,
// truncated packets), the demultiplexer's section assembly with CRC checks,
// and every decoder a capture runs (PAT, PMT, SDT, EIT, AIT, the DSM-CC
// carousels and stream events), as the capture player drives them.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "ts_decode.h"
#include "ts_fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    appmgr::fuzz::quiet_ts_log();
    if (size > 1 << 20) return 0;
    const int fd = memfd_create("appmgr-fuzz-ts", MFD_CLOEXEC);
    if (fd < 0) return 0;
    if (write(fd, data, size) == static_cast<ssize_t>(size)) {
        ts::PacketReader reader;
        if (reader.open("/proc/self/fd/" + std::to_string(fd))) {
            ts::Capture capture;
            ts::dsmcc::DsmccCollector collector(capture);
            std::size_t entries = 0;
            collector.on_carousel_change(
                [&](const ts::dsmcc::ObjectCarousel& carousel, const std::vector<ts::dsmcc::ModuleChange>&) {
                    entries += carousel.tree().entries.size();
                });
            collector.on_stream_event([](const ts::dsmcc::StreamEvent& event) { (void)ts::dsmcc::event_line(event); });
            capture.on_ait_version([](const ts::AitVersion& version) {
                ts::make_ait_table(version.sections, ts::Triplet{1, 2, 3}, true);
            });
            capture.on_eit_event([](const ts::EitRecord& table, const ts::EitEvent& event) {
                (void)ts::dump_eit_event(table, event);
            });
            uint8_t packet[ts::kPacketSize];
            while (reader.next(packet)) capture.push(packet);
        }
    }
    close(fd);
    return 0;
}
