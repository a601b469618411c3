#include "dvbpsi_bare.h"

// libdvbpsi's headers expect these before them.
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>

#include <cstring>

namespace appmgr::bench {
namespace {

struct gather_decoder {
    DVBPSI_DECODER_COMMON
};

}  // namespace

BareDemux::BareDemux(const std::set<std::uint16_t>& pids) {
    for (std::uint16_t pid : pids) {
        if (pid >= handles_.size()) continue;
        dvbpsi_t* handle = dvbpsi_new(nullptr, DVBPSI_MSG_NONE);
        if (handle == nullptr) continue;
        handle->p_sys = this;
        void* decoder = dvbpsi_decoder_new(&BareDemux::gather, 4096, true, sizeof(gather_decoder));
        if (decoder == nullptr) {
            dvbpsi_delete(handle);
            continue;
        }
        handle->p_decoder = static_cast<dvbpsi_decoder_t*>(decoder);
        handles_[pid] = handle;
    }
}

BareDemux::~BareDemux() {
    for (dvbpsi_t* handle : handles_) {
        if (handle == nullptr) continue;
        dvbpsi_decoder_delete(handle->p_decoder);
        handle->p_decoder = nullptr;
        dvbpsi_delete(handle);
    }
}

void BareDemux::push(const std::uint8_t* packet) {
    const unsigned pid = ((packet[1] & 0x1Fu) << 8) | packet[2];
    dvbpsi_t* handle = handles_[pid];
    if (handle == nullptr) return;
    // libdvbpsi takes a non-const pointer.
    std::uint8_t copy[188];
    std::memcpy(copy, packet, sizeof copy);
    dvbpsi_packet_push(handle, copy);
}

void BareDemux::gather(dvbpsi_t* handle, dvbpsi_psi_section_t* section) {
    auto* self = static_cast<BareDemux*>(handle->p_sys);
    for (auto* s = section; s != nullptr; s = s->p_next) ++self->sections_;
    dvbpsi_DeletePSISections(section);
}

}  // namespace appmgr::bench
