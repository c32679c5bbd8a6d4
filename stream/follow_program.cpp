// kestrel-follow: a run that another machine publishes, as modules of this one.
#include "parser/builtins.h"
#include "server/output.h"
#include "stream/common.h"
#include "stream/follower.h"
#include "support/metrics_text.h"

#include <thread>

namespace kestrel::stream {

namespace {

follow_options options;
follow_state state;
std::thread following;

bool is_prefix(std::string_view text) {
    return text.size() <= 32 && text.find_first_of("/. '\"") == text.npos;
}

const program_option words[] = {
    site_option,
    {"-live", "", "The newest frame only (the default)",
     [](std::string_view) { return !(options.all = false); }},
    {"-all", "", "Every frame, and a line for those that are lost",
     [](std::string_view) { return options.all = true; }},
    {"-rename=", "<prefix>", "Names of modules begin with it",
     [](std::string_view text) {
         options.rename = text;
         return is_prefix(text);
     }},
};

void begin(int argc, char **argv) {
    take_options(argc, argv, words);
    following = std::thread([site = chosen_site()] { follower(site, options, state).follow_until_end(); });
}

void end() {
    state.ending = true;
    if (following.joinable())
        following.join();
}

int show(int, int cn) {
    const std::lock_guard guard(state.mutex);
    const auto number = [](std::uint64_t n) { return static_cast<unsigned long long>(n); };
    const follow_account &a = state.account;
    sv_printf(cn, "# broker %s: %s\n", chosen_site().text().c_str(),
              state.connected ? "connected" : state.cause.c_str());
    sv_printf(cn, "# run %s, epoch %llu\n", state.run.empty() ? "none" : state.run.c_str(),
              number(state.epoch));
    sv_printf(cn, "# %llu frames: %llu received, %llu lost, %llu skipped; %llu times resync\n",
              number(a.acquired), number(a.received), number(a.lost), number(a.skipped),
              number(state.resyncs));
    return static_cast<int>(a.received);
}

constinit const PARSE_TREE root[] = {
    pt_row(row_help),
    pt_row(row_echo),
    pt_row(row_quit),
    pt_row(row_status),
    pt_row(row_shutdown),
    pt_command<show>("show", "= %d", "the broker and the run; the result is the frames that were received",
                     ""),
    pt_end(),
};

void status(std::string &out) {
    const std::lock_guard guard(state.mutex);
    out += "follow " + std::to_string(state.account.received) + " received, " +
           std::to_string(state.account.lost) + " lost, broker " + (state.connected ? "connected" : "away") +
           "\n";
}

void metrics(std::string &out) {
    const std::lock_guard guard(state.mutex);
    const follow_account &a = state.account;
    const auto add = [&out](const char *name, const char *type, const char *help, std::uint64_t value) {
        metric_single(out, name, type, help, std::to_string(value));
    };
    add("kestrel_follow_acquired_frames_total", "counter", "Frames: received, lost or skipped.", a.acquired);
    add("kestrel_follow_received_frames_total", "counter", "Frames whose counts are in a module here.",
        a.received);
    add("kestrel_follow_lost_frames_total", "counter", "Frames whose counts are gone.", a.lost);
    add("kestrel_follow_skipped_frames_total", "counter", "Frames passed over for newer ones.", a.skipped);
    add("kestrel_follow_resyncs_total", "counter", "Gaps in what the broker keeps.", state.resyncs);
    add("kestrel_follow_connected", "gauge", "1 while there is a connection to the broker.", state.connected);
}

constexpr server_program program = {1975, root, begin, end, status, metrics};

} // namespace

} // namespace kestrel::stream

int main(int argc, char **argv) {
    return kestrel::stream::run_server(kestrel::stream::program, argc, argv);
}
