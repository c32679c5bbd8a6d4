// pulsar3/lib/boards: the temperature sensors of a card, of type LM82 (National Semiconductor data sheet DS101297: its
// registers' numbers, and that a register is written at another number than it is read at).
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace kestrel {

struct lm82_register {
    int number; // to read it
    const char *name;
    bool is_temperature; // signed degrees Celsius
};
inline constexpr std::array lm82_registers{
    lm82_register{0x00, "local temperature", true}, lm82_register{0x01, "remote temperature", true},
    lm82_register{0x02, "status", false},           lm82_register{0x03, "configuration", false},
    lm82_register{0x05, "local high limit", true},  lm82_register{0x07, "remote high limit", true},
    lm82_register{0x42, "critical limit", true},    lm82_register{0xfe, "maker", false},
    lm82_register{0xff, "revision", false},
};

// The sensors of a card, by number.
struct board_sensor {
    int device; // I2C
    const char *name;
};
inline constexpr std::array board_sensors{
    board_sensor{0x18, "processing FPGA"},
    board_sensor{0x29, "mid-plane"},
    board_sensor{0x48, "ADC board"},
    board_sensor{0x4c, "link FPGA"},
};

// All registers of one sensor. 0, or a negative status with its text kept.
int plr3_read_lm82_regs(int path, int card, int sensor,
                        std::span<std::uint8_t, lm82_registers.size()> registers);

// The temperature above which the ADC board's sensor raises its alarm, degrees Celsius 0..125; card -1 for all.
int plr3_set_adc_temp(int path, int card, int degrees);

} // namespace kestrel
