// The floor of transport-stream demultiplexing: the packets of a set of
// PIDs handed straight to libdvbpsi, which gathers each section across
// packets and checks its CRC; the sections are counted and dropped.
#pragma once

#include <array>
#include <cstdint>
#include <set>

struct dvbpsi_s;
struct dvbpsi_psi_section_s;

namespace appmgr::bench {

class BareDemux {
public:
    explicit BareDemux(const std::set<std::uint16_t>& pids);
    ~BareDemux();
    BareDemux(const BareDemux&) = delete;
    BareDemux& operator=(const BareDemux&) = delete;

    void push(const std::uint8_t* packet);
    std::uint64_t sections() const { return sections_; }

private:
    static void gather(::dvbpsi_s* handle, ::dvbpsi_psi_section_s* section);
    std::array<::dvbpsi_s*, 0x2000> handles_{};
    std::uint64_t sections_ = 0;
};

}  // namespace appmgr::bench
