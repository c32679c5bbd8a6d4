// pulsar3/lib/wire: where each kind of access goes: one row a kind, one column a protocol.
#pragma once

#include "pulsar3/lib/wire/protocol.h"

#include <array>
#include <cstdint>
#include <optional>

namespace kestrel {

enum class fem_kind : std::uint8_t {
    registers,
    local,
    rdma,
    spi,
    mid_plane_spi,
    channel_spi,
    i2c,
    fan,
    config,
    xadc,
    readout_mode,
    dma_buff,
    dram,
    mini_histogram,
    dma_or_clk,
    mgt_drp,
    raw_register,
    eeprom,
    driver_statics,
};

struct fem_route {
    std::uint8_t bus;
    std::uint32_t offset = 0; // added to every address
};

struct fem_row {
    fem_kind kind;
    const char *name; // in the text that refuses it
    std::optional<fem_route> fem1, fem2;
    protocol_data_width width = WIDTH_LONG;
    std::uint32_t step =
        4; // what an item adds to the address; 0: what does not fit into one request is refused
};

inline constexpr std::array fem_rows{
    fem_row{fem_kind::registers, "register", fem_route{BUS_RAW_REG}, fem_route{PLR4_BUS_PULSAR}},
    fem_row{fem_kind::local, "local bus", std::nullopt, fem_route{PLR4_BUS_LOCAL}},
    fem_row{fem_kind::rdma, "RDMA", fem_route{BUS_RDMA}, fem_route{PLR4_BUS_RDMA}, WIDTH_LONG, 1},
    fem_row{fem_kind::spi, "SPI", fem_route{BUS_SPI}, fem_route{PLR4_BUS_SPI}, WIDTH_LONG, 1},
    fem_row{fem_kind::mid_plane_spi, "MPSPI", fem_route{BUS_SPI, 0x1000}, fem_route{PLR4_BUS_SPI, 0x1000},
            WIDTH_LONG, 1},
    fem_row{fem_kind::channel_spi, "ChanSPI", fem_route{BUS_SPI, 0x2000}, fem_route{PLR4_BUS_CHAN_SPI},
            WIDTH_LONG, 1},
    fem_row{fem_kind::i2c, "I2C", fem_route{BUS_I2C}, fem_route{PLR4_BUS_I2C}, WIDTH_BYTE, 0},
    fem_row{fem_kind::fan, "fan controller", fem_route{BUS_FAN_CONT}, fem_route{PLR4_BUS_FAN_CONT},
            WIDTH_LONG, 1},
    fem_row{fem_kind::config, "configuration store", fem_route{BUS_FEM_CONFIG},
            fem_route{PLR4_BUS_FEM_CONFIG}, WIDTH_LONG, 1},
    fem_row{fem_kind::xadc, "XADC", std::nullopt, fem_route{PLR4_BUS_XADC}, WIDTH_LONG, 1},
    fem_row{fem_kind::readout_mode, "readout mode", std::nullopt, fem_route{PLR4_BUS_READOUT_MODE}},
    fem_row{fem_kind::dma_buff, "DMA buffer", fem_route{BUS_DIRECT}, fem_route{PLR4_BUS_DMA_BUFF}},
    fem_row{fem_kind::dram, "DRAM", fem_route{BUS_DIRECT, 0xC0000000}, fem_route{PLR4_BUS_RDRAM}},
    fem_row{fem_kind::mini_histogram, "histogram memory", std::nullopt, fem_route{PLR3M_BUS_HIST}},
    fem_row{fem_kind::dma_or_clk, "DMA or clock block", std::nullopt, fem_route{PLR4_BUS_DMA}},
    fem_row{fem_kind::mgt_drp, "MGT DRP", std::nullopt, fem_route{PLR4_BUS_MGT_DRP}},
    fem_row{fem_kind::raw_register, "raw register", fem_route{BUS_RAW_REG}, fem_route{PLR4_BUS_DIRECT}},
    fem_row{fem_kind::eeprom, "EEPROM", fem_route{BUS_EEPROM}, fem_route{PLR4_BUS_EEPROM}, WIDTH_LONG, 1},
    fem_row{fem_kind::driver_statics, "driver statics", std::nullopt, std::nullopt},
};

constexpr const fem_row &fem_row_of(fem_kind kind) {
    return fem_rows[static_cast<std::size_t>(kind)];
}

static_assert([] {
    for (std::size_t i = 0; i < fem_rows.size(); ++i)
        if (fem_rows[i].kind != static_cast<fem_kind>(i))
            return false;
    return fem_rows.size() == static_cast<std::size_t>(fem_kind::driver_statics) + 1;
}());

} // namespace kestrel
