// The module `kairo_times` and the variable `num_tf`, as another server asks for them. The module lies in this program
// only: on one machine with that server, shared memory would have it twice by the same name.
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/data_channel.h"
#include "server/output.h"
#include "sim/timing_unit/commands.h"
#include "sim/timing_unit/unit.h"
#include "support/byte_order.h"
#include "support/element.h"

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

namespace kestrel {

namespace {

constexpr int rows = 8, handle = 0;
constexpr const char *module_name = "kairo_times";

struct {
    int frames = 0; // columns
    std::vector<float> values;

    float &at(int x, int y) {
        return values[static_cast<std::size_t>(y) * static_cast<std::size_t>(frames) +
                      static_cast<std::size_t>(x)];
    }
} times;

constexpr pt_format open_format("%s header = %d");
constexpr pt_format read_format("%d %d %d %d %d %d float intel motorola from %d = %d");

int module_open(int, int cn, const char *name) {
    if (unit_ready(cn) && std::string_view(name) == module_name)
        return handle;
    sv_printf(cn, "! No module '%s'\n", name);
    return -1;
}

bool is_open(int cn, int which) {
    if (which == handle && times.frames > 0)
        return true;
    sv_printf(cn, "! Invalid handle %d\n", which);
    return false;
}

int module_close(int, int cn, int which) {
    return is_open(cn, which) ? 0 : -1;
}
int get_nx(int, int cn, int which) {
    return is_open(cn, which) ? times.frames : -1;
}
int get_ny(int, int cn, int which) {
    return is_open(cn, which) ? rows : -1;
}
int get_nt(int, int cn, int which) {
    return is_open(cn, which) ? 1 : -1;
}
int get_type(int, int cn, int which) {
    return is_open(cn, which) ? el_float : -1;
}

int send_values(int cn, const std::vector<float> &values) {
    const std::size_t bytes = values.size() * sizeof(float);
    sv_flush_all(cn);
    if (sv_data_open(cn) < 0 || sv_data_write(cn, values.data(), bytes) != static_cast<ssize_t>(bytes)) {
        sv_printf(cn, "! Cannot send data: %s\n", std::strerror(errno));
        sv_data_abort(cn);
        return -1;
    }
    sv_data_close(cn);
    return 0;
}

int read(int quals, int cn, int x, int y, int t, int dx, int dy, int dt) {
    const pt_qualifiers<read_format> q(quals);
    if (!is_open(cn, q.number("from", -1)))
        return -1;
    const auto inside = [](int from, int count, int size) {
        return from >= 0 && count >= 1 && from < size && count <= size - from;
    };
    if (!inside(x, dx, times.frames) || !inside(y, dy, rows) || !inside(t, dt, 1)) {
        sv_printf(cn, "! The module has %d x %d x 1 elements\n", times.frames, rows);
        return -1;
    }
    std::vector<float> values;
    for (int row = y; row < y + dy; ++row)
        values.insert(values.end(), &times.at(x, row), &times.at(x, row) + dx);
    if (machine_is_intel ? q.given("motorola") : q.given("intel"))
        unif_swab_l(values.data(), values.size());
    return send_values(cn, values);
}

} // namespace

int times_renew(int cn) {
    const frame_table table = unit_table();
    const double factor = static_cast<double>(table.laps) * unit_starts();
    times.frames = unit_max_frames();
    times.values.assign(static_cast<std::size_t>(times.frames) * rows, 0.0f);
    for (int x = 0; x < static_cast<int>(table.frames.size()); ++x) {
        const unit_frame &frame = table.frames[static_cast<std::size_t>(x)];
        times.at(x, 0) = static_cast<float>(frame.dead);
        times.at(x, 1) = static_cast<float>(frame.live);
        times.at(x, 2) = static_cast<float>(frame.dead * factor);
        times.at(x, 3) = static_cast<float>(frame.live * factor);
    }
    return set_int_variable(cn, "num_tf", static_cast<int>(table.frames.size()), true);
}

constinit const PARSE_TREE commands_module[] = {
    pt_command<module_open>("open", open_format, "get a handle of the frame times", "Name/Is taken"),
    pt_command<module_close>("close", "%d = %d", "close it", "Handle"),
    pt_end(),
};
constinit const PARSE_TREE row_get_nx =
    pt_command<get_nx>("unif-get-nx", "%d = %d", "get the width", "Handle");
constinit const PARSE_TREE row_get_ny =
    pt_command<get_ny>("unif-get-ny", "%d = %d", "get the height", "Handle");
constinit const PARSE_TREE row_get_nt =
    pt_command<get_nt>("unif-get-nt", "%d = %d", "get the frames", "Handle");
constinit const PARSE_TREE row_get_type =
    pt_command<get_type>("unif-get-type", "%d = %d", "get the type", "Handle");
constinit const PARSE_TREE row_read_times = pt_command<read>(
    "read", read_format, "send frame times over the data connection",
    "x/y/time/width/height/timeframes/As floats, as they are/Low byte first/High byte first/Handle");

} // namespace kestrel
