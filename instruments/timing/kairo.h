// instruments/timing: what is known of the timing unit, and the exchanges with the server that drives it. Command thread.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace kestrel {

inline constexpr std::size_t kairo_summary_lines = 12;
inline constexpr std::size_t kairo_summary_width = 100; // characters

inline constexpr int kairo_unconfigured = 1, kairo_brecon = 2, kairo_ikairo = 50,
                     kairo_remote = 100;                                       // kairo_version
inline constexpr int rkairo_tallis = 1, rkairo_brecon = 2, rkairo_merlot = 50; // rkairo_version

struct kairo_state {
    int kairo_version = kairo_unconfigured;
    int rkairo_version = rkairo_tallis; // the unit of the remote server
    bool debug = false;                 // shows what is sent
    int num_frames = 0;                 // as the remote told last; also the variable num_tf
    int num_laps = 1;                   // of the last `generate`
    int num_starts = 0;                 // since they were cleared
    std::array<std::string, kairo_summary_lines>
        summary; // of the last set-up, for logs; ends at the first empty line
};

extern kairo_state kairo;

// The lines of the set-up, at most 12 of at most 100 characters each.
std::span<const std::string> kairo_summary();

// A new summary, which says that nothing is known of the set-up, and one made of the lines of a set-up.
void kairo_summary_unknown();
void kairo_summary_of(std::span<const std::string> lines);

// False, after a line, when the remote unit is not configured.
bool kairo_ready(int cn);

// Runs a command on the remote server: its integer result, or -1.
int kairo_send(int cn, const std::string &text);

// After a new set of frames: brings frame times and the number of frames here. The number, or -1.
int kairo_fetch_frames(int cn);

// Sends the text of a `generate` of so many laps and fetches what it made: 0 or -1.
int kairo_generate(int cn, int laps, const std::string &text);

// Starts (or arms) with that text, and counts it: 0 or -1.
int kairo_start(int cn, const std::string &text);

} // namespace kestrel
