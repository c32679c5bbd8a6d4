// What a card answers to accesses of either protocol: whatever it is, an access ends with one of its statuses, and
// data are right only with a right header. The first byte is the protocol, then comes, for each access, its kind, the
// length of what the card says (two bytes), and what it says. A last access gets nothing.
#include "pulsar3/lib/wire/fem.h"

#include <array>
#include <cstdlib>
#include <sys/socket.h>
#include <thread>

using namespace kestrel;

namespace {

int access(FemHandle &h, unsigned kind) {
    std::array<std::uint32_t, 3> values{1, 2, 3};
    switch (kind % 8) {
    case 0:
        return pulsar3FemSetInt(h, 0, 0, 2, 5);
    case 1:
        return pulsar3FemGetIntArray(h, 1, 0, 2, values);
    case 2:
        return pulsar3FemRMW(h, 0, 0, 2, 1, 2, values[0]);
    case 3:
        return pulsar3FemSetIntChans(h, 0, 4, 0, 2, values);
    case 4: {
        std::array<std::uint8_t, 5> bytes;
        return pulsar3FemI2CRead(h, 0x50, bytes);
    }
    case 5:
        return pulsar3FemPersonalityWrite(h, 4, values);
    case 6:
        return pulsar3FemPersonalityRead(h, 13, {&values[0], 1}, values);
    default:
        return pulsar3FemZeroDMABuff(h, 0, 3);
    }
}

// The card: waits for something to be asked, says its piece and hangs up.
void say(int fd, const std::uint8_t *data, std::size_t size) {
    char asked[4096];
    if (::recv(fd, asked, sizeof asked, 0) > 0)
        ::send(fd, data, size, MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
}

void one_access(FemHandle &h, unsigned kind, const std::uint8_t *data, std::size_t size) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        std::abort();
    const unique_fd card(ends[1]);
    h.m_skt.reset(ends[0]);
    h.m_valid = 1;
    std::thread answering(say, card.get(), data, size);
    const int rc = access(h, kind);
    if (rc > 0 || rc < fem_length_mismatch || h.num_posted_writes != 0 || (h.m_valid != 0) != bool(h.m_skt))
        std::abort();
    if (rc == 0 && (size < 20 || !h.m_valid))
        std::abort();
    ::shutdown(card.get(), SHUT_RDWR);
    answering.join();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    FemHandle h;
    const bool second = *data & 1;
    const protocol_limits &limits = second ? fem2_limits : fem1_limits;
    h.protocol_generation = second ? ProtocolFEM2 : ProtocolFEM1;
    h.max_tx_bytes = limits.max_tx_bytes;
    h.max_rx_bytes = limits.max_rx_bytes;
    ++data, --size;
    while (size >= 3) {
        const unsigned kind = data[0];
        const std::size_t said = std::min<std::size_t>(data[1] + 256U * data[2], size - 3);
        one_access(h, kind, data + 3, said);
        data += 3 + said;
        size -= 3 + said;
    }
    one_access(h, 1, nullptr, 0);
    return 0;
}
