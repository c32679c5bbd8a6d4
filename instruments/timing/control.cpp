// `kairo start`, `wait`, `stop` and their like: the unit at work.
#include "instruments/timing/commands.h"
#include "instruments/timing/forward.h"
#include "instruments/timing/frame_times.h"
#include "instruments/timing/kairo.h"

namespace kestrel {

int kairo_start(int cn, const std::string &text) {
    if (kairo_send(cn, text) < 0)
        return -1;
    ++kairo.num_starts;
    frame_times_scale(cn, kairo.num_laps, kairo.num_starts);
    return 0;
}

namespace {

constexpr pt_format options_format(" auto-disarm %d auto-cont %d signal %d = %d");
constexpr pt_format stop_format(" pause end-of-cycle = %d");
constexpr pt_format start_format(" no-init = %d");
constexpr pt_format cont_format(" no-check = %d");
constexpr pt_format wait_format(" ignore-pause timebar lux luy stream1 stream12 stream3 stream34 = %d");

int options(int quals, int cn) {
    return kairo_forward<options_format>(quals, cn, "kairo options");
}
int init(int, int cn) {
    return kairo_ready(cn) ? kairo_send(cn, "kairo init") : -1;
}
int stop(int quals, int cn) {
    return kairo_forward<stop_format>(quals, cn, "kairo stop");
}
int cont(int quals, int cn) {
    return kairo_forward<cont_format>(quals, cn, "kairo cont", {"no-check"});
}
int wait(int quals, int cn) {
    return kairo_forward<wait_format>(quals, cn, "kairo wait");
}

int list_seq(int, int cn, const char *name) {
    if (!kairo_ready(cn))
        return -1;
    std::string text = "kairo list-seq";
    if (name) {
        const auto quoted = kairo_quoted(cn, name);
        if (!quoted)
            return -1;
        text += *quoted;
    }
    return kairo_send(cn, text);
}

int start_or_arm(int quals, int cn, const char *text) {
    if (!kairo_ready(cn))
        return -1;
    return kairo_start(cn, *kairo_text<start_format>(cn, quals, text));
}
int start(int quals, int cn) {
    return start_or_arm(quals, cn, "kairo start");
}
int arm(int quals, int cn) {
    return start_or_arm(quals, cn, "kairo arm");
}

int clear_starts(int, int cn) {
    if (!kairo_ready(cn))
        return -1;
    kairo_send(cn, "kairo clear-starts");
    kairo.num_starts = 0;
    return 0;
}

// The remote unit scales its own times.
int scale_times(int, int cn, int) {
    if (kairo.kairo_version != kairo_remote)
        frame_times_missing(cn);
    return 0;
}

} // namespace

constinit const PARSE_TREE row_kairo_options = pt_command<options>(
    "options", options_format, "set options of the KAIRO",
    "Disarm after the run (0 or 1)/Continue from pauses by itself (0 or 1)/Signal to send at the end");
constinit const PARSE_TREE row_kairo_init = pt_command<init>("init", "= %d", "initialise the KAIRO", "");
constinit const PARSE_TREE row_kairo_stop =
    pt_command<stop>("stop", stop_format, "Stop the KAIRO2 only",
                     "Pause at the beginning of the next frame/Stop at the end of the current cycle");
constinit const PARSE_TREE row_kairo_list_seq = pt_command<list_seq>(
    "list-seq", " + %s = %d", "list the sequences of frames in the KAIRO", "Name of one sequence");
constinit const PARSE_TREE row_kairo_start =
    pt_command<start>("start", start_format, "start the KAIRO", "Do not initialise before");
constinit const PARSE_TREE row_kairo_arm =
    pt_command<arm>("arm", start_format, "arm the KAIRO for an external start", "Do not initialise before");
constinit const PARSE_TREE row_kairo_cont = pt_command<cont>(
    "cont", cont_format, "continue the KAIRO from a pause", "Do not check that it is paused");
constinit const PARSE_TREE row_kairo_wait = pt_command<wait>(
    "wait", wait_format, "wait until the KAIRO stops or pauses ",
    "Wait on through pauses/Show progress/Watch look-up board for X/Watch look-up board for Y/Watch stream 1/"
    "Watch streams 1 and 2/Watch stream 3/Watch streams 3 and 4");
constinit const PARSE_TREE row_kairo_clear_starts =
    pt_command<clear_starts>("clear-starts", " = %d", "clear the count of starts", "");
constinit const PARSE_TREE row_kairo_scale_times = pt_command<scale_times>(
    "scale-times", " + %d = %d", "Scale total integration time if number of starts since clear > 1",
    "Number of starts");

} // namespace kestrel
