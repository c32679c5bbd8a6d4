// `pulsar3 dtc offline`: correcting scalers that lie in a module, wherever they came from, with a path's parameters.
#include "modules/store/result_module.h"
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/corrected.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <algorithm>
#include <array>
#include <string>

namespace kestrel {

namespace {

// The modules under a root name.
enum which : std::size_t { raw_scalers, corrected_scalers, factors, modules };
struct offline_modules {
    std::array<result_module, modules> module;
    module_view view(which w) const { return module[w].view(); }
};
constexpr const char *suffixes[modules] = {"_scalers", "_corrected", "_factors"};
constexpr mod_element elements[modules] = {mod_element::u_int32, mod_element::float64, mod_element::float64};

module_plan plan_of(std::size_t which, int channels, int frames) {
    if (which == factors)
        return {.element = elements[which],
                .num_x = channels,
                .num_y = frames,
                .x_label = "Channel",
                .y_label = "Frame"};
    return {.element = elements[which],
            .num_x = plr3_nr_scalers,
            .num_y = channels,
            .num_t = frames,
            .is_3d = true,
            .x_label = "Scaler",
            .y_label = "Channel",
            .t_label = "Frame"};
}

constexpr pt_format mkmod_format("%d %d %s = %d");

int pulsar3_dtc_offline_mkmod(int, int cn, int path, int frames, const char *root) {
    const int channels = plr3_get_num_chan(path);
    if (channels < 0)
        return pulsar3_status(cn, channels);
    if (frames < 1) {
        sv_printf(cn, "! ERROR: number of frames %d should be at least 1\n", frames);
        return plr3_out_of_range;
    }
    offline_modules m;
    for (std::size_t i = 0; i < modules; ++i)
        if (m.module[i].make(cn, (root + std::string(suffixes[i])).c_str(), plan_of(i, channels, frames)) !=
            0)
            return -1;
    for (result_module &module : m.module)
        module.keep();
    return 0;
}

// The module of that root and kind, as offline-mkmod makes it: 0, or -1 after a line.
int find(int cn, const char *root, std::size_t which, int channels, result_module &module) {
    const std::string name = root + std::string(suffixes[which]);
    if (!module.find(name.c_str())) {
        sv_printf(cn, "! ERROR: no module '%s', make it with offline-mkmod\n", name.c_str());
        return -1;
    }
    if (module.look(cn) != 0)
        return -1;
    const module_view &view = module.view();
    const module_plan plan = plan_of(which, channels, which == factors ? view.num_y : view.num_t);
    if (view.data_type == mod_code_of(plan.element) && view.is_3d == plan.is_3d && view.num_x == plan.num_x &&
        view.num_y == plan.num_y && view.data_offset % view.element_size == 0)
        return 0;
    sv_printf(cn, "! ERROR: module '%s' is not as offline-mkmod makes it for %d channels\n", name.c_str(),
              channels);
    return -1;
}

template <class T> std::span<T> words_of(const module_view &view, std::size_t count) {
    return {reinterpret_cast<T *>(view.data()), count};
}

constexpr pt_format offline_format("%d %s num-t %d = %d");

int pulsar3_dtc_offline(int quals, int cn, int path, const char *root) {
    const pt_qualifiers<offline_format> q(quals);
    const int channels = plr3_get_num_chan(path);
    if (channels < 0)
        return pulsar3_status(cn, channels);
    offline_modules m;
    for (std::size_t i = 0; i < modules; ++i)
        if (find(cn, root, i, channels, m.module[i]) != 0)
            return -1;
    const int held =
        std::min({m.view(raw_scalers).num_t, m.view(corrected_scalers).num_t, m.view(factors).num_y});
    const int frames = q.number("num-t", held);
    if (frames < 1 || frames > held) {
        sv_printf(cn, "! ERROR: number of frames %d is out of range 1 to %d\n", frames, held);
        return plr3_out_of_range;
    }
    const std::size_t values = static_cast<std::size_t>(frames) * static_cast<std::size_t>(channels);
    const int status =
        plr3_dtc_correct(path, words_of<std::uint32_t>(m.view(raw_scalers), values * plr3_nr_scalers),
                         words_of<double>(m.view(factors), values),
                         words_of<double>(m.view(corrected_scalers), values * plr3_nr_scalers), frames);
    return status == 0 ? frames : pulsar3_status(cn, status);
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dtc_offline_mkmod = pt_command<pulsar3_dtc_offline_mkmod>(
    "offline-mkmod", mkmod_format, "Make modules for offline dead-time correction",
    "Path/Number of time frames/Root name: _scalers, _corrected and _factors are put behind it");

extern constinit const PARSE_TREE row_pulsar3_dtc_offline = pt_command<pulsar3_dtc_offline>(
    "offline", offline_format, "Correct scalers that lie in a module, with the dead times of a path",
    "Path/Root name/Number of time frames");

} // namespace kestrel
