// Commands on handles, other than read.
#include "modules/store/view.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "unified/commands.h"
#include "unified/handles/handles.h"

#include <optional>
#include <utility>

namespace kestrel {

namespace {

constexpr pt_format ustatus_format("of %d = %d");

int simple_do_ustatus(int quals, int cn) {
    const pt_qualifiers<ustatus_format> q(quals);
    if (!q.given("of")) {
        for (int handle = 0; handle < unified_max_handles; ++handle)
            unif_display_status(cn, handle);
        return 0;
    }
    const int handle = q.number("of");
    if (handle < 0 || handle >= unified_max_handles) {
        sv_printf(cn, "! Invalid image handle. Valid handles are in the range 0 .. %d.\n",
                  unified_max_handles);
        return -1;
    }
    unif_display_status(cn, handle);
    return 0;
}

int cli_unified_enable(int, int cn, int handle) {
    return app_unified_enable(cn, handle);
}
int cli_unified_disable(int, int cn, int handle) {
    return app_unified_disable(cn, handle);
}
int cli_unified_close(int, int cn, int handle) {
    return unified_close_and_destroy(cn, handle);
}

int cli_unified_close_all(int, int cn) {
    unified_close_all(cn);
    return 0;
}

int cli_unified_clear(int, int cn, int handle, int a, int b, int t, int dx, int dy, int dt) {
    const auto entry = unified_info_of(handle);
    if (!entry) {
        sv_printf(cn, "! Invalid handle passed to unified clear\n");
        return -1;
    }
    switch (OptionalArgumentCount) {
    case 0:
        return app_unified_clear(cn, handle, 0, 0, 0, entry->nx, entry->ny, entry->nt);
    case 2:
        return app_unified_clear(cn, handle, 0, 0, a, entry->nx, entry->ny, b);
    case 6:
        return app_unified_clear(cn, handle, a, b, t, dx, dy, dt);
    default:
        sv_printf(cn, "! unified_clear requires either\n"
                      "! 1 argument  (handle)                         => clear all\n"
                      "! 3 arguments (handle, first, num time frames) => clear time frames\n"
                      "! 7 arguments (handle, x, y, t, dx, dy, dt)    => clear volume\n");
        return -1;
    }
}

// ---- fields

int cli_unified_get_nx(int, int, int handle) {
    return unified_get_nx(handle);
}
int cli_unified_get_ny(int, int, int handle) {
    return unified_get_ny(handle);
}
int cli_unified_get_nt(int, int, int handle) {
    return unified_get_nt(handle);
}
int cli_unified_get_type(int, int, int handle) {
    return unified_get_type(handle);
}
int cli_unified_get_bsize(int, int, int handle) {
    return unified_get_bsize(handle);
}

// ---- corrections

constexpr pt_format correction_format("%d + %s %d mult1d div1d poly1d chebyshev1d %g = %d");
using correction_quals = pt_qualifiers<correction_format>;
constexpr correction_quals::choice<int> corrections[] = {{"mult1d", corr_mult1d},
                                                         {"div1d", corr_div1d},
                                                         {"poly1d", corr_poly1d},
                                                         {"chebyshev1d", corr_chebyshev1d}};

// The module must have a value (or a coefficient of each order) for every point of the handle.
int check_correction(int cn, const char *name, const module_view &view, int frame,
                     const unified_info &entry) {
    if (view.num_x < entry.nx) {
        sv_printf(cn, "! ERROR: correction module '%s' is %d wide, the handle needs %d\n", name, view.num_x,
                  entry.nx);
        return -1;
    }
    if (view.num_y < 1 || frame < 0 || frame >= view.num_t) {
        sv_printf(cn, "! ERROR: correction module '%s' (%d, %d, %d) has no frame %d\n", name, view.num_x,
                  view.num_y, view.num_t, frame);
        return -1;
    }
    return 0;
}

// Without a module: no correction any more.
int cli_unif_set_correction(int quals, int cn, int handle, const char *name, int frame) {
    const auto entry = unified_info_of(handle);
    if (!entry) {
        sv_printf(cn, "! Invalid handle %d\n", handle);
        return -1;
    }
    const correction_quals q(quals);
    const std::optional<int> type = q.only(corrections);
    if (name == nullptr && q.none())
        return unified_set_corr_module(cn, handle, corr_none, {}, 0, 0, 1.0);
    if (name == nullptr || !type) {
        sv_printf(cn, "! A correction needs a module and one of mult1d, div1d, poly1d, chebyshev1d\n");
        return -1;
    }
    module_link link(name);
    if (!link) {
        sv_printf(cn, "! Cannot link to module '%s'\n", name);
        return -1;
    }
    module_view view;
    if (mod_look(cn, name, link.head(), view) != 0 || check_correction(cn, name, view, frame, *entry) != 0)
        return -1;
    const int order = *type == corr_poly1d || *type == corr_chebyshev1d ? view.num_y - 1 : 0;
    const double scale = q.real("chebyshev1d", 1.0);
    return unified_set_corr_module(cn, handle, *type, std::move(link), frame, order, scale);
}

int cli_unif_set_dtc_mod(int, int cn, const char *name) {
    return unified_set_dtc_module(cn, name);
}

} // namespace

constinit const PARSE_TREE row_ustatus = pt_command<simple_do_ustatus>(
    "ustatus", ustatus_format, "print details about currently open unified read handles",
    "particular file handle");
constinit const PARSE_TREE row_enable =
    pt_command<cli_unified_enable>("enable", "%d = %d", "unified enable command", "handle");
constinit const PARSE_TREE row_disable =
    pt_command<cli_unified_disable>("disable", "%d = %d", "unified disable command", "handle");
constinit const PARSE_TREE row_clear =
    pt_command<cli_unified_clear>("clear", "%d + %d %d %d %d %d %d = %d", "unified clear command",
                                  "handle/First tf or X/Num Tf or y/t/dx/dy/dt");
constinit const PARSE_TREE row_unif_get_nx =
    pt_command<cli_unified_get_nx>("unif-get-nx", "%d = %d", "Unified get image width", "handle");
constinit const PARSE_TREE row_unif_get_ny =
    pt_command<cli_unified_get_ny>("unif-get-ny", "%d = %d", "Unified get image height", "handle");
constinit const PARSE_TREE row_unif_get_nt =
    pt_command<cli_unified_get_nt>("unif-get-nt", "%d = %d", "Unified get number of tfs", "handle");
constinit const PARSE_TREE row_unif_get_type =
    pt_command<cli_unified_get_type>("unif-get-type", "%d = %d", "Unified get data type", "handle");
constinit const PARSE_TREE row_unif_get_bsize =
    pt_command<cli_unified_get_bsize>("unif-get-bsize", "%d = %d", "Unified get element byte size", "handle");
constinit const PARSE_TREE row_close =
    pt_command<cli_unified_close>("close", "%d = %d", "Close unified path", "handle");
constinit const PARSE_TREE row_close_all =
    pt_command<cli_unified_close_all>("close-all", " = %d", "Close all open unified paths", "");
constinit const PARSE_TREE row_unif_set_correction = pt_command<cli_unif_set_correction>(
    "unif-set-correction", correction_format,
    "Enable or disable Flat Field or linearity correction on unified path",
    "Handle/Module name/Module time dimension (default 0)/Multiply 1D image by module/"
    "Divide   1D image by module/Polynomial per point in 1D/"
    "Chebyshev Polynomial in 1D with multiplier to -1 to 1 range");
constinit const PARSE_TREE row_unif_set_dtc_mod = pt_command<cli_unif_set_dtc_mod>(
    "unif-set-dtc-mod", "%s = %d", "Set the name of the kairo_times module for dead time correction",
    "Module name");

} // namespace kestrel
