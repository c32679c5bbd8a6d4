// pulsar3/lib/wire: the two control protocols of a card, as they lie on the wire. Generation 1 is big-endian,
// generation 2 little-endian.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace kestrel {

enum ProtocolGeneration : int { ProtocolFEM1 = 0, ProtocolFEM2 = 1 };

inline constexpr std::uint32_t protocol_magic = 0xDEADBEEF;

enum protocol_commands : std::uint8_t {
    CMD_UNSUPPORTED = 0,
    CMD_ACCESS = 1,
    CMD_INTERNAL = 2,
    CMD_ACQUIRE = 3,
    CMD_PERSONALITY = 4,
};

enum protocol_bus_type : std::uint8_t {
    BUS_UNSUPPORTED = 0,
    BUS_EEPROM = 1,
    BUS_I2C = 2,
    BUS_RAW_REG = 3,
    BUS_RDMA = 4,
    BUS_SPI = 5,
    BUS_DIRECT = 6,
    BUS_FAN_CONT = 7,
    BUS_FEM_CONFIG = 8,
};

enum protocol_data_width : std::uint8_t {
    WIDTH_UNSUPPORTED = 0,
    WIDTH_BYTE = 1,
    WIDTH_WORD = 2,
    WIDTH_LONG = 3
};

constexpr std::size_t width_bytes(protocol_data_width width) {
    return width == WIDTH_LONG ? 4 : width == WIDTH_WORD ? 2 : 1;
}

enum protocol_status : std::uint8_t {
    STATE_UNSUPPORTED = 0,
    STATE_READ = 1,
    STATE_WRITE = 2,
    STATE_ACK = 6,
    STATE_NACK = 7,
};

// Bits that an answer's state has besides the request's.
inline constexpr std::uint8_t state_acknowledged = 0x20;
inline constexpr std::uint8_t state_refused = 0x40;

constexpr bool acknowledges(std::uint8_t state) {
    return (state & (state_acknowledged | state_refused)) == state_acknowledged;
}

enum plr4_protocol_commands : std::uint8_t {
    PLR4_CMD_UNSUPPORTED = 0,
    PLR4_CMD_READ = 1,
    PLR4_CMD_WRITE = 2,
    PLR4_CMD_WRITE_EMB = 3,
    PLR4_CMD_RMW = 4,
    PLR4_CMD_PERSONALITY_READ = 5,
    PLR4_CMD_PERSONALITY_WRITE = 6,
    PLR4_CMD_PERSONALITY_WRITE_EMB = 7,
    PLR4_CMD_MEM_ZERO = 8,
};

enum plr4_protocol_bus_type : std::uint8_t {
    PLR4_BUS_LOCAL = 0,
    PLR4_BUS_PULSAR = 1,
    PLR4_BUS_RDMA = 2,
    PLR4_BUS_DMA = 3,
    PLR4_BUS_RDRAM = 4,
    PLR3M_BUS_PB_SCOPE = 5,
    PLR3M_BUS_HIST = 6,
    PLR4_BUS_MGT_DRP = 7,
    PLR4_BUS_DIRECT = 15,
    PLR4_BUS_EEPROM = 16,
    PLR4_BUS_I2C = 17,
    PLR4_BUS_SPI = 18,
    PLR4_BUS_FAN_CONT = 19,
    PLR4_BUS_FEM_CONFIG = 20,
    PLR4_BUS_DMA_STATUS = 21,
    PLR4_BUS_CHAN_SPI = 22,
    PLR4_BUS_XADC = 23,
    PLR4_BUS_READOUT_MODE = 24,
    PLR4_BUS_DMA_BUFF = 100,
};

// Between memory and the wire, either way.
constexpr std::uint32_t big_endian(std::uint32_t value) {
    return std::endian::native == std::endian::little ? __builtin_bswap32(value) : value;
}
constexpr std::uint16_t big_endian(std::uint16_t value) {
    return std::endian::native == std::endian::little ? __builtin_bswap16(value) : value;
}
static_assert(std::endian::native == std::endian::little,
              "generation-2 headers and data travel as they lie in memory");

// Generation 1, request and answer; every field big-endian. An answer has one word after it: how many items it is
// about. So has the request to read, as its payload.
struct ProtocolHeader {
    std::uint32_t magic;
    std::uint8_t command;    // protocol_commands
    std::uint8_t bus_target; // protocol_bus_type
    std::uint8_t data_width; // protocol_data_width
    std::uint8_t state;      // STATE_READ or STATE_WRITE; in an answer, with its bits
    std::uint32_t address;
    std::uint32_t payload_sz; // bytes that follow
};
static_assert(sizeof(ProtocolHeader) == 16);
static_assert(offsetof(ProtocolHeader, command) == 4 && offsetof(ProtocolHeader, bus_target) == 5 &&
              offsetof(ProtocolHeader, data_width) == 6 && offsetof(ProtocolHeader, state) == 7 &&
              offsetof(ProtocolHeader, address) == 8 && offsetof(ProtocolHeader, payload_sz) == 12);

struct ProtocolAnswer {
    ProtocolHeader header;
    std::uint32_t count;
};
static_assert(sizeof(ProtocolAnswer) == 20 && offsetof(ProtocolAnswer, count) == 16);

// Generation 2, request and answer; every field little-endian.
struct plr4_protocol_header {
    std::uint32_t magic;
    std::uint32_t sequence;
    std::uint8_t command;    // plr4_protocol_commands
    std::uint8_t bus_target; // plr4_protocol_bus_type
    std::uint8_t data_width; // protocol_data_width
    std::uint8_t state;      // 0 in requests
    std::uint32_t address;
    std::uint32_t num_ops;    // items
    std::uint32_t payload_sz; // bytes that follow; an embedded write's data begin here
    std::uint32_t extra1;
    std::uint32_t extra2;
    std::uint32_t extra3;
};
static_assert(sizeof(plr4_protocol_header) == 36);
static_assert(offsetof(plr4_protocol_header, sequence) == 4 && offsetof(plr4_protocol_header, command) == 8 &&
              offsetof(plr4_protocol_header, bus_target) == 9 &&
              offsetof(plr4_protocol_header, data_width) == 10 &&
              offsetof(plr4_protocol_header, state) == 11 && offsetof(plr4_protocol_header, address) == 12 &&
              offsetof(plr4_protocol_header, num_ops) == 16 &&
              offsetof(plr4_protocol_header, payload_sz) == 20 &&
              offsetof(plr4_protocol_header, extra1) == 24 && offsetof(plr4_protocol_header, extra3) == 32);

inline constexpr std::size_t plr4_embedded_offset = offsetof(plr4_protocol_header, payload_sz);
inline constexpr std::size_t plr4_embedded_max = sizeof(plr4_protocol_header) - plr4_embedded_offset;

// What a card takes and gives at once, and where its registers begin.
struct protocol_limits {
    int max_tx_bytes; // the largest payload of a request
    int max_rx_bytes; // and of an answer
    std::uint32_t base_address;
};
inline constexpr protocol_limits fem1_limits{0x10000, 1020, 0xA0000000};
inline constexpr protocol_limits fem2_limits{0x10000, 0x10000, 0};
inline constexpr std::size_t fem1_direct_tx_bytes = 1024; // to BUS_DIRECT

// DMA engine messages that are answered with data.
inline constexpr std::uint32_t personality_dma_status = 10;
inline constexpr std::size_t dma_status_words = 8 + 8 * 13;

} // namespace kestrel
