#include "instruments/timing/kairo.h"

#include "instruments/links/clients.h"
#include "instruments/timing/frame_times.h"
#include "parser/variables.h"
#include "server/output.h"

#include <algorithm>

namespace kestrel {

kairo_state kairo;

std::span<const std::string> kairo_summary() {
    const auto end = std::find(kairo.summary.begin(), kairo.summary.end(), "");
    return {kairo.summary.begin(), end};
}

void kairo_summary_unknown() {
    kairo.summary.fill("");
    kairo.summary.front() = "KAIRO Setup Unknown";
}

void kairo_summary_of(std::span<const std::string> lines) {
    kairo_summary_unknown();
    for (std::size_t i = 0; i < std::min(lines.size(), kairo_summary_lines); ++i)
        kairo.summary[i] = lines[i].substr(0, kairo_summary_width);
}

bool kairo_ready(int cn) {
    if (kairo.kairo_version == kairo_remote)
        return true;
    sv_printf(cn, "! KAIRO 1 not supported\n");
    return false;
}

int kairo_send(int cn, const std::string &text) {
    if (kairo.debug)
        sv_printf(cn, "# Sending '%s'\n", text.c_str());
    return links::send_wait(cn, links::link_kairo, text);
}

// The new times take their place only when the number of frames came, too.
int kairo_fetch_frames(int cn) {
    const frame_times_copy times = frame_times_fetch(cn);
    const int frames = kairo_send(cn, "%num_tf");
    if (frames < 0 || set_int_variable(cn, "num_tf", frames, true) != 0)
        return -1;
    kairo.num_frames = frames;
    if (!times.values.empty())
        frame_times_install(cn, times);
    return frames;
}

} // namespace kestrel
