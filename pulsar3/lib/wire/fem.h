// pulsar3/lib/wire: one card's control connection, and every access that travels over it.
//
// FemHandle owns the socket; nothing outside pulsar3/lib/wire touches it. The handle's mutex is held for a whole
// array transfer, so the command thread and receive threads may use one handle at a time each. Both protocols give the
// same calls; a target that a protocol does not have is refused with a text. All functions return 0, or a negative
// status with its text kept by plr3_fail. Nothing waits longer than fem_timeout for a card.
//
// Layouts on the wire: protocol.h. May use support/ only.
#pragma once

#include "pulsar3/lib/wire/protocol.h"
#include "support/fd.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

namespace kestrel {

inline constexpr std::chrono::seconds fem_timeout{5}; // to connect, and for each answer

struct FemHandle {
    unique_fd m_skt;
    int m_valid = 0; // 1 once connected; 0 after a fault, until the next access has connected anew
    ProtocolGeneration protocol_generation = ProtocolFEM1;
    int max_tx_bytes = 0;
    int max_rx_bytes = 0;
    std::uint32_t base_address = 0;
    std::uint32_t seq = 0;
    std::mutex mutex;
    int max_posted_writes = 16;
    int num_posted_writes = 0;
    std::string host; // where to connect anew
    int port = 0;
};

// Connects to a card: the generation-1 port first when it is positive, then the other. Null with the text kept.
std::unique_ptr<FemHandle> pulsar3FemInitialise(const char *host, int port1, int port2);
void pulsar3FemClose(std::unique_ptr<FemHandle> handle);

// Registers of a channel (chan 0..15, region 0..15, offset in words); globals are channel 15, region 15.
int pulsar3FemSetInt(FemHandle &h, int chan, int region, int offset, std::uint32_t value);
int pulsar3FemGetInt(FemHandle &h, int chan, int region, int offset, std::uint32_t &value);
int pulsar3FemSetIntArray(FemHandle &h, int chan, int region, int offset,
                          std::span<const std::uint32_t> values);
int pulsar3FemGetIntArray(FemHandle &h, int chan, int region, int offset, std::span<std::uint32_t> values);
// new = (old & mask) | value, done by the card; `result` is the new value.
int pulsar3FemRMW(FemHandle &h, int chan, int region, int offset, std::uint32_t mask, std::uint32_t value,
                  std::uint32_t &result);
// One value to the same register of each of these channels; up to max_posted_writes writes are under way at once.
int pulsar3FemSetIntChans(FemHandle &h, int first_chan, int num_chan, int region, int offset,
                          std::span<const std::uint32_t> values);

// Generation-4 globals: words of the card's local bus.
int pulsar3FemLocalWrite(FemHandle &h, int offset, std::span<const std::uint32_t> values);
int pulsar3FemLocalRead(FemHandle &h, int offset, std::span<std::uint32_t> values);
int pulsar3FemLocalRMW(FemHandle &h, int offset, std::uint32_t mask, std::uint32_t value,
                       std::uint32_t &result);

// Registers of the data link.
int pulsar3FemRDMAWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemRDMARead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemRDMARMW(FemHandle &h, std::uint32_t address, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result);
int pulsar3FemConfigUDP(FemHandle &h, const std::uint8_t *card_mac, const char *card_ip, int card_port,
                        const char *host_ip, int host_port);
int pulsar3FemSetHostPort(FemHandle &h, int port);
int pulsar3FemSetPacketSize(FemHandle &h, int bytes);
int pulsar3FemResetFrameCounter(FemHandle &h, int value);

// ... SPI, MPSPI, ChanSPI, I2C, fan, configuration store, XADC, memory, DMA, MGT, personality: the same shapes.

} // namespace kestrel
