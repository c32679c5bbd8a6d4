// files: the text header of a KILN file set, as text and back. Knows no session and no disk.
//
//   line 1   when and by whom it was made
//   line 2   a comment
//   then for each detector ten integers, and the name of its data file; the time frames are the last
//   then lines of the user's own
//
// A header is called Lnn000.Mdd: a letter, the number of the run, the date. Its data files differ in the sixth character.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// The sixth character of a data file's name.
inline constexpr char kiln_saxs = '1', kiln_calib = '2', kiln_waxs = '3', kiln_times = '4';

struct kiln_line {
    std::array<int, 10> numbers{};
    std::string file; // the data file's name
};

// The place of a line's byte order flag: 1 for low byte first.
inline constexpr std::size_t kiln_intel_at = 3;

// A detector as a header has it: pixels 0 is none; rasters 0 is one-dimensional.
struct kiln_detector {
    int pixels = 0, rasters = 0;
    int code = 0, display = 0;
};

struct kiln_header {
    std::string name;           // its own
    std::string title, comment; // a title has at most 80 characters
    int frames = 0;
    bool intel = false, time_v1 = false;
    kiln_detector saxs, waxs;
    int calib_channels = 0, calib_code = 0, calib_display = 0;
    std::vector<std::string> extras;
};

// The detectors of the header in their order.
std::vector<kiln_line> kiln_lines(const kiln_header &header);

// The whole header, made at that local time, each line with this end.
std::string kiln_text(const kiln_header &header, const std::tm &when, const char *line_end);

// The detector lines of a header's text; nothing when it is none, or has no time frames.
std::optional<std::vector<kiln_line>> kiln_parse(std::string_view text);

// The entry of a log: who and when, the comment, the lines of the timing unit's set-up.
std::string kiln_log_entry(const kiln_header &header, const std::tm &when, const char *line_end,
                           std::span<const std::string> summary);

// True for a letter, two characters, "000.", three characters.
bool kiln_is_name(std::string_view name);
// The name of a header's data file of that kind.
std::string kiln_data_name(std::string_view header, char kind);
std::string kiln_name(char letter, int sequence, std::string_view stamp);
// "Mdd": the month as one of 1 to 9 and A to C, the day.
std::string kiln_stamp(const std::tm &when);

// The display type that suits a detector's code by its dimensions; 0 where they are unknown.
int kiln_display_of(std::uint32_t code);

// The time; tests set a clock of their own.
extern std::time_t (*kiln_clock)();
std::tm kiln_local_time();

} // namespace kestrel
