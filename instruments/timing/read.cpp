// `kairo read`: where the unit is. What it says of status and progress is passed on as it comes.
#include "instruments/links/clients.h"
#include "instruments/timing/commands.h"
#include "instruments/timing/kairo.h"
#include "server/output.h"

namespace kestrel {

namespace {

int read_number(int cn, const char *text) {
    return kairo_ready(cn) ? kairo_send(cn, text) : -1;
}
pt_string read_text(int cn, const char *text) {
    if (!kairo_ready(cn))
        return std::nullopt;
    return links::send_wait_string(cn, links::link_kairo, text);
}

int read_lap(int, int cn) {
    return read_number(cn, "kairo read lap");
}
int read_frame(int, int cn) {
    return read_number(cn, "kairo read frame");
}
int read_full(int, int cn) {
    return read_number(cn, "kairo read full");
}
pt_string read_status(int, int cn) {
    return read_text(cn, "kairo read status");
}
pt_string read_progress(int, int cn) {
    return read_text(cn, "kairo read progress");
}

int read_starts(int, int cn) {
    sv_printf(cn, "! KAIRO 1 not supported\n");
    return -1;
}

} // namespace

constinit const PARSE_TREE kairo_read_tree[] = {
    pt_command<read_lap>("lap", "= %d", "read the lap (cycle) that the KAIRO is in", ""),
    pt_command<read_frame>("frame", "= %d", "read the frame that the KAIRO is in", ""),
    pt_command<read_status>("status", " show-armed = %s", "read the status of the KAIRO",
                            "Tell armed from running"),
    pt_command<read_full>("full", "= %d", "read the full status word of the KAIRO", ""),
    pt_command<read_progress>("progress", "= %s", "read how far the KAIRO is", ""),
    pt_command<read_starts>("starts", "= %d", "read the number of starts (not supported)", ""),
    pt_end(),
};

} // namespace kestrel
