// `pulsar3 open-scalers`: the scalers of a path as a unified handle.
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/scalers.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/sources.h"

namespace kestrel {

namespace {

enum scaler_option : unsigned { corrected = 1, direct = 2 };

plr3_scaler_box box_of(int x, int y, int t, int dx, int dy, int dt) {
    return {x, y, t, dx, dy, dt};
}

int read_scalers(int number, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const pulsar3_source *source = pulsar3_source_of(number);
    if (!source)
        return -1;
    const plr3_scaler_box box = box_of(x, y, t, dx, dy, dt);
    const auto from = (source->options & direct) != 0 ? plr3_scaler_from::direct : plr3_scaler_from::usual;
    if ((source->options & corrected) != 0)
        return pulsar3_source_status(
            plr3_scaler_dtc_read(source->path, {static_cast<double *>(buffer), box.size()}, box, from));
    return pulsar3_source_status(
        plr3_scaler_read(source->path, {static_cast<std::uint32_t *>(buffer), box.size()}, box, from));
}

int clear_scalers(int number, int x, int y, int t, int dx, int dy, int dt) {
    const pulsar3_source *source = pulsar3_source_of(number);
    return source ? pulsar3_source_status(plr3_scaler_clear(source->path, box_of(x, y, t, dx, dy, dt))) : -1;
}

int start_scalers(int number) {
    const pulsar3_source *source = pulsar3_source_of(number);
    return source ? pulsar3_source_status(plr3_histogram_start(source->path, -1)) : -1;
}

int stop_scalers(int number) {
    const pulsar3_source *source = pulsar3_source_of(number);
    return source ? pulsar3_source_status(plr3_histogram_stop(source->path, -1)) : -1;
}

constexpr unified_source scaler_source = {.read = read_scalers,
                                          .clear = clear_scalers,
                                          .enable = start_scalers,
                                          .disable = stop_scalers,
                                          .run = &pulsar3_scaler_run};

constexpr pt_format open_scalers_format("%d dtc direct = %d");

int pulsar3_open_scalers(int quals, int cn, int path) {
    const pt_qualifiers<open_scalers_format> q(quals);
    const int frames = plr3_get_scaler_num_tf(path);
    if (frames < 0)
        return pulsar3_status(cn, frames);
    const bool dtc = q.given("dtc");
    const unsigned options = (dtc ? corrected : 0U) | (q.given("direct") ? direct : 0U);
    return pulsar3_open_source(cn, {path, options, dtc ? "corrected scalers" : "scalers"}, plr3_nr_scalers,
                               plr3_get_num_chan(path), frames, dtc ? el_double : el_long, scaler_source);
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_open_scalers = pt_command<pulsar3_open_scalers>(
    "open-scalers", open_scalers_format, "Open a unified read connection to the scalers of a path",
    "Path/Correct them for dead time/Mini model: read the card even if it sends its scalers");

} // namespace kestrel
