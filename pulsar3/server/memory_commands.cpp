// The `pulsar3` commands that fill the block memories of channels: load-..., init-brams, init-event-tail.
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/memories.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/table_source.h"
#include "pulsar3/server/told_here.h"
#include "server/output.h"

namespace kestrel {

namespace {

constexpr pt_format load_format(
    "%d %d by-width  binary swap from-local-file %s from-remote-file %s on %s user %s password %s from-module %s header %s zero  = %d");
using load_quals = pt_qualifiers<load_format>;

// The keywords that make sense together, or a line.
bool check_keywords(int cn, const load_quals &q) {
    const bool from_file = q.count({"from-local-file", "from-remote-file"}) > 0;
    const char *why = nullptr;
    if (q.count({"from-local-file", "from-remote-file", "from-module", "zero"}) != 1)
        why = "please give one of from-local-file, from-remote-file, from-module and zero";
    else if (!from_file && q.count({"binary", "swap", "header"}) > 0)
        why = "binary, swap and header are of files";
    else if (q.given("swap") && !q.given("binary"))
        why = "swap is of binary files";
    else if (!q.given("from-remote-file") && q.count({"on", "user", "password"}) > 0)
        why = "on, user and password are of a remote file";
    else if (q.given("from-remote-file") && !q.given("on"))
        why = "please say on which machine the remote file is";
    if (why)
        sv_printf(cn, "! ERROR: %s\n", why);
    return !why;
}

std::optional<table_words> table_of(int cn, const load_quals &q) {
    const table_form form{q.given("binary"), q.given("swap"), q.text("header")};
    if (q.given("from-local-file"))
        return table_of_file(cn, q.text("from-local-file"), form);
    if (q.given("from-remote-file"))
        return table_of_remote_file(
            cn, {q.text("on"), q.text("user", "ftp"), q.text("password", "kestrel@localhost")},
            q.text("from-remote-file"), form);
    if (q.given("from-module"))
        return table_of_module(cn, q.text("from-module"));
    return table_words{};
}

int load(int quals, int cn, int path, int chan, const char *name) {
    const load_quals q(quals);
    const block_memory &memory = plr3_block_memory(name);
    const std::string_view memory_name = name;
    const bool has_width = memory_name == "event-lead" || memory_name == "event-tail";
    if (!check_keywords(cn, q))
        return plr3_failed;
    if (q.given("by-width") && !has_width) {
        sv_printf(cn, "! ERROR: table %s is not addressed by width\n", name);
        return plr3_failed;
    }
    const std::optional<table_words> words = table_of(cn, q);
    if (!words)
        return plr3_failed;
    const told_here here(path, cn);
    const int status = plr3_load_memory(path, chan, memory, *words);
    if (status != 0 || !has_width)
        return pulsar3_status(cn, status);
    return pulsar3_status(cn, plr3_set_by_width(path, chan, memory, q.given("by-width")));
}

// A name as a constant of the compiler's.
template <const char *Memory> int pulsar3_load(int quals, int cn, int path, int chan) {
    return load(quals, cn, path, chan, Memory);
}

constexpr char event_lead[] = "event-lead", event_tail[] = "event-tail", xtk_shape[] = "xtk-shape",
               xtk_map[] = "xtk-map", width_time[] = "width-time", servo_tail[] = "servo-tail";

constexpr const char *load_arguments =
    "Path/Channel, -1 for all/Events are looked up by their width (leads and tails of events)/"
    "The file holds 32-bit words, not text/Its words have their bytes swapped/File of this machine/"
    "File of an FTP server/The server's host, or host:port/User there/Password there/Data module/"
    "The table begins behind the line that begins with this/All zero";

template <const char *Memory> constexpr PARSE_TREE load_row(const char *name, const char *help) {
    return pt_command<pulsar3_load<Memory>>(name, load_format, help, load_arguments);
}

constexpr pt_format init_brams_format("%d %d = %d");

int pulsar3_init_brams(int, int cn, int path, int chan) {
    return pulsar3_status(cn, plr3_init_brams(path, chan));
}

constexpr pt_format init_event_tail_format("%d %d %g = %d");

int pulsar3_init_event_tail(int, int cn, int path, int chan, double ticks) {
    const told_here here(path, cn);
    return pulsar3_status(cn, plr3_init_event_tail(path, chan, ticks));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_load_event_lead =
    load_row<event_lead>("load-event-lead", "Load the table that corrects events by what leads them");
extern constinit const PARSE_TREE row_pulsar3_load_event_tail =
    load_row<event_tail>("load-event-tail", "Load the table that corrects events by what they follow");
extern constinit const PARSE_TREE row_pulsar3_load_xtk_shape =
    load_row<xtk_shape>("load-xtk-shape", "Load the shape of the cross-talk between channels");
extern constinit const PARSE_TREE row_pulsar3_load_xtk_map =
    load_row<xtk_map>("load-xtk-map", "Load the table of channels that talk into this one");
extern constinit const PARSE_TREE row_pulsar3_load_width_time =
    load_row<width_time>("load-width-time", "Load the table of pile-up, width against time");
extern constinit const PARSE_TREE row_pulsar3_load_servo_tail =
    load_row<servo_tail>("load-servo-tail", "Load the tail of an event for the baseline servo");
extern constinit const PARSE_TREE row_pulsar3_init_brams =
    pt_command<pulsar3_init_brams>("init-brams", init_brams_format,
                                   "Set the block memories of a channel to zero", "Path/Channel, -1 for all");
extern constinit const PARSE_TREE row_pulsar3_init_event_tail =
    pt_command<pulsar3_init_event_tail>("init-event-tail", init_event_tail_format,
                                        "Fill the table of what events follow with an exponential decay",
                                        "Path/Channel, -1 for all/Ticks in which a pulse decays by e");

} // namespace kestrel
