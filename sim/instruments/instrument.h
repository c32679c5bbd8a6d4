// sim/instruments: the four instruments as the program's rooms share them. One lock guards everything; the wires'
// thread holds it while an instrument answers, the command thread while it looks or changes something.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

namespace kestrel {

// What an instrument sends to one command line, all lines with their ends, and how long it takes to find out.
struct reply {
    std::string bytes;
    double seconds = 0.0;
};

struct instrument {
    std::string_view name;
    bool on_serial, on_tcp;
    reply (*answer)(std::string_view line);

    int tcp_port = 0;               // 0: any that is free
    std::string device{};           // of the serial line
    bool present = true;            // its wires are there
    std::deque<std::string> seen{}; // the last command lines, with their ends
    long long commands = 0;
};

reply ke2410_answer(std::string_view line);
reply ke2700_answer(std::string_view line);
reply tti_answer(std::string_view line);
reply iseg_answer(std::string_view line);

inline constexpr std::size_t seen_max = 50000;

struct bench_state {
    std::mutex lock;
    std::array<instrument, 4> all{{{"ke2410", true, true, ke2410_answer},
                                   {"ke2700", true, true, ke2700_answer},
                                   {"tti", false, true, tti_answer},
                                   {"iseg", true, false, iseg_answer}}};
    std::uint32_t address = 0x7f000001; // where the TCP ports listen
    std::string links;                  // folder with a link to each serial line, "" for none
    std::uint64_t seed = 1;
    double speed = 1.0; // seconds of the instruments in a second
};
extern bench_state bench;

// Seconds of the instruments since the program began.
double bench_now();

// The instrument of that name; null when there is none.
instrument *bench_find(std::string_view name);

// A command without leading colon, its words in upper case and short, without the blanks around it: ":source1:voltage
// 5 " is "SOUR:VOLT" and "5".
struct scpi_command {
    std::string header, argument;
};
scpi_command scpi_split(std::string_view line);

// An argument as a finite number; false when it is none.
bool scpi_number(std::string_view text, double &value);

} // namespace kestrel
