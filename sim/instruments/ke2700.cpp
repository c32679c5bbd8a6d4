// sim/instruments: the multimeter's commands.
#include "sim/instruments/models.h"

#include <charconv>
#include <cstdio>
#include <random>

namespace kestrel {

ke2700_model ke2700;

namespace {

constexpr int samples_max = 50;

double sample() {
    static std::mt19937_64 random(bench.seed);
    const auto found = ke2700.input.find(ke2700.channel);
    const double value = found == ke2700.input.end() ? 0.0 : found->second;
    if (ke2700.noise <= 0.0)
        return value;
    return value + std::normal_distribution<double>(0.0, ke2700.noise)(random);
}

std::string readings() {
    std::string text;
    for (int n = 0; n < ke2700.samples; ++n) {
        char number[40];
        std::snprintf(number, sizeof number, "%s%+.8E", n ? "," : "", sample());
        text += number;
    }
    return text;
}

// "(@109)": slot 1, channel 9.
void close_channel(std::string_view argument) {
    int number = 0;
    if (argument.starts_with("(@"))
        argument.remove_prefix(2);
    std::from_chars(argument.data(), argument.data() + argument.size(), number);
    ke2700.channel = number % 100;
}

} // namespace

reply ke2700_answer(std::string_view line) {
    const scpi_command split = scpi_split(line);
    if (split.header == "READ?")
        return {readings() + "\r\n", ke2700.seconds * ke2700.samples};
    if (split.header == "*IDN?")
        return {"KEITHLEY INSTRUMENTS INC.,MODEL 2700,0000002,B04\r\n"};
    double number = 0.0;
    if (split.header == "SAMP:COUN") {
        if (scpi_number(split.argument, number) && number >= 1 && number <= samples_max)
            ke2700.samples = static_cast<int>(number);
    } else if (split.header == "ROUT:CLOS")
        close_channel(split.argument);
    else if (split.header.ends_with('?')) {
        const auto found = ke2700.settings.find(split.header.substr(0, split.header.size() - 1));
        if (found != ke2700.settings.end())
            return {found->second + "\r\n"};
    } else
        ke2700.settings[split.header] = split.argument;
    return {};
}

} // namespace kestrel
