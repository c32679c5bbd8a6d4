#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/lib/saved/load.h"
#include "pulsar3/lib/saved/revisions.h"
#include "pulsar3/lib/saved/saved.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace kestrel {

namespace {

struct playback_source {
    std::string_view name;
    int source; // of the channel control register
};
constexpr std::array playback_sources{
    playback_source{"adc", 0},     playback_source{"alt", 1},  playback_source{"mux", 2},
    playback_source{"pb0", 3},     playback_source{"pb1", 4},  playback_source{"pb-chan", 5},
    playback_source{"PB-CHAN", 5}, playback_source{"grst", 6}, playback_source{"GRST", 6},
};

// Where the environment says so, all channels take their samples from elsewhere than was saved.
int override_source(int path) {
    const char *value = std::getenv("PLR3PLAYBACK");
    if (!value)
        return 0;
    const int to = plr3_path(path)->message_to;
    const auto found = std::ranges::find(playback_sources, std::string_view(value), &playback_source::name);
    if (found == playback_sources.end()) {
        plr3_message(
            to,
            "Cannot understand setting '%s'. Please choose one of adc, alt, mux, pb0, pb1, pb-chan, grst.\n",
            value);
        return 0;
    }
    plr3_message(to,
                 "plr3_restore_settings: Overriding channel control register on basis of environment "
                 "variable PLR3PLAYBACK=%s\n",
                 value);
    const field_value source[] = {{plr3_register_field("chan-cont", "source"), found->source}};
    for (int chan = 0; chan < plr3_path(path)->num_chan; ++chan)
        if (const int status = plr3_change_fields("plr3_restore_settings", path, chan, source); status != 0)
            return status;
    return 0;
}

int check_idle(int path) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_restore_settings: invalid path %d", path);
    if (const int status = plr3_note_ended_runs(path); status != 0)
        return status;
    return plr3_run_is_on(path) ? plr3_fail(plr3_failed, "plr3_restore_settings: path %d is counting", path)
                                : 0;
}

int restore(int path, const std::string &directory, bool force, bool clock) {
    if (const int status = check_idle(path); status != 0)
        return status;
    std::vector<loaded_item> items;
    if (const int status = plr3_load_items("plr3_restore_settings", path, directory, clock, items);
        status != 0)
        return status;
    if (const int status = plr3_compare_revisions(path, directory, force); status != 0)
        return status;
    for (const loaded_item &loaded : items) {
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "plr3_restore_settings: interrupted");
        if (const int status = plr3_write_item(path, loaded.item, loaded.bytes); status != 0)
            return status;
    }
    if (const int status = override_source(path); status != 0)
        return status;
    return plr3_follow_formats(path, 0, plr3_path(path)->num_cards);
}

} // namespace

int plr3_restore_settings(int path, const std::string &directory, bool force) {
    return restore(path, directory, force, false);
}

int plr3_restore_settings_and_clock(int path, const std::string &directory, bool force) {
    return restore(path, directory, force, true);
}

} // namespace kestrel
