#include "pulsar3/lib/wire/fem.h"

#include "pulsar3/lib/wire/access.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/targets.h"

#include <algorithm>
#include <array>
#include <optional>

namespace kestrel {

namespace {

using words_in = std::span<const std::uint32_t>;
using words_out = std::span<std::uint32_t>;

bool generation1(const FemHandle &h) {
    return h.protocol_generation == ProtocolFEM1;
}

// Where the access goes by the handle's protocol; none, with the text, when that has no such target.
std::optional<fem_target> target_of(const FemHandle &h, fem_kind kind, std::uint32_t address) {
    const fem_row &row = fem_row_of(kind);
    const auto &route = generation1(h) ? row.fem1 : row.fem2;
    if (!route) {
        plr3_fail(plr3_failed, "FEM protocol generation %d has no access to %s", h.protocol_generation + 1,
                  row.name);
        return {};
    }
    return fem_target{
        .bus = route->bus, .width = row.width, .address = address + route->offset, .step = row.step};
}

// A target whose address does not advance takes what fits into one request.
bool too_long(const FemHandle &h, const fem_target &target, std::size_t bytes) {
    const auto most = static_cast<std::size_t>(std::min(h.max_tx_bytes, h.max_rx_bytes));
    if (target.step != 0 || bytes <= most)
        return false;
    plr3_fail(plr3_failed, "FEM transfer of %zu bytes is too long, at most %zu", bytes, most);
    return true;
}

int write_to(FemHandle &h, const std::optional<fem_target> &target, std::span<const std::byte> items) {
    if (!target || too_long(h, *target, items.size()))
        return plr3_failed;
    const std::scoped_lock lock(h.mutex);
    return generation1(h) ? femAccessWrite(h, *target, items) : plr4AccessWrite(h, *target, items);
}

int read_from(FemHandle &h, const std::optional<fem_target> &target, std::span<std::byte> items) {
    if (!target || too_long(h, *target, items.size()))
        return plr3_failed;
    const std::scoped_lock lock(h.mutex);
    return generation1(h) ? femAccessRead(h, *target, items) : plr4AccessRead(h, *target, items);
}

int modify(FemHandle &h, const std::optional<fem_target> &target, std::uint32_t mask, std::uint32_t value,
           std::uint32_t &result) {
    if (!target)
        return plr3_failed;
    const std::scoped_lock lock(h.mutex);
    return generation1(h) ? femAccessRMW(h, *target, mask, value, result)
                          : plr4AccessRMW(h, *target, mask, value, result);
}

int write_words(FemHandle &h, fem_kind kind, std::uint32_t address, words_in values) {
    return write_to(h, target_of(h, kind, address), std::as_bytes(values));
}

int read_words(FemHandle &h, fem_kind kind, std::uint32_t address, words_out values) {
    return read_from(h, target_of(h, kind, address), std::as_writable_bytes(values));
}

constexpr std::uint32_t chan_bytes = 4U << 20;

// The registers of a channel; none, with the text, when there are no such registers.
std::optional<fem_target> registers_of(const FemHandle &h, int chan, int region, int offset,
                                       std::size_t count) {
    const bool inside = chan >= 0 && chan < fem_max_chan && region >= 0 && region < fem_max_region &&
                        offset >= 0 && offset < fem_region_words &&
                        count <= static_cast<std::size_t>(fem_region_words - offset);
    if (!inside) {
        plr3_fail(plr3_failed, "No such FEM registers: channel %d, region %d, offset %d, %zu words", chan,
                  region, offset, count);
        return {};
    }
    const auto word = static_cast<std::uint32_t>(chan << 20 | region << 16 | offset);
    return target_of(h, fem_kind::registers, h.base_address + 4 * word);
}

std::optional<fem_target> local_words(const FemHandle &h, int offset) {
    if (offset >= 0 && offset < 0x40000000)
        return target_of(h, fem_kind::local, 4 * static_cast<std::uint32_t>(offset));
    plr3_fail(plr3_failed, "No such local FEM register: offset %d", offset);
    return {};
}

bool is_byte(int value) {
    return value >= 0 && value <= 0xFF;
}

std::optional<fem_target> i2c_device(const FemHandle &h, int device) {
    if (is_byte(device))
        return target_of(h, fem_kind::i2c, static_cast<std::uint32_t>(device));
    plr3_fail(plr3_failed, "No such I2C device: %d", device);
    return {};
}

std::optional<fem_target> i2c_register(const FemHandle &h, int device, int reg) {
    if (is_byte(device) && is_byte(reg))
        return target_of(h, fem_kind::i2c, static_cast<std::uint32_t>(0x10000 + (reg << 8) + device));
    plr3_fail(plr3_failed, "No such I2C register: device %d, register %d", device, reg);
    return {};
}

} // namespace

int pulsar3FemSetInt(FemHandle &h, int chan, int region, int offset, std::uint32_t value) {
    return pulsar3FemSetIntArray(h, chan, region, offset, {&value, 1});
}
int pulsar3FemGetInt(FemHandle &h, int chan, int region, int offset, std::uint32_t &value) {
    return pulsar3FemGetIntArray(h, chan, region, offset, {&value, 1});
}
int pulsar3FemSetIntArray(FemHandle &h, int chan, int region, int offset, words_in values) {
    return write_to(h, registers_of(h, chan, region, offset, values.size()), std::as_bytes(values));
}
int pulsar3FemGetIntArray(FemHandle &h, int chan, int region, int offset, words_out values) {
    return read_from(h, registers_of(h, chan, region, offset, values.size()), std::as_writable_bytes(values));
}
int pulsar3FemRMW(FemHandle &h, int chan, int region, int offset, std::uint32_t mask, std::uint32_t value,
                  std::uint32_t &result) {
    return modify(h, registers_of(h, chan, region, offset, 1), mask, value, result);
}

int pulsar3FemSetIntChans(FemHandle &h, int first_chan, int num_chan, int region, int offset, words_in values,
                          std::span<int> statuses) {
    if (num_chan == 0)
        return 0;
    if (!statuses.empty() && statuses.size() < static_cast<std::size_t>(std::max(num_chan, 0)))
        return plr3_fail(plr3_failed, "No room for the statuses of %d channels", num_chan);
    std::ranges::fill(statuses, 0);
    if (num_chan < 0 || num_chan > fem_max_chan || first_chan > fem_max_chan - num_chan)
        return plr3_fail(plr3_failed, "No such FEM registers: %d channels from %d", num_chan, first_chan);
    auto target = registers_of(h, first_chan, region, offset, values.size());
    if (target) {
        target->copies = static_cast<unsigned>(num_chan);
        target->copy_step = chan_bytes;
        target->statuses = statuses.empty() ? nullptr : statuses.data();
    }
    return write_to(h, target, std::as_bytes(values));
}

int pulsar3FemLocalWrite(FemHandle &h, int offset, words_in values) {
    return write_to(h, local_words(h, offset), std::as_bytes(values));
}
int pulsar3FemLocalRead(FemHandle &h, int offset, words_out values) {
    return read_from(h, local_words(h, offset), std::as_writable_bytes(values));
}
int pulsar3FemLocalRMW(FemHandle &h, int offset, std::uint32_t mask, std::uint32_t value,
                       std::uint32_t &result) {
    return modify(h, local_words(h, offset), mask, value, result);
}

int pulsar3FemRDMAWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::rdma, address, values);
}
int pulsar3FemRDMARead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::rdma, address, values);
}
int pulsar3FemRDMARMW(FemHandle &h, std::uint32_t address, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result) {
    return modify(h, target_of(h, fem_kind::rdma, address), mask, value, result);
}

int pulsar3FemSPIWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::spi, address, values);
}
int pulsar3FemSPIRead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::spi, address, values);
}
int pulsar3FemMPSPIWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::mid_plane_spi, address, values);
}
int pulsar3FemMPSPIRead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::mid_plane_spi, address, values);
}
int pulsar3FemChanSPIWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::channel_spi, address, values);
}
int pulsar3FemChanSPIRead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::channel_spi, address, values);
}
int pulsar3FemWriteFanControl(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::fan, address, values);
}
int pulsar3FemReadFanControl(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::fan, address, values);
}
int pulsar3FemConfigWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::config, address, values);
}
int pulsar3FemConfigRead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::config, address, values);
}
int pulsar3FemXADCRead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::xadc, address, values);
}
int pulsar3FemEEPROMWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::eeprom, address, values);
}
int pulsar3FemEEPROMRead(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::eeprom, address, values);
}

int pulsar3FemI2CWrite(FemHandle &h, int device, std::span<const std::uint8_t> bytes) {
    return write_to(h, i2c_device(h, device), std::as_bytes(bytes));
}
int pulsar3FemI2CRead(FemHandle &h, int device, std::span<std::uint8_t> bytes) {
    return read_from(h, i2c_device(h, device), std::as_writable_bytes(bytes));
}
int pulsar3FemI2CWriteRegAddr(FemHandle &h, int device, int reg, std::span<const std::uint8_t> bytes) {
    return write_to(h, i2c_register(h, device, reg), std::as_bytes(bytes));
}
int pulsar3FemI2CReadRegAddr(FemHandle &h, int device, int reg, std::span<std::uint8_t> bytes) {
    return read_from(h, i2c_register(h, device, reg), std::as_writable_bytes(bytes));
}

int pulsar3FemDRAMWrite(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::dram, address, values);
}
int pulsar3FemWriteDMABuff(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::dma_buff, address, values);
}
int pulsar3FemReadDMABuff(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::dma_buff, address, values);
}

int pulsar3FemReadDMABuffRoI(FemHandle &h, std::uint32_t address, std::uint32_t width, std::uint32_t rows,
                             std::uint32_t pitch, words_out values) {
    if (width == 0)
        return 0;
    if (std::size_t{rows} * width > values.size())
        return plr3_fail(plr3_failed, "FEM region of %u rows of %u words does not fit in %zu words", rows,
                         width, values.size());
    for (std::uint32_t row = 0; row < rows; ++row) {
        const auto to = values.subspan(std::size_t{row} * width, width);
        if (const int rc = pulsar3FemReadDMABuff(h, address + 4 * row * pitch, to))
            return rc;
    }
    return 0;
}

// Generation 1 has no command for it: the zeros travel.
int pulsar3FemZeroDMABuff(FemHandle &h, std::uint32_t address, std::uint32_t words) {
    if (!generation1(h)) {
        const auto target = target_of(h, fem_kind::dma_buff, address);
        const std::scoped_lock lock(h.mutex);
        return plr4AccessZero(h, *target, words);
    }
    constexpr std::array<std::uint32_t, 4096> zeros{};
    while (words > 0) {
        const auto piece = std::min<std::uint32_t>(words, zeros.size());
        if (const int rc = pulsar3FemWriteDMABuff(h, address, words_in(zeros).first(piece)))
            return rc;
        address += 4 * piece;
        words -= piece;
    }
    return 0;
}

int pulsar3FemReadMiniHistogram(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::mini_histogram, address, values);
}

int pulsar3FemWriteDMAorClk(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::dma_or_clk, address, values);
}
int pulsar3FemReadDMAorClk(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::dma_or_clk, address, values);
}
int pulsar3FemSetIntMGTDRP(FemHandle &h, std::uint32_t address, std::uint32_t value) {
    return pulsar3FemSetIntArrayMGTDRP(h, address, {&value, 1});
}
int pulsar3FemGetIntMGTDRP(FemHandle &h, std::uint32_t address, std::uint32_t &value) {
    return pulsar3FemGetIntArrayMGTDRP(h, address, {&value, 1});
}
int pulsar3FemSetIntArrayMGTDRP(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::mgt_drp, address, values);
}
int pulsar3FemGetIntArrayMGTDRP(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::mgt_drp, address, values);
}
int pulsar3FemReadRawReg(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::raw_register, address, values);
}
int pulsar3FemWriteReadoutMode(FemHandle &h, std::uint32_t mode) {
    return write_words(h, fem_kind::readout_mode, 0, {&mode, 1});
}
int pulsar3FemReadReadoutMode(FemHandle &h, std::uint32_t &mode) {
    return read_words(h, fem_kind::readout_mode, 0, {&mode, 1});
}
int pulsar3FemWriteDriverStatics(FemHandle &h, std::uint32_t address, words_in values) {
    return write_words(h, fem_kind::driver_statics, address, values);
}
int pulsar3FemReadDriverStatics(FemHandle &h, std::uint32_t address, words_out values) {
    return read_words(h, fem_kind::driver_statics, address, values);
}

int pulsar3FemPersonalityWrite(FemHandle &h, std::uint32_t code, words_in words) {
    if (words.empty())
        return 0;
    if (words.size_bytes() > static_cast<std::size_t>(h.max_tx_bytes))
        return plr3_fail(plr3_failed, "FEM personality command of %zu words is too long", words.size());
    const std::scoped_lock lock(h.mutex);
    return generation1(h) ? femPersonalityWrite(h, code, words) : plr4PersonalityWrite(h, code, words);
}

int pulsar3FemPersonalityRead(FemHandle &h, std::uint32_t code, words_in words, words_out result) {
    if (words.size_bytes() > plr4_embedded_max ||
        result.size_bytes() > static_cast<std::size_t>(h.max_rx_bytes))
        return plr3_fail(plr3_failed, "FEM personality command of %zu words for %zu is too long",
                         words.size(), result.size());
    if (result.empty())
        return 0;
    const std::scoped_lock lock(h.mutex);
    return generation1(h) ? femPersonalityRead(h, code, words, result)
                          : plr4PersonalityRead(h, code, words, result);
}

int pulsar3FemGetDMAStatusBlock(FemHandle &h, std::uint32_t stream_mask,
                                std::span<std::uint32_t, dma_status_words> block) {
    return pulsar3FemPersonalityRead(h, personality_dma_status, {&stream_mask, 1}, block);
}

} // namespace kestrel
