// files: a run in the words of NeXus, as records for kestrel-nexus.
#pragma once

#include "files/nexus_records.h"
#include "unified/handles/run.h"

#include <optional>
#include <string>

namespace kestrel {

// What a command says of the file.
struct nexus_request {
    std::string name, title;
    std::optional<std::pair<double, double>> calibration; // energy of bin 0 and of a bin, keV
    std::string script;                                   // its text, where one runs
    std::string script_name;
};

// The start of the file: all that is known before the run is over.
std::string nexus_start_records(const nexus_request &request, const run_description &run,
                                const run_state &state);

// Frame times of the timing unit, where their module is.
struct nexus_times {
    std::vector<double> dead, live;
};

// The end of the file: what the run came to. No scalers: the file has none.
struct nexus_results_of_run {
    run_state state;
    std::vector<run_loss> losses;
    std::optional<run_scalers> scalers;
    nexus_times times;
};
std::string nexus_end_records(const run_description &run, const nexus_results_of_run &results);

} // namespace kestrel
