#include "app/hooks.h"

#include "files/commands.h"
#include "instruments/bench/commands.h"
#include "instruments/links/clients.h"
#include "maths/peak_fit/job.h"
#include "modules/store/cut_guard.h"
#include "modules/store/store.h"
#include "parser/command_counts.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "parser/variables.h"
#include "pulsar3/lib/frames/count_board.h"
#include "pulsar3/server/commands.h"
#include "server/options.h"
#include "server/output.h"
#include "server/session.h"
#include "stream/fits/command.h"
#include "support/metrics_text.h"
#include "unified/handles/handles.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/select.h>
#include <utility>

namespace kestrel {

namespace {

[[noreturn]] void usage(const char *program) {
    std::fprintf(stderr, "%s\n", sv_credit);
    std::fprintf(stderr, "Usage:\n");
    std::fprintf(stderr, "\t%s [-options]\n", program);
    std::fprintf(stderr, "Options:\n");
    std::fprintf(stderr, "\t-server?   Print usage of command arguments understood by server.\n");
    std::exit(1);
}

void set_data_dir() {
    const char *directory = std::getenv("DATA_DIR");
    if (!directory || !*directory)
        return;
    std::string path(directory);
    if (path.back() != '/' && path.back() != '\\')
        path += '/';
    set_string_variable(0, "DATA_DIR", path, true);
    set_string_variable(0, "data_dir", path, true);
}

int (*select_add_before)(fd_set *set, int highest) = nullptr;

// Each turn of the session loop.
int select_add(fd_set *set, int highest) {
    datamod_turn();
    return select_add_before ? select_add_before(set, highest) : highest;
}

void user_main(int argc, char **argv) {
    if (argc > 1)
        usage(argv[0]);
    datamod_keep_unused(use_network); // a terminal has no turns
    links::clients_init();
    pulsar3_init();
    files_init();
    stream::fit_far_init();
    set_data_dir();
    select_add_before = std::exchange(user_select_add, select_add);
}

void user_connect(int) {}
// What the session has open goes with it.
void user_disconnect(int cn) {
    files_connection_lost(cn);
    unif_connection_lost(cn);
    pulsar3_connection_lost(cn);
}
void user_exit() {
    files_exit();
    bench::bench_exit();
    pulsar3_exit();
}

// The interpreter's user_command_spoiled. When another process cuts a module short, a command that reads it
// gets zeros in place of the missing elements, and cut_guard counts. A count that has grown since the last call
// means that this command got such zeros, but for the call with `begins`: then nothing has run yet on this line,
// and the count is only taken over.
bool module_was_cut(int cn, bool begins) {
    static int last_count = 0;
    const bool was_cut = cut_guard_count() != last_count;
    last_count = cut_guard_count();
    if (begins || !was_cut)
        return false;
    sv_printf(cn, "! ERROR: a data module was cut short by another process while the command used it\n");
    return true;
}

// What is looked after around every command.
bool around_command(int cn, bool begins) {
    files_turn(cn);
    datamod_turn();
    return module_was_cut(cn, begins);
}

void app_status(std::string &out) {
    const datamod_totals modules = datamod_total();
    pt_commands_status(out);
    out += "handles " + std::to_string(unified_open_count()) + "\n";
    out += "modules " + std::to_string(modules.mappings) + ", " + std::to_string(modules.bytes) + " bytes\n";
    links::clients_status(out);
    plr3_board_status(out);
}

void app_metrics(std::string &out) {
    const datamod_totals modules = datamod_total();
    pt_commands_metrics(out);
    metric_single(out, "kestrel_handles", "gauge", "Unified handles that are open.",
                  std::to_string(unified_open_count()));
    metric_single(out, "kestrel_modules", "gauge", "Modules that the server has mapped.",
                  std::to_string(modules.mappings));
    metric_single(out, "kestrel_module_bytes", "gauge", "Their memory.", std::to_string(modules.bytes));
    links::clients_metrics(out);
    plr3_board_metrics(out);
    peak_fit_metrics(out);
}

} // namespace

server_hooks app_hooks() {
    user_command_spoiled = around_command;
    unified_file_hooks = files_hooks();
    server_hooks hooks;
    hooks.service = user_service;
    hooks.include_startup = include_startup;
    hooks.complete = user_sv_ln_completion;
    hooks.user_main = user_main;
    hooks.user_connect = user_connect;
    hooks.user_disconnect = user_disconnect;
    hooks.user_exit = user_exit;
    hooks.status = app_status;
    hooks.metrics = app_metrics;
    return hooks;
}

} // namespace kestrel
