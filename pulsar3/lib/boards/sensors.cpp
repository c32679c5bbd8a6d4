#include "pulsar3/lib/boards/sensors.h"

#include "pulsar3/lib/boards/board_bus.h"

namespace kestrel {

namespace {

constexpr int adc_sensor = 2, limit_max = 125;
constexpr std::uint32_t write_local_limit = 0x0b; // read at 0x05

std::uint32_t i2c_address(int sensor, std::uint32_t number) {
    return number << 8 | static_cast<std::uint32_t>(board_sensors[static_cast<std::size_t>(sensor)].device);
}

} // namespace

int plr3_read_lm82_regs(int path, int card, int sensor,
                        std::span<std::uint8_t, lm82_registers.size()> registers) {
    constexpr const char *name = "plr3_read_lm82_regs";
    const int last = static_cast<int>(board_sensors.size()) - 1;
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", name, path);
    if (sensor < 0 || sensor > last)
        return plr3_fail(plr3_out_of_range, "%s: sensor %d is out of range 0..%d", name, sensor, last);
    for (std::size_t i = 0; i < registers.size(); ++i) {
        std::uint32_t byte = 0;
        const auto number = static_cast<std::uint32_t>(lm82_registers[i].number);
        if (const int status =
                plr3_board_read(name, path, card, board_bus::i2c, i2c_address(sensor, number), {&byte, 1});
            status != 0)
            return status;
        registers[i] = static_cast<std::uint8_t>(byte);
    }
    return 0;
}

int plr3_set_adc_temp(int path, int card, int degrees) {
    constexpr const char *name = "plr3_set_adc_temp";
    if (plr3_path(path) && (degrees < 0 || degrees > limit_max))
        return plr3_fail(plr3_out_of_range, "%s: a limit of %d degrees is out of range 0..%d", name, degrees,
                         limit_max);
    return plr3_each_card(name, path, card, [&](int one) {
        return plr3_board_set(name, path, one, board_bus::i2c, i2c_address(adc_sensor, write_local_limit),
                              static_cast<std::uint32_t>(degrees));
    });
}

} // namespace kestrel
