// `pulsar3 open-mca`: the histograms of a path as a unified handle: x the energy, y channel x auxiliary bins + auxiliary
// bin, t the time frame. Clearing, enabling and disabling it clear, start and stop the histograms.
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/corrected.h"
#include "pulsar3/lib/counts/histogram_read.h"
#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/sources.h"
#include "server/output.h"

namespace kestrel {

namespace {

enum mca_option : unsigned { corrected = 1 };

// A region of channels and auxiliary bins.
struct mca_region {
    int aux, chan, num_aux, num_chan;
};

int read_region(const pulsar3_source &source, std::byte *&to, const mca_region &r, int x, int t, int dx,
                int dt) {
    const bool dtc = (source.options & corrected) != 0;
    const int status = dtc ? plr3_hist_dtc_read4d(source.path, reinterpret_cast<double *>(to), x, r.aux,
                                                  r.chan, t, dx, r.num_aux, r.num_chan, dt)
                           : plr3_histogram_read4d(source.path, reinterpret_cast<std::uint32_t *>(to), x,
                                                   r.aux, r.chan, t, dx, r.num_aux, r.num_chan, dt);
    to += static_cast<std::size_t>(dx) * static_cast<std::size_t>(r.num_aux) *
          static_cast<std::size_t>(r.num_chan) * static_cast<std::size_t>(dt) *
          (dtc ? sizeof(double) : sizeof(std::uint32_t));
    return status;
}

int read_mca(int number, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const pulsar3_source *source = pulsar3_source_of(number);
    channel_shape shape;
    if (!source)
        return -1;
    if (const int status = plr3_shape_of(source->path, 0, shape); status != 0)
        return pulsar3_source_status(status);
    auto *to = static_cast<std::byte *>(buffer);
    const int aux = shape.auxiliaries;
    if (y % aux == 0 && dy % aux == 0)
        return pulsar3_source_status(read_region(*source, to, {0, y / aux, aux, dy / aux}, x, t, dx, dt));
    for (int frame = t; frame < t + dt; ++frame)
        for (int row = y; row < y + dy; ++row)
            if (const int status = read_region(*source, to, {row % aux, row / aux, 1, 1}, x, frame, dx, 1);
                status != 0)
                return pulsar3_source_status(status);
    return 0;
}

// Whole channels, whatever part of them was named.
int clear_mca(int number, int, int y, int t, int, int dy, int dt) {
    const pulsar3_source *source = pulsar3_source_of(number);
    channel_shape shape;
    if (!source)
        return -1;
    if (const int status = plr3_shape_of(source->path, 0, shape); status != 0)
        return pulsar3_source_status(status);
    const int first = y / shape.auxiliaries, end = (y + dy + shape.auxiliaries - 1) / shape.auxiliaries;
    return pulsar3_source_status(plr3_histogram_clear(source->path, first, end - first, t, dt));
}

int start_mca(int number) {
    const pulsar3_source *source = pulsar3_source_of(number);
    return source ? pulsar3_source_status(plr3_histogram_start(source->path, -1)) : -1;
}

int stop_mca(int number) {
    const pulsar3_source *source = pulsar3_source_of(number);
    return source ? pulsar3_source_status(plr3_histogram_stop(source->path, -1)) : -1;
}

constexpr unified_source mca_source = {.read = read_mca,
                                       .clear = clear_mca,
                                       .enable = start_mca,
                                       .disable = stop_mca,
                                       .run = &pulsar3_histogram_run};

constexpr pt_format open_mca_format("%d diag dtc calib = %d");
using open_mca_quals = pt_qualifiers<open_mca_format>;

// No card that is known has a diagnostic histogram or counts calibration events by themselves.
int check_keywords(int cn, int path, const open_mca_quals &q) {
    if (q.given("diag") && q.given("dtc")) {
        sv_printf(cn, "! ERROR: diagnostic histograms cannot be corrected for dead time\n");
        return -1;
    }
    if (q.given("diag") || q.given("calib")) {
        sv_printf(cn, "! ERROR: the cards of path %d have no %s\n", path,
                  q.given("diag") ? "diagnostic histograms" : "histograms of calibration events");
        return -1;
    }
    return 0;
}

int pulsar3_open_mca(int quals, int cn, int path) {
    const open_mca_quals q(quals);
    const PLR3Path *top = plr3_path(path);
    channel_shape shape;
    if (const int status = plr3_common_shape("plr3_open_mca", path, 0, top ? top->num_chan : 1, shape);
        status != 0)
        return pulsar3_status(cn, status);
    if (check_keywords(cn, path, q) != 0)
        return -1;
    const bool dtc = q.given("dtc");
    return pulsar3_open_source(cn, {path, dtc ? corrected : 0U, dtc ? "corrected histograms" : "histograms"},
                               shape.energies, top->num_chan * shape.auxiliaries, shape.frames,
                               dtc ? el_double : el_long, mca_source);
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_open_mca = pt_command<pulsar3_open_mca>(
    "open-mca", open_mca_format, "Open a unified read connection to the histograms of a path",
    "Path/Mini model: the diagnostic histogram/Correct them for dead time/Those of calibration events");

} // namespace kestrel
