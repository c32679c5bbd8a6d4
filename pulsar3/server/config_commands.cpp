// `pulsar3 config` and `close`, and how a system that is open runs: debug, run mode, threading.
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "pulsar3/lib/config/config.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/sources.h"
#include "server/output.h"
#include "unified/handles/handles.h"

namespace kestrel {

namespace {

constexpr pt_format config_format(
    "%d %d %d baseIP %s basePort %d baseMAC %s nchan %d no-create modname %s debug verbose no-udp no-init passive send-scalars send-hist-list send-hist-frames dummy3 dummy3m dummy4 = %d");
using config_quals = pt_qualifiers<config_format>;

int check_keywords(int cn, const config_quals &q) {
    if (q.given("passive") && q.count({"send-scalars", "send-hist-list", "send-hist-frames"}) > 0) {
        sv_printf(cn, "! ERROR: If specifiying passive readout, don't enable any of the active modes\n");
        return -1;
    }
    if (q.given("send-hist-list") && q.given("send-hist-frames")) {
        sv_printf(cn, "! ERROR: Please specify at  most one of send-hist-list and send-hist-frames\n");
        return -1;
    }
    if (q.count({"dummy3", "dummy3m", "dummy4"}) > 1) {
        sv_printf(cn, "! ERROR: Please specify at most one type of dummy system\n");
        return -1;
    }
    return 0;
}

Plr3mReadoutMode readout_mode(const config_quals &q) {
    if (q.given("passive"))
        return Plr3mRd_Passive;
    int mode = Plr3mRd_Auto;
    mode |= q.given("send-scalars") ? Plr3mRd_SendScalars : 0;
    mode |= q.given("send-hist-list") ? Plr3mRd_SendHistList : 0;
    mode |= q.given("send-hist-frames") ? Plr3mRd_SendHistFrames : 0;
    return static_cast<Plr3mReadoutMode>(mode);
}

plr3_request request_of(const config_quals &q) {
    plr3_request r;
    r.baseIPaddress = q.text("baseIP");
    r.basePort = q.number("basePort");
    r.baseMACaddress = q.text("baseMAC");
    if (q.count({"no-udp", "no-init"}) > 0)
        r.baseMACaddress = "00:00:00:00:00:00"; // no data link
    r.num_chan = q.number("nchan");
    r.create_module = !q.given("no-create");
    r.modname = q.text("modname");
    r.debug = q.given("verbose") ? 2 : q.given("debug") ? 1 : 0;
    r.do_init = !q.given("no-init");
    r.readout_mode = readout_mode(q);
    r.dummy_system = q.given("dummy3")    ? PulsarDummy3
                     : q.given("dummy3m") ? PulsarDummy3Mini
                     : q.given("dummy4")  ? PulsarDummy4
                                          : PulsarReal;
    return r;
}

int pulsar3_config(int quals, int cn, int ncards, int num_tf, int card_index) {
    const config_quals q(quals);
    if (check_keywords(cn, q) != 0)
        return -1;
    plr3_request request = request_of(q);
    request.ncards = ncards;
    request.num_tf = num_tf;
    request.card_index = card_index;
    request.message_to = cn;
    sv_flush_all(cn); // the cards may let us wait
    const int path = plr3_config_init(request);
    if (path < 0)
        return pulsar3_status(cn, path);
    const int channels = plr3_get_num_chan(path);
    if (channels < 0) {
        sv_printf(cn, "! ERROR: Cannot determine number of channels for path %d: %s\n", path,
                  plr3_get_error_message());
        return channels;
    }
    if (set_int_variable(cn, "pulsar3_num_chan", channels, true) != 0)
        return -1;
    return path;
}

constexpr pt_format close_format("%d = %d");

int pulsar3_close(int, int cn, int path) {
    if (plr3_path_has_handles(path)) {
        sv_printf(cn, "! ERROR plr3_close: handles over path %d are open, please close them first\n", path);
        return plr3_failed;
    }
    return pulsar3_status(cn, plr3_close(path));
}

constexpr pt_format set_debug_format("%d %d + %d = %d");

int pulsar3_set_debug(int, int cn, int path, int level, int burst) {
    return pulsar3_status(cn, plr3_set_debug(path, level, burst));
}

constexpr pt_format
    set_run_mode_format("%d playback scope-mode no-scaler no-hist diag-hist circ-buffer = %d");

int pulsar3_set_run_mode(int quals, int cn, int path) {
    const pt_qualifiers<set_run_mode_format> q(quals);
    int flags = 0;
    flags |= q.given("playback") ? plr3_run_playback : 0;
    flags |= q.given("scope-mode") ? plr3_run_scope : 0;
    flags |= q.given("no-scaler") ? 0 : plr3_run_scalers;
    flags |= q.given("no-hist") ? 0 : plr3_run_hist;
    flags |= q.given("diag-hist") ? plr3_run_diag_hist : 0;
    flags |= q.given("circ-buffer") ? plr3_run_circular : 0;
    const int status = plr3_set_run_flags(path, flags);
    if (status < 0)
        sv_printf(cn, "! ERROR: Cannot set run flags : %s\n", plr3_get_error_message());
    return status;
}

constexpr pt_format set_threading_format("%d scope = %d");

// Scope data are received by one thread a channel, unless this says otherwise: without `scope` by one for all.
int pulsar3_set_threading(int quals, int cn, int path) {
    const pt_qualifiers<set_threading_format> q(quals);
    return pulsar3_status(cn, plr3_set_disable_threading(path, q.given("scope") ? 0 : 1));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_config = pt_command<pulsar3_config>(
    "config", config_format, "Configure a Pulsar system of one or more cards",
    "Number of cards/Number of 4096 energy bin spectra timeframes/Starting card index/Base IP address of the cards/"
    "Base port number/Base MAC address, six decimal numbers/Number of channels to use/Do not create the scope module/"
    "Name of the scope module/Print what is done/Print more of it/Do not set up the data link/"
    "Do not initialise the cards' registers/Mini model: send nothing unasked/Mini model: send scalers/"
    "Mini model: send event lists/Mini model: send histogram frames/Use a dummy of generation 3/Use a dummy mini model/"
    "Use a dummy of generation 4");

extern constinit const PARSE_TREE row_pulsar3_set_debug =
    pt_command<pulsar3_set_debug>("set-debug", set_debug_format, "Set the debug level of a path",
                                  "Path/Level, 0 to 2/Messages that the receive threads may print");

extern constinit const PARSE_TREE row_pulsar3_set_run_mode = pt_command<pulsar3_set_run_mode>(
    "set-run-mode", set_run_mode_format, "Set what a run does",
    "Path/Take data from the playback memory/Capture raw data streams/Without scalers/Without histograms/"
    "Mini model: diagnostic histograms/Use the time frames as a circular buffer");

extern constinit const PARSE_TREE row_pulsar3_set_threading =
    pt_command<pulsar3_set_threading>("set-threading", set_threading_format,
                                      "Set which data are received by several threads", "Path/Scope data");

extern constinit const PARSE_TREE row_pulsar3_close =
    pt_command<pulsar3_close>("close", close_format, "Close a path and the connections of its cards", "Path");

} // namespace kestrel
