// `pulsar3`: setting the clocks up, saving a system's state and bringing it back.
#include "parser/qualifiers.h"
#include "pulsar3/lib/boards/clocks.h"
#include "pulsar3/lib/saved/saved.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/told_here.h"
#include "server/output.h"

namespace kestrel {

namespace {

constexpr pt_format setup_clocks_format("%d + %d external mid-plane test-pulse %d drive no-check = %d");

int pulsar3_setup_clocks(int quals, int cn, int path, int card) {
    const pt_qualifiers<setup_clocks_format> q(quals);
    if (q.count({"external", "mid-plane"}) > 1) {
        sv_printf(cn, "! ERROR: Please specify at most one source of the clock\n");
        return plr3_failed;
    }
    const int source = q.given("external")    ? plr3_clock_external
                       : q.given("mid-plane") ? plr3_clock_mid_plane
                                              : plr3_clock_internal;
    const int flags =
        (q.given("drive") ? plr3_clock_drive : 0) | (q.given("no-check") ? plr3_clock_no_check : 0);
    return pulsar3_status(cn,
                          plr3_clocks_setup(path, pulsar3_card(card), source, flags, q.number("test-pulse")));
}

constexpr pt_format save_settings_format("%d %s = %d");

int pulsar3_save_settings(int, int cn, int path, const char *directory) {
    return pulsar3_status(cn, plr3_save_settings(path, directory));
}

constexpr pt_format restore_settings_format("%d %s force clock = %d");

int pulsar3_restore_settings(int quals, int cn, int path, const char *directory) {
    const pt_qualifiers<restore_settings_format> q(quals);
    const bool force = q.given("force");
    const told_here here(path, cn);
    return pulsar3_status(cn, q.given("clock") ? plr3_restore_settings_and_clock(path, directory, force)
                                               : plr3_restore_settings(path, directory, force));
}

constexpr pt_format check_settings_format("%d %s clock = %d");

int pulsar3_check_settings(int quals, int cn, int path, const char *directory) {
    const bool clock = pt_qualifiers<check_settings_format>(quals).given("clock");
    const auto say = [cn](std::string_view difference) {
        sv_printf(cn, "# %.*s\n", static_cast<int>(difference.size()), difference.data());
    };
    const told_here here(path, cn);
    return pulsar3_status(cn, plr3_check_settings(path, directory, clock, say));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_setup_clocks = pt_command<pulsar3_setup_clocks>(
    "setup-clocks", setup_clocks_format, "Set the clocks of cards up, internal unless said otherwise",
    "Path/Card, -1 or omitted for all/Take the external input/Take what another card drives on the mid-plane/"
    "Shape of the test pulse, 0 none to 3/Drive this card's clock onto the mid-plane/"
    "Do not wait until it has locked");

extern constinit const PARSE_TREE row_pulsar3_save_settings = pt_command<pulsar3_save_settings>(
    "save-settings", save_settings_format, "Save the state of a system's cards", "Path/Directory");

extern constinit const PARSE_TREE row_pulsar3_restore_settings = pt_command<pulsar3_restore_settings>(
    "restore-settings", restore_settings_format, "Bring a system's cards into a saved state",
    "Path/Directory/Even if the firmware's major revision is another/Set the clocks up as well");

extern constinit const PARSE_TREE row_pulsar3_check_settings = pt_command<pulsar3_check_settings>(
    "check-settings", check_settings_format, "List where a system's cards differ from a saved state",
    "Path/Directory/The clocks as well");

} // namespace kestrel
