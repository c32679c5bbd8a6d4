// `file kiln-data`: the data files that a header names: the time frames from `kairo_times`, and the small-angle data
// from a handle, as floats in the header's byte order. What the header says of their sizes is held against them.
#include "files/commands.h"
#include "files/kiln_header.h"
#include "instruments/timing/frame_times.h"
#include "instruments/timing/kairo.h"
#include "modules/store/view.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "support/byte_order.h"
#include "support/file_io.h"
#include "support/replace_file.h"
#include "unified/handles/handles.h"
#include "unified/read_pipeline.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format data_format("%s %d + %d intel time-v1 = %d");
using data_quals = pt_qualifiers<data_format>;

constexpr std::size_t header_max = 65536; // bytes
constexpr mode_t file_mode = 0666;

struct file_set {
    std::string folder; // with its "/", or empty
    std::string header; // its name
    int frames = 0;
    bool intel = false;
    int time_rows = 0;
    std::optional<kiln_line> saxs;
    std::string times_file; // a path, as the next
    std::string saxs_file;
};

// ---------------------------------------------------------------- the header

std::optional<std::vector<kiln_line>> read_header(int cn, const std::string &path) {
    const unique_fd fd = open_regular(path.c_str(), O_RDONLY);
    std::string text(header_max, '\0');
    const ssize_t got = fd ? read_full(fd.get(), text.data(), text.size()) : -1;
    if (got < 0) {
        sv_printf(cn, "! ERROR: cannot read header file '%s': %s\n", path.c_str(), std::strerror(errno));
        return std::nullopt;
    }
    text.resize(static_cast<std::size_t>(got));
    auto lines = kiln_parse(text);
    if (!lines)
        sv_printf(cn, "! ERROR: '%s' is not a KILN header\n", path.c_str());
    return lines;
}

// A data file lies beside its header and is called like it, whatever the header's text says.
bool take_line(const kiln_line &line, file_set &set) {
    const auto is = [&](char kind) { return line.file == kiln_data_name(set.header, kind); };
    const int flag = line.numbers[kiln_intel_at];
    if ((flag != 0 && flag != 1) || std::min({line.numbers[0], line.numbers[1], line.numbers[2]}) < 0)
        return false;
    if (is(kiln_saxs)) {
        set.saxs = line;
        set.saxs_file = set.folder + line.file;
    } else if (is(kiln_times)) {
        set.frames = line.numbers[0];
        set.time_rows = line.numbers[1];
        set.intel = flag == 1;
        set.times_file = set.folder + line.file;
        return set.time_rows == 4 || set.time_rows == 8;
    }
    return is(kiln_saxs) || is(kiln_calib) || is(kiln_waxs);
}

std::optional<file_set> open_set(int cn, const std::string &path) {
    const std::size_t name_at = path.rfind('/') + 1; // npos + 1 is the start
    file_set set;
    set.folder = path.substr(0, name_at);
    set.header = path.substr(name_at);
    if (!kiln_is_name(set.header)) {
        sv_printf(cn, "! Wrong format for KILN header file name '%s', expected 'xnn000.mdd'\n",
                  set.header.c_str());
        return std::nullopt;
    }
    const auto lines = read_header(cn, path);
    if (!lines)
        return std::nullopt;
    if (std::all_of(lines->begin(), lines->end(),
                    [&](const kiln_line &line) { return take_line(line, set); }))
        return set;
    sv_printf(cn, "! ERROR: header '%s' has a line that does not belong there\n", path.c_str());
    return std::nullopt;
}

// What the command line says again must be what the header says.
bool agrees(int cn, const data_quals &q, int frames, const file_set &set) {
    const auto differ = [cn, &set](const char *what) {
        sv_printf(cn, "! ERROR: header '%s' says otherwise: %s\n", set.header.c_str(), what);
        return false;
    };
    if (frames != set.frames)
        return differ("the number of time frames");
    if (q.given("intel") && !set.intel)
        return differ("intel");
    if (q.given("time-v1") && set.time_rows != 8)
        return differ("time-v1");
    return true;
}

// ---------------------------------------------------------------- time frames

// The times of the header's frames, row after row, in its byte order; nothing after a line.
std::optional<std::string> frame_times_of(int cn, const file_set &set) {
    const module_link link(frame_times_name);
    module_view view;
    if (!link || mod_look(link.head(), view) != nullptr || view.num_y < frame_times_rows_used) {
        frame_times_missing(cn);
        return std::nullopt;
    }
    const bool set_up = kairo.kairo_version == kairo_remote;
    const int known = set_up ? std::min(view.num_x, kairo.num_frames) : view.num_x;
    if (known < set.frames) {
        sv_printf(cn, "! ERROR: there are times of %d frames, header '%s' has %d\n", known,
                  set.header.c_str(), set.frames);
        return std::nullopt;
    }
    std::vector<float> values;
    for (int row = 0; row < set.time_rows; ++row) {
        for (int x = 0; x < set.frames; ++x)
            values.push_back(row < view.num_y
                                 ? static_cast<float>(mod_get_element(view.at(x, row, 0), view.data_type))
                                 : 0.0f);
    }
    if (set.intel != machine_is_intel)
        unif_swab_l(values.data(), values.size());
    return std::string(reinterpret_cast<const char *>(values.data()), values.size() * sizeof(float));
}

int write_times(int cn, const file_set &set, const std::string &bytes) {
    if (replace_file(set.times_file, bytes, file_mode) == replace_step::none)
        return 0;
    sv_printf(cn, "! ERROR: cannot write data file '%s': %s\n", set.times_file.c_str(), std::strerror(errno));
    return -1;
}

// ---------------------------------------------------------------- small-angle data

// The box of the handle that is the header's data; nothing after a line when its sizes are others. A one-dimensional
// detector's frames may be the handle's rows.
std::optional<unified_box> data_box(int cn, int handle, const file_set &set) {
    const auto info = unified_info_of(handle);
    if (!info || !set.saxs) {
        if (!info)
            sv_printf(cn, "! Invalid handle %d\n", handle);
        else
            sv_printf(cn, "! ERROR: header '%s' has no small-angle data\n", set.header.c_str());
        return std::nullopt;
    }
    const auto &n = set.saxs->numbers;
    const bool flat = n[1] == set.frames && n[2] == 1;
    const int rows = flat ? 1 : n[1];
    const bool has_frames = info->nt >= set.frames || (info->nt == 0 && set.frames == 1);
    const bool sound = flat || n[2] == set.frames;
    if (sound && info->nx == n[0] && info->ny == rows && has_frames)
        return unified_box{0, 0, 0, n[0], rows, set.frames};
    if (flat && info->nx == n[0] && info->nt <= 1 && info->ny >= set.frames)
        return unified_box{0, 0, 0, n[0], set.frames, 1};
    sv_printf(cn, "! ERROR: handle %d has %d x %d x %d, header '%s' has %d x %d x %d\n", handle, info->nx,
              info->ny, info->nt, set.header.c_str(), n[0], n[1], n[2]);
    return std::nullopt;
}

int write_data(int cn, int handle, const unified_box &box, const file_set &set) {
    if (box.dt < 1 || box.dy < 1) {
        sv_printf(cn, "! ERROR: header '%s' has no time frames\n", set.header.c_str());
        return -1;
    }
    read_request request;
    request.handle = handle;
    request.box = box;
    request.swap_bytes = set.intel != machine_is_intel ? 1 : 0;
    _unif_format format;
    UnifOutput output;
    output.cn = cn;
    output.filename = set.saxs_file;
    float32_setup_format(format);
    local_file_setup_output(output);
    return run_read(cn, request, format, output);
}

int kiln_data(int quals, int cn, const char *header, int frames, int handle) {
    const data_quals q(quals);
    const bool with_data = OptionalArgumentCount > 0;
    const auto set = open_set(cn, header);
    if (!set || !agrees(cn, q, frames, *set))
        return -1;
    const auto box = with_data ? data_box(cn, handle, *set) : unified_box{};
    const auto times = box ? frame_times_of(cn, *set) : std::nullopt;
    if (!times || (with_data && write_data(cn, handle, *box, *set) != 0))
        return -1;
    return write_times(cn, *set, *times);
}

} // namespace

constinit const PARSE_TREE row_kiln_data = pt_command<kiln_data>(
    "kiln-data", data_format, "Write the data files of a KILN header: time frames, small-angle data",
    "Header file name or path/Number of time frames/Handle of the small-angle data/Intel Byte Order/"
    "Write Version 1 (8 row) time File");

} // namespace kestrel
