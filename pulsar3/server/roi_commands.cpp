// `pulsar3 set-roi`: the regions of interest of channels.
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/roi.h"
#include "pulsar3/lib/paths/system.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <vector>

namespace kestrel {

namespace {

constexpr pt_format set_roi_format("%d %d + %d %d add list = %d");

int add_region(int path, int chan, const roi_region &region) {
    roi_table table;
    if (const int status = plr3_get_roi(path, chan, table); status != 0)
        return status;
    std::vector<roi_region> regions(table.regions.begin(), table.regions.begin() + table.count);
    regions.push_back(region);
    return plr3_set_roi(path, chan, regions);
}

// A channel that has no room keeps all as they are.
int check_room(int path) {
    for (int chan = 0; chan < plr3_get_num_chan(path); ++chan) {
        roi_table table;
        if (const int status = plr3_get_roi(path, chan, table); status != 0)
            return status;
        if (table.count == static_cast<std::uint32_t>(plr3_max_roi))
            return plr3_fail(plr3_out_of_range, "plr3_set_roi: channel %d has %d regions, there are no more",
                             chan, plr3_max_roi);
    }
    return 0;
}

int add_to_channels(int path, int chan, const roi_region &region) {
    if (chan != -1)
        return add_region(path, chan, region);
    int status = plr3_path(path) ? check_room(path) : plr3_set_roi(path, chan, {});
    for (int each = 0; each < plr3_get_num_chan(path) && status == 0; ++each)
        status = add_region(path, each, region);
    return status;
}

int list_regions(int cn, int path, int chan) {
    roi_table table;
    if (const int status = plr3_get_roi(path, chan, table); status != 0)
        return pulsar3_status(cn, status);
    for (std::uint32_t i = 0; i < table.count; ++i)
        sv_printf(cn, "# Region %u: bins %u to %u\n", i + 1, table.regions[i].low, table.regions[i].high);
    return static_cast<int>(table.count);
}

int pulsar3_set_roi(int quals, int cn, int path, int chan, int low, int high) {
    const pt_qualifiers<set_roi_format> q(quals);
    const int given = OptionalArgumentCount;
    if (given == 1 || (given == 0 && q.given("add")) || (given > 0 && q.given("list"))) {
        sv_printf(cn, "! ERROR: please give a region's first and last bin, or none\n");
        return plr3_failed;
    }
    if (q.given("list"))
        return list_regions(cn, path, chan);
    if (given == 0)
        return pulsar3_status(cn, plr3_set_roi(path, chan, {}));
    const roi_region region{static_cast<std::uint32_t>(low), static_cast<std::uint32_t>(high)};
    return pulsar3_status(cn, q.given("add") ? add_to_channels(path, chan, region)
                                             : plr3_set_roi(path, chan, {&region, 1}));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_set_roi = pt_command<pulsar3_set_roi>(
    "set-roi", set_roi_format, "Set a channel's regions of interest: one, or none without bins",
    "Path/Channel, -1 for all/First energy bin of the region, 0 to 4095/Its last/"
    "Keep the regions that are there/Set nothing, list a channel's regions");

} // namespace kestrel
