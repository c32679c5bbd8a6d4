#include "server/timebar.h"

#include "server/activity.h"
#include "server/outbox.h"
#include "server/output.h"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

namespace kestrel {

int timebar_on = 0;

namespace {

constexpr std::size_t line_size = 1224;
constexpr std::size_t label_max = 1000; // leaves room for the rest of the line

} // namespace

void sv_timebar(int cn, int done, int total, const char *label) {
    static constexpr std::string_view spinner = "-\\|/-\\|/";
    static std::size_t step = 0;
    const std::string name(std::string_view(label ? label : "").substr(0, label_max));
    const double percent = total != 0 ? done * 100.0 / total : 100.0;
    const char spin = spinner[step++ % spinner.size()];
    std::array<char, line_size> line;
    int length = 0;
    if (cn < 0 || cn >= sv_max_clients)
        return;
    activity_progress(cn, done, total, name);
    if (use_network)
        length = std::snprintf(line.data(), line.size(), "@ %d %d '%s'\r\n", done, total, name.c_str());
    else if (label)
        length = std::snprintf(line.data(), line.size(), "@ '%s' %c %3d/%-3d = %5.1f%%  %c", name.c_str(),
                               spin, done, total, percent, '\r');
    else
        length = std::snprintf(line.data(), line.size(), "@ %c %3d/%-3d = %5.1f%%  %c", spin, done, total,
                               percent, '\r');
    outbox_append(cn, {line.data(), static_cast<std::size_t>(length)},
                  {.open_line = timebar_line(), .redraws = true});
    sv_flush_all(cn);
}

} // namespace kestrel
