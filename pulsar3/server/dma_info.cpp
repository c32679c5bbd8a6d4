// `pulsar3 dma`: what a card is and how it feels: revision, features, temperatures, its configuration store.
#include "parser/qualifiers.h"
#include "pulsar3/lib/config/config.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

namespace kestrel {

namespace {

const char *generation_name(int generation) {
    static constexpr const char *names[] = {"3", "3V7", "3 mini", "4"};
    return generation >= PulsarGen3 && generation <= PulsarGen4 ? names[generation] : "unknown";
}

// The card's connection: 0, or a negative status after an error line. A dummy has no sensors and no store.
int find_fem(int cn, const char *function, int path, int card, FemHandle *&fem) {
    const int leaf = plr3_card_path(function, path, card);
    if (leaf < 0)
        return pulsar3_status(cn, leaf);
    fem = plr3_path(leaf)->femHandle.get();
    if (fem)
        return 0;
    sv_printf(cn, "! ERROR %s: card %d of path %d is a dummy\n", function, card, path);
    return plr3_failed;
}

constexpr pt_format get_revision_format("%d + %d = %d");

int pulsar3_dma_get_revision(int, int cn, int path, int card) {
    const int leaf = plr3_card_path("plr3_get_revision", path, card);
    if (leaf < 0)
        return pulsar3_status(cn, leaf);
    const PLR3Path &found = *plr3_path(leaf);
    const std::uint32_t word = static_cast<std::uint32_t>(found.revision);
    sv_printf(cn, "# Card %d: revision 0x%08X, version %u.%u, generation %s\n", card, word,
              plr3_bits(word, 12, 23), plr3_bits(word, 0, 3), generation_name(found.features.generation));
    return found.revision;
}

constexpr pt_format get_features_format("%d + %d = %d");

int pulsar3_dma_get_features(int, int cn, int path, int card) {
    const int leaf = plr3_card_path("plr3_get_features", path, card);
    if (leaf < 0)
        return pulsar3_status(cn, leaf);
    const PLR3Path &found = *plr3_path(leaf);
    sv_printf(cn, "# generation             %s\n", generation_name(found.features.generation));
    for (const plr3_feature_row &row : plr3_feature_rows)
        sv_printf(cn, "# %-22s %d\n", row.name, row.value(found.features));
    return 0;
}

// ---- temperatures, degrees Celsius; the status after an error line

// A temperature sensor with one signed byte a degree in its register 0.
double read_sensor(int cn, const char *function, int path, int card, int device) {
    FemHandle *fem = nullptr;
    if (const int status = find_fem(cn, function, path, card, fem); status != 0)
        return status;
    std::uint8_t degrees = 0;
    const int status = pulsar3FemI2CReadRegAddr(*fem, device, 0, {&degrees, 1});
    return status != 0 ? pulsar3_status(cn, status) : static_cast<std::int8_t>(degrees);
}

constexpr int adc_sensor = 0x48, mid_plane_sensor = 0x29; // I2C devices

constexpr pt_format read_adc_temp_format("%d %d = %g");

double pulsar3_dma_read_adc_temp(int, int cn, int path, int card) {
    return read_sensor(cn, "plr3_read_adc_temp", path, card, adc_sensor);
}

constexpr pt_format read_mid_plane_temp_format("%d %d = %g");

double pulsar3_dma_read_mid_plane_temp(int, int cn, int path, int card) {
    return read_sensor(cn, "plr3_read_mid_plane_temp", path, card, mid_plane_sensor);
}

constexpr pt_format read_fpga_temp_format("%d %d = %g");

// The monitor's first register has the temperature in its upper 12 of 16 bits: 503.975 K over the full scale (Xilinx
// UG480, transfer function of the on-chip sensor).
double pulsar3_dma_read_fpga_temp(int, int cn, int path, int card) {
    FemHandle *fem = nullptr;
    if (const int status = find_fem(cn, "plr3_read_fpga_temp", path, card, fem); status != 0)
        return status;
    std::uint32_t word = 0;
    if (const int status = pulsar3FemXADCRead(*fem, 0, {&word, 1}); status != 0)
        return pulsar3_status(cn, status);
    return plr3_bits(word, 4, 15) * 503.975 / 4096.0 - 273.15;
}

// ---- the configuration store

constexpr pt_format read_fem_config_format("%d %d %d = %d");

int pulsar3_dma_read_fem_config(int, int cn, int path, int card, int address) {
    FemHandle *fem = nullptr;
    if (const int status = find_fem(cn, "plr3_read_fem_config", path, card, fem); status != 0)
        return status;
    std::uint32_t word = 0;
    const int status = pulsar3FemConfigRead(*fem, static_cast<std::uint32_t>(address), {&word, 1});
    if (status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Card %d configuration %d = 0x%08X\n", card, address, word);
    return static_cast<int>(word);
}

constexpr pt_format set_fem_config_format("%d %d %d %d = %d");

int pulsar3_dma_set_fem_config(int, int cn, int path, int card, int address, int value) {
    FemHandle *fem = nullptr;
    if (const int status = find_fem(cn, "plr3_set_fem_config", path, card, fem); status != 0)
        return status;
    const std::uint32_t word = static_cast<std::uint32_t>(value);
    return pulsar3_status(cn, pulsar3FemConfigWrite(*fem, static_cast<std::uint32_t>(address), {&word, 1}));
}

// ---- receive buffers

constexpr pt_format set_udp_buffers_format("%d %d %d = %d");

// The result is the least that the system gives.
int pulsar3_dma_set_udp_buffers(int, int cn, int path, int card, int bytes) {
    return pulsar3_status(cn, plr3_set_udp_buffer_size(path, card, bytes));
}

constexpr pt_format get_udp_buffers_format("%d %d = %d");

int pulsar3_dma_get_udp_buffers(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_get_udp_buffer_size(path, card));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_get_revision = pt_command<pulsar3_dma_get_revision>(
    "get-revision", get_revision_format, "Get the firmware revision of a card", "Path/Card, 0 if not given");

extern constinit const PARSE_TREE row_pulsar3_dma_get_features = pt_command<pulsar3_dma_get_features>(
    "get-features", get_features_format, "List what a card's firmware can do", "Path/Card, 0 if not given");

extern constinit const PARSE_TREE row_pulsar3_dma_read_adc_temp = pt_command<pulsar3_dma_read_adc_temp>(
    "read-adc-temp", read_adc_temp_format, "Read the temperature of a card's ADC board", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_read_mid_plane_temp =
    pt_command<pulsar3_dma_read_mid_plane_temp>("read-mid-plane-temp", read_mid_plane_temp_format,
                                                "Read the temperature of a card's mid-plane", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_read_fpga_temp = pt_command<pulsar3_dma_read_fpga_temp>(
    "read-fpga-temp", read_fpga_temp_format, "Read the temperature of a card's FPGA", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_read_fem_config = pt_command<pulsar3_dma_read_fem_config>(
    "read-fem-config", read_fem_config_format, "Read a word of a card's configuration store",
    "Path/Card/Address");

extern constinit const PARSE_TREE row_pulsar3_dma_set_fem_config = pt_command<pulsar3_dma_set_fem_config>(
    "set-fem-config", set_fem_config_format, "Write a word of a card's configuration store",
    "Path/Card/Address/Value");

extern constinit const PARSE_TREE row_pulsar3_dma_set_udp_buffers = pt_command<pulsar3_dma_set_udp_buffers>(
    "set-udp-buffers", set_udp_buffers_format, "Set the receive buffers of the data link",
    "Path/Card, -1 for all/Bytes a socket");

extern constinit const PARSE_TREE row_pulsar3_dma_get_udp_buffers = pt_command<pulsar3_dma_get_udp_buffers>(
    "get-udp-buffers", get_udp_buffers_format, "Get the least receive buffer of the data link",
    "Path/Card, -1 for all");

} // namespace kestrel
