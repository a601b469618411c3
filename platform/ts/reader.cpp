// Packets in: files, standard input and UDP on loopback, with resync after
// a lost sync byte, and real-time pacing from the PCR.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "ts_decode.h"

namespace ts {
namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
constexpr std::size_t kMaxDatagram = 65536;
// Sync bytes that must stand kPacketSize apart before a position is taken as
// the start of a packet again.
constexpr int kResyncConfirmations = 3;
// Poll slice: how soon a blocked read notices stop().
constexpr int kPollSliceMs = 100;

// "udp://127.0.0.1:1234" -> address and port; only loopback addresses.
bool parse_udp(const std::string& source, sockaddr_in* address, std::string* error) {
    const std::string rest = source.substr(6);
    const auto colon = rest.rfind(':');
    if (colon == std::string::npos) {
        *error = "a UDP source needs a port: udp://127.0.0.1:PORT";
        return false;
    }
    std::string host = rest.substr(0, colon);
    if (host.empty() || host == "localhost") host = "127.0.0.1";
    const std::string port_text = rest.substr(colon + 1);
    char* end = nullptr;
    const long port = std::strtol(port_text.c_str(), &end, 10);
    if (port_text.empty() || *end != '\0' || port < 0 || port > 65535) {
        *error = "bad UDP port '" + port_text + "'";
        return false;
    }
    std::memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;
    address->sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host.c_str(), &address->sin_addr) != 1 ||
        (ntohl(address->sin_addr.s_addr) >> 24) != 127) {
        *error = "UDP sources are received on a loopback address (127.x.x.x), not '" + host + "'";
        return false;
    }
    return true;
}

}  // namespace

PacketReader::PacketReader() = default;

PacketReader::~PacketReader() {
    if (own_fd_ && fd_ >= 0) ::close(fd_);
}

bool PacketReader::open(const std::string& source) {
    error_.clear();
    if (source == "-") {
        fd_ = STDIN_FILENO;
        return true;
    }
    if (source.rfind("udp://", 0) == 0) {
        sockaddr_in address{};
        if (!parse_udp(source, &address, &error_)) return false;
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) {
            error_ = std::string("socket: ") + std::strerror(errno);
            return false;
        }
        own_fd_ = true;
        udp_ = true;
        // No SO_REUSEADDR: a second reader of the same port fails to open
        // instead of taking half of the datagrams.
        const int buffer = 4 * 1024 * 1024;  // a live stream arrives in bursts
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            error_ = "cannot receive on " + source + ": " + std::strerror(errno);
            return false;
        }
        socklen_t length = sizeof address;
        if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            udp_port_ = ntohs(address.sin_port);
        return true;
    }
    fd_ = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        error_ = "cannot open " + source + ": " + std::strerror(errno);
        return false;
    }
    own_fd_ = true;
    return true;
}

bool PacketReader::replay() {
    if (fd_ < 0) {
        error_ = "nothing to play again: the source is not open";
        return false;
    }
    if (!udp_ && (!own_fd_ || ::lseek(fd_, 0, SEEK_SET) != 0)) {
        error_ = own_fd_ ? std::string("cannot read the file again: ") + std::strerror(errno)
                         : "standard input cannot be read again";
        return false;
    }
    error_.clear();
    eof_ = false;
    stop_ = false;
    buffer_.clear();
    start_ = 0;
    return true;
}

// Appends what the source has to the buffer; false at the end of the input
// (end of file, UDP idle time-out, stop()) or on an error.
bool PacketReader::fill() {
    if (eof_ || fd_ < 0) return false;
    if (start_ > 0 && start_ >= buffer_.size() / 2) {
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    int waited = 0;
    for (;;) {
        if (stop_) return false;
        pollfd p{fd_, POLLIN, 0};
        const int ready = ::poll(&p, 1, kPollSliceMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            error_ = std::string("poll: ") + std::strerror(errno);
            return false;
        }
        if (ready == 0) {
            waited += kPollSliceMs;
            if (udp_ && waited >= idle_timeout_ms_) {
                eof_ = true;
                return false;
            }
            continue;
        }
        const std::size_t old = buffer_.size();
        buffer_.resize(old + (udp_ ? kMaxDatagram : kReadChunk));
        const ssize_t got = udp_ ? ::recv(fd_, buffer_.data() + old, kMaxDatagram, 0)
                                 : ::read(fd_, buffer_.data() + old, kReadChunk);
        if (got < 0) {
            buffer_.resize(old);
            if (errno == EINTR || errno == EAGAIN) continue;
            error_ = std::string("read: ") + std::strerror(errno);
            return false;
        }
        buffer_.resize(old + static_cast<std::size_t>(got));
        if (udp_) ++stats_.datagrams;
        if (got == 0 && !udp_) {
            eof_ = true;
            return false;
        }
        return true;
    }
}

bool PacketReader::next(uint8_t packet[kPacketSize]) {
    for (;;) {
        if (stop_) return false;
        std::size_t available = buffer_.size() - start_;
        // Enough bytes to confirm a resync point, unless the input ends.
        const std::size_t wanted = kPacketSize * kResyncConfirmations;
        while (available < wanted && fill()) available = buffer_.size() - start_;
        if (!error_.empty()) return false;
        if (available < kPacketSize) {
            stats_.truncated_bytes += available;
            start_ = buffer_.size();
            return false;
        }
        const uint8_t* data = buffer_.data() + start_;
        if (data[0] == kSyncByte) {
            std::memcpy(packet, data, kPacketSize);
            start_ += kPacketSize;
            ++stats_.packets;
            return true;
        }
        // Lost: the next position with sync bytes kPacketSize apart, as many
        // as the remaining bytes allow (up to kResyncConfirmations).
        std::size_t found = available;
        for (std::size_t i = 1; i + kPacketSize <= available; ++i) {
            bool ok = true;
            for (int k = 0; k < kResyncConfirmations; ++k) {
                const std::size_t at = i + static_cast<std::size_t>(k) * kPacketSize;
                if (at >= available) break;
                if (data[at] != kSyncByte) {
                    ok = false;
                    break;
                }
            }
            if (ok) {
                found = i;
                break;
            }
        }
        if (found == available) {
            // No packet start in what is buffered: keep the tail that may
            // begin one and read on.
            const std::size_t drop = available > kPacketSize ? available - kPacketSize : 0;
            stats_.skipped_bytes += drop;
            start_ += drop;
            if (!fill()) {
                stats_.truncated_bytes += buffer_.size() - start_;
                start_ = buffer_.size();
                return false;
            }
            continue;
        }
        ++stats_.resyncs;
        stats_.skipped_bytes += found;
        start_ += found;
    }
}

bool packet_pcr(const uint8_t packet[kPacketSize], uint64_t* pcr) {
    const int control = (packet[3] >> 4) & 0x3;
    if (control != 2 && control != 3) return false;
    const int length = packet[4];
    if (length < 7 || length > 183 || (packet[5] & 0x10) == 0) return false;
    const uint64_t base = (static_cast<uint64_t>(packet[6]) << 25) |
                          (static_cast<uint64_t>(packet[7]) << 17) |
                          (static_cast<uint64_t>(packet[8]) << 9) |
                          (static_cast<uint64_t>(packet[9]) << 1) | (packet[10] >> 7);
    const uint64_t extension = (static_cast<uint64_t>(packet[10] & 1) << 8) | packet[11];
    *pcr = base * 300 + extension;
    return true;
}

void Pacer::pace(const uint8_t packet[kPacketSize]) {
    if (!realtime_ || stopped_) return;
    uint64_t pcr = 0;
    if (!packet_pcr(packet, &pcr)) return;
    const int pid = ((packet[1] & 0x1F) << 8) | packet[2];
    if (pcr_pid_ < 0) pcr_pid_ = pid;
    if (pid != pcr_pid_) return;
    using Clock = std::chrono::steady_clock;
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            Clock::now().time_since_epoch()).count();
    constexpr uint64_t kJump = 10ULL * 27000000ULL;  // 10 s in 27 MHz units
    if (!have_base_ || pcr < last_pcr_ || pcr - last_pcr_ > kJump) {
        have_base_ = true;
        base_pcr_ = pcr;
        base_wall_ns_ = now;
        last_pcr_ = pcr;
        return;
    }
    last_pcr_ = pcr;
    const int64_t due = base_wall_ns_ + static_cast<int64_t>((pcr - base_pcr_) * 1000 / 27);
    // Slices, so that stop() is noticed within one.
    for (int64_t left = due - now; left > 0 && !stopped_;) {
        const int64_t slice = std::min<int64_t>(left, 50'000'000);
        std::this_thread::sleep_for(std::chrono::nanoseconds(slice));
        left -= slice;
    }
}

void Pacer::stop() { stopped_ = true; }

void Pacer::reset() {
    pcr_pid_ = -1;
    have_base_ = false;
    stopped_ = false;
}

}  // namespace ts
