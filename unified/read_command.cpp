// The read command: what its qualifiers ask for, and whether they go together.
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"
#include "support/byte_order.h"
#include "unified/commands.h"
#include "unified/read_pipeline.h"

namespace kestrel {

namespace {

constexpr pt_format read_format(
    "%d %d %d %d %d %d intel motorola raw long float gel otoko det from %d to-local-file %s to-remote-file %s "
    "on %s user %s password %s to-module %s no-header scale-c scale-m start-x %d start-y %d start-t %d "
    "clear-mod asc-col start-ang %g step-ang %g dtc preserve-socket fsync double = %d");
using read_quals = pt_qualifiers<read_format>;

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

int refuse(int cn, const char *text) {
    sv_printf(cn, "! %s\n", text);
    return -1;
}

// ---- what goes together

int destinations(const read_quals &q) {
    return q.count({"to-local-file", "to-remote-file", "to-module"});
}

bool angle_given(const read_quals &q) {
    return q.count({"start-ang", "step-ang"}) > 0;
}

bool destinations_agree(const read_quals &q) {
    const int place = q.count({"start-x", "start-y", "start-t"});
    if (destinations(q) > 1)
        return false;
    if (q.given("to-remote-file") != q.given("on"))
        return false;
    if (q.count({"on", "user", "password"}) > 0 && !q.given("to-remote-file"))
        return false;
    if ((place > 0 || q.count({"no-header", "clear-mod"}) > 0) && !q.given("to-module"))
        return false;
    return !(q.given("no-header") && place > 0);
}

int check_forms(int cn, const read_quals &q) {
    if (q.count({"raw", "long", "float", "double", "gel", "otoko", "det", "asc-col"}) > 1)
        return refuse(cn, "Only specify one file format");
    if (q.given("intel") && q.given("motorola"))
        return refuse(cn, "Cannot have both intel and motorola formats.");
    if (angle_given(q) && !q.given("asc-col"))
        return refuse(cn, "start-ang and step-ang only apply to the asc-col format");
    return 0;
}

int check_destination(int cn, const read_quals &q, bool swap) {
    if (!destinations_agree(q))
        return refuse(cn, "Incorrect combination of output qualifiers.");
    if (q.given("preserve-socket") && destinations(q) > 0) {
        sv_printf(cn, "! preserve-socket option only applicable to data socket data transfer\n");
        return -1;
    }
    if (q.given("fsync") && !q.given("to-local-file")) {
        sv_printf(cn, "! fsync option only applies to to-local-file output\n");
        return -1;
    }
    if (!q.given("to-module"))
        return 0;
    if (q.given("asc-col") || q.given("gel") || q.given("det") || q.given("otoko"))
        return refuse(cn, "Only numbers (raw, long, float, double) can go into a module");
    if (swap && !q.given("no-header"))
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

scaling scaling_asked(const read_quals &q) {
    scaling s;
    s.active = q.given("scale-c") || q.given("scale-m");
    if (q.given("scale-c"))
        s.constant = numeric_variable("scale_c", 0.0);
    if (q.given("scale-m"))
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

void set_form(_unif_format &format, const read_quals &q, const unified_info &entry) {
    if (q.given("raw"))
        return raw_setup_format(format);
    if (q.given("long"))
        return long_setup_format(format);
    if (q.given("float"))
        return float32_setup_format(format);
    if (q.given("double"))
        return float64_setup_format(format);
    if (q.given("gel"))
        return gel_setup_format(format);
    if (q.given("otoko"))
        return otoko_setup_format(format);
    if (q.given("det"))
        return det_setup_format(format, entry.data_type, entry.details, entry.path);
    if (q.given("asc-col")) {
        column_angles angles;
        angles.given = angle_given(q);
        angles.start = q.real("start-ang", 0.0);
        angles.step = q.real("step-ang", 1.0);
        return ascii_col_setup_format(format, angles);
    }
    if (q.given("to-module"))
        return module_form(format, entry.data_type);
    ascii_setup_format(format);
}

void set_output(UnifOutput &output, const read_quals &q) {
    output.preserve_socket = q.given("preserve-socket");
    output.do_fsync = q.given("fsync");
    if (q.given("to-local-file")) {
        output.filename = q.text("to-local-file");
        return local_file_setup_output(output);
    }
    if (q.given("to-remote-file")) {
        output.filename = q.text("to-remote-file");
        output.machinename = q.text("on");
        output.username = q.text("user");
        output.password = q.text("password");
        return remote_file_setup_output(output);
    }
    if (!q.given("to-module"))
        return data_socket_setup_output(output);
    output.modulename = q.text("to-module");
    output.mod_header = !q.given("no-header");
    output.start_x = q.number("start-x");
    output.start_y = q.number("start-y");
    output.start_t = q.number("start-t");
    output.start_t_given = q.given("start-t");
    output.clear_first = q.given("clear-mod");
    module_setup_output(output);
}

int dimensions_of(const unified_box &b) {
    return (b.dx != 1) + (b.dy != 1) + (b.dt != 1);
}

int cli_unified_read(int quals, int cn, int x, int y, int t, int dx, int dy, int dt) {
    const read_quals q(quals);
    if (!q.given("from"))
        return refuse(cn, "'from device-handle' is required in the read command");
    read_request request;
    request.handle = q.number("from");
    const auto entry = unified_info_of(request.handle);
    if (!entry)
        return refuse(cn, "device-handle is required invalid or stale in the read command");
    const bool other_order = machine_is_intel ? q.given("motorola") : q.given("intel");
    if (check_forms(cn, q) != 0 || check_destination(cn, q, other_order) != 0)
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
    set_form(format, q, *entry);
    set_output(output, q);
    if (dimensions_of(request.box) > format.max_dimension)
        return refuse(cn, "This file format does not allow files with this many dimensions.");
    request.scale = scaling_asked(q);
    request.dead_time = q.given("dtc");
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
