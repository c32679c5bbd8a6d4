// The read command: what its qualifiers ask for, and whether they go together.
#include "parser/call.h"
#include "parser/variables.h"
#include "server/output.h"
#include "support/byte_order.h"
#include "unified/commands.h"
#include "unified/read_pipeline.h"

#include <bit>

namespace kestrel {

namespace {

constexpr const char *read_format =
    "%d %d %d %d %d %d intel motorola raw long float gel otoko det from %d to-local-file %s "
    "to-remote-file %s on %s user %s password %s to-module %s no-header scale-c scale-m start-x %d start-y "
    "%d "
    "start-t %d clear-mod asc-col start-ang %g step-ang %g dtc preserve-socket fsync double = %d";
constexpr const char *read_arghelp =
    "x/y/time/width/height/timeframes/perform byte swapping if appropriate/send the data verbatim/"
    "send the data without processing it/turn data into longs/turn data into floats/"
    "turn the data into a GEL file/turn the data into an OTOKO file/turn the data into a DET file/"
    "specify the file handle/send the data to a file on the server/send the data to you by FTP/"
    "target machine for FTP/specify username for FTP/specify password for FTP/put the data into a module/"
    "Raw module with no header/scaling constant (default: 0)/scaling multiplic. factor (default: 1)/"
    "Starting x in target module/Starting y in target module/Starting t in target 3d module/"
    "Clear data module first/ASCII columns foramt/Start angle for ASCII COL Format/"
    "Angle step for ASCII COL FORMAT/Apply current dead time correction/Preserve Data Socket, don't close/"
    "Perform fsync after to-local-file write/turn data into doubles";

// The qualifiers in the order of the format.
enum qualifier : int {
    q_intel,
    q_motorola,
    q_raw,
    q_long,
    q_float,
    q_gel,
    q_otoko,
    q_det,
    q_from,
    q_to_local_file,
    q_to_remote_file,
    q_on,
    q_user,
    q_password,
    q_to_module,
    q_no_header,
    q_scale_c,
    q_scale_m,
    q_start_x,
    q_start_y,
    q_start_t,
    q_clear_mod,
    q_asc_col,
    q_start_ang,
    q_step_ang,
    q_dtc,
    q_preserve_socket,
    q_fsync,
    q_double,
};

constexpr unsigned bit(qualifier q) {
    return 1U << q;
}
constexpr unsigned form_bits = bit(q_raw) | bit(q_long) | bit(q_float) | bit(q_double) | bit(q_gel) |
                               bit(q_otoko) | bit(q_det) | bit(q_asc_col);
constexpr unsigned destination_bits = bit(q_to_local_file) | bit(q_to_remote_file) | bit(q_to_module);
constexpr unsigned ftp_bits = bit(q_on) | bit(q_user) | bit(q_password);
constexpr unsigned module_bits =
    bit(q_no_header) | bit(q_start_x) | bit(q_start_y) | bit(q_start_t) | bit(q_clear_mod);
constexpr unsigned place_bits = bit(q_start_x) | bit(q_start_y) | bit(q_start_t);
constexpr unsigned angle_bits = bit(q_start_ang) | bit(q_step_ang);

struct asked {
    unsigned mask = 0;
    bool has(qualifier q) const { return (mask & bit(q)) != 0; }
    bool any(unsigned bits) const { return (mask & bits) != 0; }
};

int refuse(int cn, const char *text) {
    sv_printf(cn, "! %s\n", text);
    return -1;
}

int number(qualifier q) {
    return Qualifier[q].IntArg;
}
const char *text(qualifier q) {
    return Qualifier[q].StringArg;
}

// ---- what goes together

bool destinations_agree(const asked &a) {
    if (std::popcount(a.mask & destination_bits) > 1)
        return false;
    if (a.has(q_to_remote_file) != a.has(q_on) || (a.any(ftp_bits) && !a.has(q_to_remote_file)))
        return false;
    if (a.any(module_bits) && !a.has(q_to_module))
        return false;
    return !(a.has(q_no_header) && a.any(place_bits));
}

int check_forms(int cn, const asked &a) {
    if (std::popcount(a.mask & form_bits) > 1)
        return refuse(cn, "Only specify one file format");
    if (a.has(q_intel) && a.has(q_motorola))
        return refuse(cn, "Cannot have both intel and motorola formats.");
    if (a.any(angle_bits) && !a.has(q_asc_col))
        return refuse(cn, "start-ang and step-ang only apply to the asc-col format");
    return 0;
}

int check_destination(int cn, const asked &a, bool swap) {
    if (pt_check_names(cn, ~0U) != 0)
        return -1;
    if (!destinations_agree(a))
        return refuse(cn, "Incorrect combination of output qualifiers.");
    if (a.has(q_preserve_socket) && a.any(destination_bits)) {
        sv_printf(cn, "! preserve-socket option only applicable to data socket data transfer\n");
        return -1;
    }
    if (a.has(q_fsync) && !a.has(q_to_local_file)) {
        sv_printf(cn, "! fsync option only applies to to-local-file output\n");
        return -1;
    }
    if (!a.has(q_to_module))
        return 0;
    if (a.has(q_asc_col) || a.has(q_gel) || a.has(q_det) || a.has(q_otoko))
        return refuse(cn, "Only numbers (raw, long, float, double) can go into a module");
    if (swap && !a.has(q_no_header))
        return refuse(cn, "A headed module holds numbers in this machine's byte order only");
    return 0;
}

// ---- what was asked for

double numeric_variable(const char *name, double otherwise) {
    const Variable *variable = get_variable(name);
    if (variable == nullptr || (variable->type != vt_int && variable->type != vt_double))
        return otherwise;
    return variable->type == vt_int ? variable->IntVar : variable->DoubleVar;
}

scaling scaling_asked(const asked &a) {
    scaling s;
    s.active = a.has(q_scale_c) || a.has(q_scale_m);
    if (a.has(q_scale_c))
        s.constant = numeric_variable("scale_c", 0.0);
    if (a.has(q_scale_m))
        s.factor = numeric_variable("scale_m", 1.0);
    return s;
}

// A module's own form: as the source has it, bytes and shorts as longs.
void module_form(_unif_format &format, int source_type) {
    if (source_type == el_byte || source_type == el_short)
        long_setup_format(format);
    else
        raw_setup_format(format);
}

void set_form(_unif_format &format, const asked &a, const unified_info &entry) {
    if (a.has(q_raw))
        return raw_setup_format(format);
    if (a.has(q_long))
        return long_setup_format(format);
    if (a.has(q_float))
        return float32_setup_format(format);
    if (a.has(q_double))
        return float64_setup_format(format);
    if (a.has(q_gel))
        return gel_setup_format(format);
    if (a.has(q_otoko))
        return otoko_setup_format(format);
    if (a.has(q_det))
        return det_setup_format(format, entry.data_type, entry.details, entry.path);
    if (a.has(q_asc_col)) {
        column_angles angles;
        angles.given = a.any(angle_bits);
        angles.start = a.has(q_start_ang) ? Qualifier[q_start_ang].DoubleArg : 0.0;
        angles.step = a.has(q_step_ang) ? Qualifier[q_step_ang].DoubleArg : 1.0;
        return ascii_col_setup_format(format, angles);
    }
    if (a.has(q_to_module))
        return module_form(format, entry.data_type);
    ascii_setup_format(format);
}

void set_output(UnifOutput &output, const asked &a) {
    output.preserve_socket = a.has(q_preserve_socket);
    output.do_fsync = a.has(q_fsync);
    if (a.has(q_to_local_file)) {
        output.filename = text(q_to_local_file);
        return local_file_setup_output(output);
    }
    if (a.has(q_to_remote_file)) {
        output.filename = text(q_to_remote_file);
        output.machinename = text(q_on);
        output.username = a.has(q_user) ? text(q_user) : "";
        output.password = a.has(q_password) ? text(q_password) : "";
        return remote_file_setup_output(output);
    }
    if (!a.has(q_to_module))
        return data_socket_setup_output(output);
    output.modulename = text(q_to_module);
    output.mod_header = !a.has(q_no_header);
    output.start_x = a.has(q_start_x) ? number(q_start_x) : 0;
    output.start_y = a.has(q_start_y) ? number(q_start_y) : 0;
    output.start_t = a.has(q_start_t) ? number(q_start_t) : 0;
    output.start_t_given = a.has(q_start_t);
    output.clear_first = a.has(q_clear_mod);
    module_setup_output(output);
}

int dimensions_of(const unified_box &b) {
    return (b.dx != 1) + (b.dy != 1) + (b.dt != 1);
}

int cli_unified_read(int quals, int cn, int x, int y, int t, int dx, int dy, int dt) {
    const asked a{static_cast<unsigned>(quals)};
    if (!a.has(q_from))
        return refuse(cn, "'from device-handle' is required in the read command");
    read_request request;
    request.handle = number(q_from);
    const auto entry = unified_info_of(request.handle);
    if (!entry)
        return refuse(cn, "device-handle is required invalid or stale in the read command");
    const bool other_order = machine_is_intel ? a.has(q_motorola) : a.has(q_intel);
    if (check_forms(cn, a) != 0 || check_destination(cn, a, other_order) != 0)
        return -1;
    request.box = {x, y, t, dx, dy, dt};
    if (unified_check_box(cn, "client read", request.handle, request.box) != 0)
        return -1;
    sv_printf(cn, "# Reading from handle %d region (%d,%d,%d) for (%d,%d,%d)\n", request.handle, x, y, t, dx,
              dy, dt);
    if (entry->nt == 0) { // a source without frames: any t and dt mean its one image
        request.box.t = 0;
        request.box.dt = 1;
    }
    _unif_format format;
    UnifOutput output;
    output.cn = cn;
    set_form(format, a, *entry);
    set_output(output, a);
    if (dimensions_of(request.box) > format.max_dimension)
        return refuse(cn, "This file format does not allow files with this many dimensions.");
    request.scale = scaling_asked(a);
    request.dead_time = a.has(q_dtc);
    request.swap_bytes = format.swapping == swap_requested && other_order ? 1 : 0;
    const bool convert = format.needs_conversion != 0 && format.data_type_required != entry->data_type;
    sv_printf(cn, "# Scaling: %s. Able to prescan min/max: %s. do_convert=%d, swap_bytes=%d\n",
              request.scale.active ? "yes" : "no", entry->knows_range ? "yes" : "no", convert ? 1 : 0,
              request.swap_bytes);
    return run_read(cn, request, format, output);
}

} // namespace

constinit const PARSE_TREE row_read =
    pt_command<cli_unified_read>("read", read_format, "unified read command", read_arghelp);

} // namespace kestrel
