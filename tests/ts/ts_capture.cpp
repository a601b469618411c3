#include "ts_capture.h"

#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

namespace appmgr::test {

namespace {

struct Collector {
    int pid = 0;
    std::vector<PidSection>* out = nullptr;
    int* crc_failures = nullptr;
};

void gather(dvbpsi_t* handle, dvbpsi_psi_section_t* section) {
    auto* c = static_cast<Collector*>(handle->p_sys);
    for (dvbpsi_psi_section_t* s = section; s; s = s->p_next) {
        const bool good = !dvbpsi_has_CRC32(s) || dvbpsi_ValidPSISection(s);
        if (!good) {
            if (c->crc_failures) ++*c->crc_failures;
            continue;
        }
        const std::size_t length = 3 + s->i_length;
        c->out->push_back(PidSection{c->pid, std::vector<std::uint8_t>(s->p_data, s->p_data + length)});
    }
    dvbpsi_DeletePSISections(section);
}

struct Handle {
    Collector collector;
    dvbpsi_t* psi = nullptr;
    ~Handle() {
        if (psi) {
            dvbpsi_decoder_delete(psi->p_decoder);
            psi->p_decoder = nullptr;
            dvbpsi_delete(psi);
        }
    }
};

}  // namespace

std::vector<std::uint8_t> read_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<PidSection> read_ts_sections(const std::string& path, const std::vector<int>& pids,
                                         int* crc_failures) {
    std::vector<PidSection> out;
    std::map<int, std::unique_ptr<Handle>> handles;
    const std::vector<std::uint8_t> data = read_bytes(path);
    for (std::size_t at = 0; at + 188 <= data.size(); at += 188) {
        std::uint8_t packet[188];
        std::copy(data.begin() + static_cast<long>(at), data.begin() + static_cast<long>(at) + 188, packet);
        if (packet[0] != 0x47) continue;
        const int pid = ((packet[1] & 0x1F) << 8) | packet[2];
        if (!pids.empty() && std::find(pids.begin(), pids.end(), pid) == pids.end()) continue;
        auto& handle = handles[pid];
        if (!handle) {
            handle = std::make_unique<Handle>();
            handle->collector = Collector{pid, &out, crc_failures};
            handle->psi = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
            handle->psi->p_sys = &handle->collector;
            handle->psi->p_decoder = static_cast<dvbpsi_decoder_t*>(
                dvbpsi_decoder_new(gather, 4096, true, sizeof(dvbpsi_decoder_t)));
        }
        dvbpsi_packet_push(handle->psi, packet);
    }
    return out;
}

std::vector<PidSection> read_section_file(const std::string& path) {
    std::vector<PidSection> out;
    const std::vector<std::uint8_t> data = read_bytes(path);
    std::size_t at = 0;
    while (at + 3 <= data.size()) {
        const std::size_t length = 3 + (((data[at + 1] & 0x0F) << 8) | data[at + 2]);
        if (at + length > data.size()) break;
        out.push_back(PidSection{0, std::vector<std::uint8_t>(data.begin() + static_cast<long>(at),
                                                               data.begin() + static_cast<long>(at + length))});
        at += length;
    }
    return out;
}

std::string stream_event_data(const std::string& relative) {
    return std::string(APPMGR_STREAM_EVENT_DATA_DIR) + "/" + relative;
}

}  // namespace appmgr::test
