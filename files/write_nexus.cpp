// `file write-nexus`: a run of the pulse processor as a NeXus file, which kestrel-nexus writes: once, or while it goes on.
#include "files/commands.h"
#include "files/nexus_follow.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "server/include_level.h"
#include "server/output.h"
#include "server/wait.h"
#include "support/file_io.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <memory>
#include <poll.h>
#include <sys/stat.h>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format nexus_format("%s %d + %d eng-offset %g eng-gain %g title %s follow = %d");
using nexus_quals = pt_qualifiers<nexus_format>;

constexpr std::size_t script_max = std::size_t{1} << 20; // bytes

int refuse(int cn, const std::string &line) {
    sv_print(cn, "! ERROR: " + line + "\n");
    return -1;
}

int check_name(int cn, const std::string &name) {
    if (name.empty() || std::ranges::any_of(name, [](unsigned char c) { return c < ' '; }))
        return refuse(cn, "a NeXus file needs a name without control characters");
    struct stat status {};
    for (const char *tail : {"", ".part"})
        if (::lstat((name + tail).c_str(), &status) == 0)
            return refuse(cn, "file '" + name + tail + "' exists");
    return 0;
}

// The script that the session runs.
void take_script(int cn, nexus_request &request) {
    const script_file *script = sv_get_include(cn);
    if (!script)
        return;
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(script->fd());
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    request.script_name = length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "script";
    request.script.resize(script_max);
    const ssize_t got = ::pread(script->fd(), request.script.data(), request.script.size(), 0);
    request.script.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
}

int take_request(int cn, const char *name, const nexus_quals &q, nexus_request &request) {
    request.name = name;
    request.title = q.text("title", name);
    const double offset = q.real("eng-offset", 0.0), gain = q.real("eng-gain", 1.0);
    if (!std::isfinite(offset) || !std::isfinite(gain) || gain == 0.0)
        return refuse(cn, "eng-offset and eng-gain must be finite, and eng-gain not 0");
    if (q.given("eng-offset") || q.given("eng-gain"))
        request.calibration = {offset, gain};
    take_script(cn, request);
    return check_name(cn, request.name);
}

// The handles and what they say of the run.
int take_run(int cn, nexus_follower &f, run_state &state) {
    const auto run = unified_run_of(cn, f.handle);
    const auto scalers = run && f.scaler_handle >= 0 ? unified_run_of(cn, f.scaler_handle) : run;
    if (!run || !scalers)
        return -1;
    f.run = *run;
    f.scalers = *scalers;
    if (run->source->has_scalers)
        return refuse(cn, "handle " + std::to_string(f.handle) + " has no histograms");
    if (f.scaler_handle >= 0 && (!scalers->source->has_scalers ||
                                 scalers->source->path_of(scalers->path) != run->source->path_of(run->path)))
        return refuse(cn, "handle " + std::to_string(f.scaler_handle) + " has no scalers of this run");
    if (run->source->describe(run->path, f.description) < 0 || run->source->state(run->path, true, state) < 0)
        return unified_run_failed(cn);
    f.begun = state.begun;
    f.asked = std::chrono::steady_clock::now();
    return 0;
}

// Waits until the helper says so. ^C ends it, and what it does then.
int wait_for(int cn, nexus_follower &f, const char *line) {
    sv_flush_all(cn);
    f.helper.listen();
    while (!f.helper.has_ended() && !f.helper.has_said(line)) {
        if (sv_wait_fd(f.helper.descriptor(), POLLIN, -1) == wait_result::interrupted)
            return refuse(cn, "NeXus file '" + f.name + "' was not written: interrupted");
        f.helper.listen();
    }
    if (f.helper.has_said(line))
        return 0;
    f.helper.clear_up();
    return refuse(cn, "cannot write NeXus file '" + f.name + "': " + f.helper.cause());
}

int write_nexus(int quals, int cn, const char *name, int handle, int scaler_handle) {
    const nexus_quals q(quals);
    nexus_request request;
    auto f = std::make_unique<nexus_follower>();
    f->cn = cn;
    f->handle = handle;
    f->scaler_handle = OptionalArgumentCount > 0 ? scaler_handle : -1;
    run_state state;
    if (take_request(cn, name, q, request) != 0 || take_run(cn, *f, state) != 0)
        return -1;
    f->name = request.name;
    const bool follow = q.given("follow") && state.counting;
    if (state.frames == 0 && !follow)
        return refuse(cn, "no time frame has been counted");
    std::vector<int> modules;
    for (const run_card &card : f->description.cards)
        modules.insert(modules.end(), {card.counts_module, card.status_module});
    std::string cause;
    if (!f->helper.start(f->name, nexus_start_records(request, f->description, state), modules, cause))
        return refuse(cn, "cannot write NeXus file '" + f->name + "': " + cause);
    if (follow) {
        if (wait_for(cn, *f, "made") != 0)
            return -1;
        nexus_follow(std::move(f));
        return 0;
    }
    if (nexus_give_results(cn, *f, state) != 0)
        return -1;
    f->helper.order(nexus_end);
    f->helper.order(nexus_rename);
    return wait_for(cn, *f, "whole");
}

} // namespace

constinit const PARSE_TREE row_write_nexus = pt_command<write_nexus>(
    "write-nexus", nexus_format, "Write a run of the pulse processor as a NeXus file",
    "File name/Handle of the histograms/Handle of the scalers/Energy of bin 0 (keV)/Energy of a bin (keV)/"
    "Title/Return at once and write while the run goes on");

} // namespace kestrel
