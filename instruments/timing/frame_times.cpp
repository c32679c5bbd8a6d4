#include "instruments/timing/frame_times.h"

#include "instruments/links/clients.h"
#include "instruments/links/imgd.h"
#include "instruments/links/remote_module.h"
#include "modules/store/result_module.h"
#include "server/output.h"
#include "support/element.h"

#include <cstddef>
#include <cstring>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t remote_elements_max = std::size_t{1} << 24; // 64 MiB; units have 65537 frames of 8 rows

bool made_here = false; // the module of that name is one of ours

bool is_table(const module_view &view) {
    return view.data_type == MOD_FLOAT && !view.is_3d && view.num_y >= frame_times_rows_used;
}

// Nothing else is known to be in there: the name is free when this server has made it.
int make_module(int cn, int num_x, int num_y, result_module &module) {
    const module_plan plan{.num_x = num_x, .num_y = num_y, .x_label = "time_frame", .y_label = "Dead/Live"};
    if (module.make(cn, frame_times_name, plan) != 0)
        return -1;
    made_here = true;
    module.keep();
    return 0;
}

// What is in the local module; empty where there is none, or another kind of module.
frame_times_copy local_copy() {
    const module_link link(frame_times_name);
    module_view view;
    if (!link || mod_look(link.head(), view) != nullptr || !is_table(view))
        return {};
    frame_times_copy copy{view.num_x, view.num_y, std::vector<float>(view.elements())};
    std::memcpy(copy.values.data(), view.data(), copy.values.size() * sizeof(float));
    return copy;
}

} // namespace

frame_times_copy frame_times_fetch(int cn) {
    using namespace links;
    const remote_module there(cn, link_kairo, frame_times_name);
    if (!there) {
        sv_printf(cn, "! Cannot open handle to remote module '%s'\n", frame_times_name);
        return {};
    }
    frame_times_copy copy{there.ask("unif-get-nx"), there.ask("unif-get-ny"), {}};
    const int type = there.ask("unif-get-type");
    const auto elements = static_cast<unsigned long long>(copy.num_x) * static_cast<unsigned>(copy.num_y);
    if (type != el_float || copy.num_x < 1 || copy.num_y < frame_times_rows_used ||
        elements > remote_elements_max) {
        sv_printf(cn, "! ERROR: remote module '%s' (%d, %d) of type %d is no table of frame times\n",
                  frame_times_name, copy.num_x, copy.num_y, type);
        return {};
    }
    copy.values.resize(elements);
    if (there.read(copy.num_x, copy.num_y, type, reinterpret_cast<std::byte *>(copy.values.data())) == 0)
        return copy;
    sv_printf(cn, "! Cannot read remote module '%s'\n", frame_times_name);
    return {};
}

int frame_times_install(int cn, const frame_times_copy &copy) {
    result_module module;
    module_view view;
    const bool found = module.find(frame_times_name);
    const bool fits = found && mod_look(module.head(), view) == nullptr && is_table(view) &&
                      view.num_x == copy.num_x && view.num_y == copy.num_y;
    if (!fits) {
        if (found)
            datamod_free_name(frame_times_name);
        if (make_module(cn, copy.num_x, copy.num_y, module) != 0)
            return -1;
        view = module.view();
    }
    made_here = true;
    std::memcpy(view.data(), copy.values.data(), copy.values.size() * sizeof(float));
    links::imgd_module_new(cn, frame_times_name, copy.num_x, copy.num_y, 1);
    return 0;
}

int new_frame_times::make(int frames) {
    before_ = local_copy();
    if (made_here) // by an earlier configuration, perhaps for another number of frames
        datamod_free_name(frame_times_name);
    result_module module;
    if (make_module(cn_, frames, frame_times_rows, module) != 0)
        return -1;
    made_ = true;
    std::memset(module.view().data(), 0, module.view().elements() * sizeof(float));
    return 0;
}

new_frame_times::~new_frame_times() {
    if (!made_)
        return;
    if (!before_.values.empty()) {
        frame_times_install(cn_, before_);
        return;
    }
    datamod_free_name(frame_times_name);
    made_here = false;
}

void frame_times_scale(int cn, int laps, int starts) {
    const module_link link(frame_times_name);
    module_view view;
    if (!link || mod_look(link.head(), view) != nullptr || !is_table(view))
        return frame_times_missing(cn);
    const double factor = static_cast<double>(laps) * starts;
    for (int row = 0; row < 2; ++row) {
        for (int x = 0; x < view.num_x; ++x) {
            const double once = mod_get_element(view.at(x, row, 0), view.data_type);
            mod_put_element(view.at(x, row + 2, 0), view.data_type, once * factor);
        }
    }
}

void frame_times_missing(int cn) {
    sv_printf(cn, "! KAIRO times module not in use, so no times file possible\n");
}

} // namespace kestrel
