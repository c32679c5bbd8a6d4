// files: the runs that are being written as NeXus files while they go on. The command thread looks after them between
// commands and in its turns; what there is to say of one is said to its session at that session's next command.
#pragma once

#include "files/nexus_describe.h"
#include "files/nexus_helper.h"

#include <chrono>
#include <memory>
#include <string>

namespace kestrel {

struct nexus_follower {
    int cn = -1;     // who wants it; -1: nobody any more
    int handle = -1; // of the histograms
    int scaler_handle = -1;
    run_handle run, scalers;
    run_description description;
    std::string name;
    std::chrono::steady_clock::time_point begun{}, asked{}; // the run; when its cards were asked
    int frames = 0;
    bool over = false;      // the helper has the results
    bool confirmed = false; // and may give the file its name
    std::string lost;       // why the file stays without its name
    nexus_helper helper;
};

// Hands the helper the results of the run as it stands now: 0, or -1 after a line.
int nexus_give_results(int cn, nexus_follower &follower, const run_state &state);

// The follower is looked after from now on.
void nexus_follow(std::unique_ptr<nexus_follower> follower);

} // namespace kestrel
