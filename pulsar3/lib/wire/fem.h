// pulsar3/lib/wire: one card's control connection, and every access that travels over it.
//
// FemHandle owns the socket; nothing outside pulsar3/lib/wire touches it. The handle's mutex is held for a whole
// array transfer, so the command thread and receive threads may use one handle at a time each. Both protocols give the
// same calls (targets.h says where each goes); a target that a protocol does not have is refused with a text. All
// functions return 0, or a negative status with its text kept by plr3_fail. Nothing is sent for no items.
//
// Nothing waits longer than fem_timeout for a card's answer. After a silence, an answer that cannot be trusted or a
// closed connection the access fails, and the next one connects anew, once; when that fails, too, it says so.
//
// Layouts on the wire: protocol.h. May use support/ only.
#pragma once

#include "pulsar3/lib/wire/protocol.h"
#include "support/fd.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <span>
#include <string>
#include <vector>

namespace kestrel {

inline constexpr std::chrono::seconds fem_timeout{5}; // to connect, and for each answer

enum fem_status : int {
    fem_not_connected = -2,
    fem_send_failed = -3,
    fem_response_failed = -4,
    fem_not_acknowledged = -5,
    fem_length_mismatch = -6,
};

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
    std::string host;                 // as given
    in_addr address{};                // what it stands for: where to connect anew
    int port = 0;                     // the one that the card accepted
    std::vector<std::byte> converted; // items in the order of the wire, used under the mutex
};

// Connects to a card: the generation-1 port first when it is positive, then the other, both within fem_timeout. ^C ends
// the wait. Null with the text kept. May be called by several threads at once.
std::unique_ptr<FemHandle> pulsar3FemInitialise(const char *host, int port1, int port2);
void pulsar3FemClose(std::unique_ptr<FemHandle> handle);

// Registers of a channel (chan 0..15, region 0..15, offset in words); globals are channel 15, region 15. A transfer
// ends with its region.
inline constexpr int fem_max_chan = 16;
inline constexpr int fem_max_region = 16;
inline constexpr int fem_region_words = 0x10000;

int pulsar3FemSetInt(FemHandle &h, int chan, int region, int offset, std::uint32_t value);
int pulsar3FemGetInt(FemHandle &h, int chan, int region, int offset, std::uint32_t &value);
int pulsar3FemSetIntArray(FemHandle &h, int chan, int region, int offset,
                          std::span<const std::uint32_t> values);
int pulsar3FemGetIntArray(FemHandle &h, int chan, int region, int offset, std::span<std::uint32_t> values);
// new = (old & mask) | value, done by the card; `result` is the new value.
int pulsar3FemRMW(FemHandle &h, int chan, int region, int offset, std::uint32_t mask, std::uint32_t value,
                  std::uint32_t &result);
// The values to the same registers of each of these channels; generation 2 has up to max_posted_writes (at most 16)
// writes under way at once. After a refusal the other writes of the same go may have been done. With room for a status
// of each channel a refused one does not keep the others from being written, and the result is 0 if the card answered.
int pulsar3FemSetIntChans(FemHandle &h, int first_chan, int num_chan, int region, int offset,
                          std::span<const std::uint32_t> values, std::span<int> statuses = {});

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
// Programs the card's UDP engine: where it sends from and to. `card_mac` has six bytes; addresses are numeric.
int pulsar3FemConfigUDP(FemHandle &h, const std::uint8_t *card_mac, const char *card_ip, int card_port,
                        const char *host_ip, int host_port);
int pulsar3FemSetHostPort(FemHandle &h, int port);
int pulsar3FemSetPacketSize(FemHandle &h, int bytes); // trailer included, a multiple of 8
int pulsar3FemResetFrameCounter(FemHandle &h, int value);

// Serial buses and controllers; a word's address counts by 1. A channel's SPI address is chan << 8 + device.
int pulsar3FemSPIWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemSPIRead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemMPSPIWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemMPSPIRead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemChanSPIWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemChanSPIRead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemWriteFanControl(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemReadFanControl(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemConfigWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemConfigRead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemXADCRead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemEEPROMWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemEEPROMRead(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);

// I2C devices and their registers, 0..255 each; a transfer fits into one request.
int pulsar3FemI2CWrite(FemHandle &h, int device, std::span<const std::uint8_t> bytes);
int pulsar3FemI2CRead(FemHandle &h, int device, std::span<std::uint8_t> bytes);
int pulsar3FemI2CWriteRegAddr(FemHandle &h, int device, int reg, std::span<const std::uint8_t> bytes);
int pulsar3FemI2CReadRegAddr(FemHandle &h, int device, int reg, std::span<std::uint8_t> bytes);

// Memories, by byte address.
int pulsar3FemDRAMWrite(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemWriteDMABuff(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemReadDMABuff(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
// Rows of `width` words, `pitch` words apart, packed into `values`.
int pulsar3FemReadDMABuffRoI(FemHandle &h, std::uint32_t address, std::uint32_t width, std::uint32_t rows,
                             std::uint32_t pitch, std::span<std::uint32_t> values);
int pulsar3FemZeroDMABuff(FemHandle &h, std::uint32_t address, std::uint32_t words);
int pulsar3FemReadMiniHistogram(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);

// Blocks of generation-2 cards, by byte address.
int pulsar3FemWriteDMAorClk(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemReadDMAorClk(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemSetIntMGTDRP(FemHandle &h, std::uint32_t address, std::uint32_t value);
int pulsar3FemGetIntMGTDRP(FemHandle &h, std::uint32_t address, std::uint32_t &value);
int pulsar3FemSetIntArrayMGTDRP(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemGetIntArrayMGTDRP(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemReadRawReg(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);
int pulsar3FemWriteReadoutMode(FemHandle &h, std::uint32_t mode);
int pulsar3FemReadReadoutMode(FemHandle &h, std::uint32_t &mode);
// No protocol has a target for these: refused.
int pulsar3FemWriteDriverStatics(FemHandle &h, std::uint32_t address, std::span<const std::uint32_t> values);
int pulsar3FemReadDriverStatics(FemHandle &h, std::uint32_t address, std::span<std::uint32_t> values);

// Messages to the card's DMA engine: a code and the words that it wants, the mask of streams first.
int pulsar3FemPersonalityWrite(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words);
// The same for a code that is answered with data; at most four words in.
int pulsar3FemPersonalityRead(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words,
                              std::span<std::uint32_t> result);
int pulsar3FemGetDMAStatusBlock(FemHandle &h, std::uint32_t stream_mask,
                                std::span<std::uint32_t, dma_status_words> block);

} // namespace kestrel
