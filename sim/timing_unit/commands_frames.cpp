// `kairo config`, `generate`, `setup-groups`, `list-seq`: which unit it is, and its frame table.
#include "parser/qualifiers.h"
#include "server/input.h"
#include "server/output.h"
#include "server/session.h"
#include "sim/timing_unit/commands.h"
#include "sim/timing_unit/unit.h"

#include <string>

namespace kestrel {

bool unit_ready(int cn) {
    if (unit_max_frames() > 0)
        return true;
    sv_printf(cn, "! The unit is not configured\n");
    return false;
}

namespace {

constexpr pt_format config_format("%s kairo2 max-frames %d mrl-ikairo = %d");
constexpr pt_format
    groups_format(" ext-start ext-inh cycles %d no-min-20us silent sequence %s auto-rearm ext-falling "
                  "= %d");
constexpr pt_format generate_format("%d %d %g %g %d help ext-start silent ext-falling = %d");

constexpr int tallis_frames = 1024, brecon_frames = 32768, merlot_frames = 65537;
constexpr int laps_max = 1'000'000;

int config(int quals, int cn, const char *device) {
    const pt_qualifiers<config_format> q(quals);
    const int usual = q.given("mrl-ikairo") ? merlot_frames
                      : q.given("kairo2")   ? brecon_frames
                                            : tallis_frames;
    const int frames = q.number("max-frames", usual);
    if (frames < 1 || frames > merlot_frames) {
        sv_printf(cn, "! A unit has 1 to %d frames, not %d\n", merlot_frames, frames);
        return -1;
    }
    unit_stop(unit_stop_how::now);
    unit_configure(frames);
    sv_printf(cn, "# Unit '%s' of %d frames\n", device, frames);
    return times_renew(cn);
}

int load(int cn, const frame_table &table, bool silent) {
    if (!unit_load(table)) {
        sv_printf(cn, "! The unit is %s\n", unit_state_name(unit_look().state));
        return -1;
    }
    const int frames = static_cast<int>(table.frames.size());
    if (!silent)
        sv_printf(cn, "# %d frames, %d laps\n", frames, table.laps);
    return times_renew(cn) == 0 ? frames : -1;
}

bool good_laps(int cn, int laps) {
    if (laps >= 1 && laps <= laps_max)
        return true;
    sv_printf(cn, "! Laps are 1 to %d, not %d\n", laps_max, laps);
    return false;
}

int generate(int quals, int cn, int laps, int pairs, double dead, double live, int pause) {
    const pt_qualifiers<generate_format> q(quals);
    if (!unit_ready(cn) || !good_laps(cn, laps))
        return -1;
    if (q.given("help"))
        sv_printf(cn, "# A pause other than 0 lets the unit pause before each frame\n");
    if (pairs < 1 || pairs > unit_max_frames() || !(dead >= 0.0 && dead <= longest_time) ||
        !(live >= 0.0 && live <= longest_time)) {
        sv_printf(cn, "! The unit makes 1 to %d frames of 0 to %g seconds\n", unit_max_frames(),
                  longest_time);
        return -1;
    }
    frame_table table;
    table.laps = laps;
    table.ext_start = q.given("ext-start");
    table.frames.assign(static_cast<std::size_t>(pairs),
                        {.dead = dead, .live = live, .dead_pause = pause != 0});
    stretch_dead_times(table);
    return load(cn, table, q.given("silent")) < 0 ? -1 : 0;
}

// Takes lines up to the closing one, also behind a faulty one: they are no commands. False after a line.
bool take_groups(int cn, frame_table &table) {
    bool good = true;
    char line[sv_line_max + 1];
    for (int group = 1; sv_getline(cn, line, sizeof line); ++group) {
        if (closes_table(line)) {
            if (good && table.frames.empty())
                sv_printf(cn, "! The table has no frames\n");
            return good && !table.frames.empty();
        }
        std::string why;
        if (good && !add_group(table, line, unit_max_frames(), why)) {
            sv_printf(cn, "! Group %d: %s\n", group, why.c_str());
            good = false;
        }
    }
    return false;
}

int setup_groups(int quals, int cn) {
    const pt_qualifiers<groups_format> q(quals);
    if (!unit_ready(cn) || !good_laps(cn, q.number("cycles", 1)))
        return -1;
    frame_table table;
    table.laps = q.number("cycles", 1);
    table.ext_start = q.given("ext-start");
    table.auto_rearm = q.given("auto-rearm");
    table.sequence = q.text("sequence");
    const bool stretch = !q.given("no-min-20us"), silent = q.given("silent");
    if (!take_groups(cn, table))
        return -1;
    if (stretch)
        stretch_dead_times(table);
    return load(cn, table, silent);
}

int list_seq(int, int cn, const char *name) {
    if (!unit_ready(cn))
        return -1;
    const frame_table table = unit_table();
    if (table.frames.empty() || (name && table.sequence != name)) {
        sv_printf(cn, "! No such sequence\n");
        return -1;
    }
    sv_printf(cn, "# Sequence '%s': %zu frames, %d laps\n", table.sequence.c_str(), table.frames.size(),
              table.laps);
    return 0;
}

} // namespace

constinit const PARSE_TREE row_config =
    pt_command<config>("config", config_format, "configure a unit, which forgets its table",
                       "Device name/of the second generation/Frames that it holds/MERLOT unit");
constinit const PARSE_TREE row_setup_groups = pt_command<setup_groups>(
    "setup-groups", groups_format, "set the frame table from the lines that follow",
    "Start with the trigger/External inhibit/Laps/Dead times as they are/No messages/"
    "Name/Wait for the trigger again after each run/Trigger on the falling edge");
constinit const PARSE_TREE row_generate =
    pt_command<generate>("generate", generate_format, "set a table of equal frames",
                         "Laps/Frames/Dead time (s)/Live time (s)/Pause before each frame/Help/"
                         "Start with the trigger/No messages/Trigger on the falling edge");
constinit const PARSE_TREE row_list_seq =
    pt_command<list_seq>("list-seq", " + %s = %d", "list the sequence", "Its name");

} // namespace kestrel
