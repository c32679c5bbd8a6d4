// kestrel-publish: tells a broker of the runs of this machine. Two threads work, one that looks at the modules and one
// that waits for the broker; sessions ask how far they are.
#include "parser/builtins.h"
#include "server/output.h"
#include "stream/common.h"
#include "stream/sender.h"
#include "support/metrics_text.h"

#include <cstdio>
#include <thread>

namespace kestrel::stream {

namespace {

constexpr long long mebi = 1 << 20;

std::size_t ring_bytes = 256 * mebi;
sender_limits limits;
std::unique_ptr<publication> runs;
std::thread watching, sending;

bool take_mebibytes(std::string_view text, std::size_t &bytes) {
    const auto number = whole_number(text);
    if (!number || *number < 1 || *number > mebi)
        return false;
    bytes = static_cast<std::size_t>(*number * mebi);
    return true;
}

const program_option options[] = {
    site_option,
    {"-ring=", "<MiB>", "Memory for frames that wait for the broker (default: 256)",
     [](std::string_view text) { return take_mebibytes(text, ring_bytes); }},
    {"-budget=", "<MiB>", "What the broker may keep of ours (default: 55 % of its maxmemory, or 256)",
     [](std::string_view text) { return take_mebibytes(text, limits.budget); }},
    {"-keep=", "<seconds>", "How long it keeps counts (default: 3600)",
     [](std::string_view text) {
         const auto number = whole_number(text);
         limits.keep = std::chrono::seconds(number.value_or(0));
         return number && *number > 0 && *number < 1000000000;
     }},
};

void begin(int argc, char **argv) {
    take_options(argc, argv, options);
    const broker_site &site = chosen_site();
    runs = std::make_unique<publication>(ring_bytes);
    watching = std::thread([prefix = site.prefix] { watch_runs(*runs, prefix); });
    sending = std::thread([site] { sender(*runs, site, limits).send_until_end(); });
}

void end() {
    if (!runs)
        return;
    {
        const std::lock_guard guard(runs->mutex);
        runs->ending = true;
        runs->changed();
    }
    watching.join();
    sending.join();
    if (const std::uint64_t waiting = runs->total().waiting(); waiting > 0)
        std::printf("# frames that the broker was not told of: %llu\n",
                    static_cast<unsigned long long>(waiting));
}

const char *state_of(const published_run &run) {
    return run.sealed            ? "sealed"
           : run.epoch == 0      ? "waits for the broker"
           : run.over || run.cut ? "stopped"
                                 : "running";
}

int show(int, int cn) {
    const std::lock_guard guard(runs->mutex);
    const auto &b = runs->broker;
    sv_printf(cn, "# broker %s: %s\n", chosen_site().text().c_str(),
              b.connected ? "connected" : b.cause.c_str());
    for (const auto &run : runs->runs) {
        const frame_account sum = runs->total(*run);
        sv_printf(cn, "# run %s: %s, epoch %llu, %llu frames: %llu sent, %llu lost, %llu waiting\n",
                  run->id.c_str(), state_of(*run), static_cast<unsigned long long>(run->epoch),
                  static_cast<unsigned long long>(sum.acquired), static_cast<unsigned long long>(sum.sent),
                  static_cast<unsigned long long>(sum.lost), static_cast<unsigned long long>(sum.waiting()));
    }
    return static_cast<int>(runs->total().waiting());
}

constinit const PARSE_TREE root[] = {
    pt_row(row_help),
    pt_row(row_echo),
    pt_row(row_quit),
    pt_row(row_status),
    pt_row(row_shutdown),
    pt_command<show>("show", "= %d", "the broker and the runs; the result is the frames that wait", ""),
    pt_end(),
};

void status(std::string &out) {
    const std::lock_guard guard(runs->mutex);
    const frame_account sum = runs->total();
    out += "stream " + std::to_string(sum.acquired) + " acquired, " + std::to_string(sum.sent) + " sent, " +
           std::to_string(sum.lost) + " lost, broker " + (runs->broker.connected ? "connected" : "away") +
           "\n";
}

void metrics(std::string &out) {
    const std::lock_guard guard(runs->mutex);
    const frame_account sum = runs->total();
    const auto &b = runs->broker;
    const auto add = [&out](const char *name, const char *type, const char *help, std::uint64_t value) {
        metric_single(out, name, type, help, std::to_string(value));
    };
    add("kestrel_stream_acquired_frames_total", "counter", "Frames that became final: sent, lost or waiting.",
        sum.acquired);
    add("kestrel_stream_sent_frames_total", "counter", "Frames that the broker has with their counts.",
        sum.sent);
    add("kestrel_stream_lost_frames_total", "counter", "Frames that the broker has without their counts.",
        sum.lost);
    add("kestrel_stream_waiting_frames", "gauge", "Frames that the broker has not been told of.",
        sum.waiting());
    add("kestrel_stream_ring_bytes", "gauge", "Counts that wait for the broker.", runs->ring.bytes());
    add("kestrel_stream_connected", "gauge", "1 while there is a connection to the broker.", b.connected);
    add("kestrel_stream_connections_total", "counter", "Connections to the broker.", b.connections);
    add("kestrel_stream_epochs_total", "counter", "Runs announced again after the broker had been away.",
        b.epochs);
    add("kestrel_stream_broker_bytes", "gauge", "What the broker keeps of ours.", b.bytes);
    add("kestrel_stream_broker_budget_bytes", "gauge", "What it may keep.", b.budget);
}

constexpr server_program program = {1974, root, begin, end, status, metrics};

} // namespace

} // namespace kestrel::stream

int main(int argc, char **argv) {
    return kestrel::stream::run_server(kestrel::stream::program, argc, argv);
}
