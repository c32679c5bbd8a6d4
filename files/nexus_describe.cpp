#include "files/nexus_describe.h"

#include <array>
#include <ctime>
#include <numeric>

namespace kestrel {

namespace {

constexpr std::size_t nr_scalers = 9;
constexpr const char *scaler_names =
    "time\nreset\nscaler2\nall_event\nall_good\nin_window0\nin_window1\nscaler7\nscaler8";
const std::string entry = "/entry", instrument = "/entry/instrument";

std::string card_name(const run_card &card) {
    return "card" + std::to_string(card.index);
}

// ISO 8601, in milliseconds.
std::string time_text(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto since = duration_cast<milliseconds>(time.time_since_epoch()).count();
    const std::time_t seconds = since / 1000;
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char day[32], text[48];
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text, sizeof text, "%s.%03dZ", day, static_cast<int>(since % 1000));
    return text;
}

void number(nexus_records &out, const std::string &path, double value, const char *units) {
    out.array<double>(path, std::span(&value, 1), {1}, units);
}

void put_entry(nexus_records &out, const nexus_request &request, const run_description &run,
               const run_state &state) {
    out.add({"attribute", "/", "NX_class"}, "NXroot");
    out.add({"attribute", "/", "default"}, "entry");
    out.add({"attribute", "/", "creator"}, "kestrel");
    out.add({"attribute", "/", "file_time"}, time_text(std::chrono::system_clock::now()));
    out.add({"group", entry, "NXentry"});
    out.add({"attribute", entry, "default"}, card_name(run.cards.front()));
    out.add({"text", entry + "/title"}, request.title);
    out.add({"text", entry + "/program_name"}, "kestrel");
    if (state.start)
        out.add({"text", entry + "/start_time"}, time_text(*state.start));
    if (!request.script_name.empty()) {
        out.add({"group", entry + "/script", "NXnote"});
        out.add({"text", entry + "/script/type"}, "text/plain");
        out.add({"text", entry + "/script/file_name"}, request.script_name);
        out.add({"text", entry + "/script/data"}, request.script);
    }
    out.add({"group", instrument, "NXinstrument"});
    number(out, instrument + "/clock_period", run.clock_period, "s");
}

void put_axes(nexus_records &out, const nexus_request &request, const run_description &run,
              const std::string &group, const run_card &card, int first_channel) {
    const auto bins = static_cast<std::size_t>(run.energies),
               auxiliaries = static_cast<std::size_t>(run.auxiliaries);
    std::vector<double> energy(bins);
    const auto [offset, gain] = request.calibration.value_or(std::pair(0.0, 1.0));
    for (std::size_t bin = 0; bin < bins; ++bin)
        energy[bin] = offset + gain * static_cast<double>(bin);
    out.array<double>(group + "/energy", energy, {bins}, request.calibration ? "keV" : "");
    out.add({"attribute", group + "/energy", "long_name"},
            request.calibration ? "Energy (keV)" : "Energy bin");
    std::vector<std::int32_t> channels, auxiliary_bins;
    for (std::size_t row = 0; row < card.channels.size() * auxiliaries; ++row) {
        channels.push_back(first_channel + static_cast<std::int32_t>(row / auxiliaries));
        auxiliary_bins.push_back(static_cast<std::int32_t>(row % auxiliaries));
    }
    out.array<std::int32_t>(group + "/channel", channels, {channels.size()});
    if (auxiliaries > 1)
        out.array<std::int32_t>(group + "/auxiliary_bin", auxiliary_bins, {channels.size()});
}

void put_dead_time(nexus_records &out, const run_description &run, const std::string &card_group,
                   const run_card &card) {
    const std::string group = card_group + "/dead_time";
    out.add({"group", group, "NXcollection"});
    number(out, group + "/calculation_energy", run.dead_time_energy, "");
    for (std::size_t i = 0; i < run_dead_time_names.size(); ++i) {
        std::vector<double> values;
        for (const run_channel &channel : card.channels)
            values.push_back(channel.dead_time[i]);
        out.array<double>(group + "/" + run_dead_time_names[i].name, values, {values.size()},
                          run_dead_time_names[i].units);
    }
    std::vector<std::int32_t> flags;
    for (const run_channel &channel : card.channels)
        flags.push_back(channel.dead_time_flags);
    out.array<std::int32_t>(group + "/flags", flags, {flags.size()});
}

void put_settings(nexus_records &out, const std::string &card_group, const run_card &card) {
    const std::string group = card_group + "/settings";
    out.add({"group", group, "NXcollection"});
    out.array<std::uint32_t>(group + "/card_registers", card.registers, {card.registers.size()});
    std::vector<std::uint32_t> words;
    for (const run_channel &channel : card.channels)
        words.insert(words.end(), channel.registers.begin(), channel.registers.end());
    const std::size_t channels = card.channels.size();
    out.array<std::uint32_t>(group + "/channel_registers", words, {channels, words.size() / channels});
}

// The detector has the data, and an NXdata beside it what of them a viewer shows.
void put_card(nexus_records &out, const nexus_request &request, const run_description &run,
              const run_card &card, int first_channel, int modules) {
    const std::string group = instrument + "/" + card_name(card), data = entry + "/" + card_name(card);
    out.add({"group", group, "NXdetector"});
    out.add({"text", group + "/description"}, "pulse processing card");
    out.add({"text", group + "/local_name"}, card_name(card));
    put_axes(out, request, run, group, card, first_channel);
    out.add({"card", group, std::to_string(modules), std::to_string(modules + 1),
             std::to_string(card.channels.size()), std::to_string(run.auxiliaries)});
    out.add({"attribute", group + "/counts", "interpretation"}, "spectrum");
    put_dead_time(out, run, group, card);
    put_settings(out, group, card);
    out.add({"group", data, "NXdata"});
    out.add({"attribute", data, "signal"}, "counts");
    out.add({"names", data, "axes"}, "frame\nchannel\nenergy");
    out.add({"text", data + "/title"}, request.title + ": " + card_name(card));
    for (const char *name : {"counts", "frame", "channel", "energy"})
        out.add({"link", data + "/" + name, group + "/" + name});
}

// ---------------------------------------------------------------- the end

void put_losses(nexus_records &out, const std::string &card_group, std::span<const run_loss> losses) {
    const std::string group = card_group + "/loss";
    out.add({"group", group, "NXcollection"});
    for (std::size_t i = 0; i < run_loss_names.size(); ++i) {
        std::vector<std::uint64_t> values;
        for (const run_loss &loss : losses)
            values.push_back(loss[i]);
        out.array<std::uint64_t>(group + "/" + run_loss_names[i], values, {values.size()});
    }
}

// A card's part of values that lie channel by channel, frame by frame, `each` of them a channel.
template <class T>
std::vector<T> part_of(const std::vector<T> &all, std::size_t each, std::size_t first, std::size_t count,
                       std::size_t channels) {
    std::vector<T> part;
    for (std::size_t row = 0; row < all.size(); row += channels * each) {
        const auto at = all.begin() + static_cast<std::ptrdiff_t>(row + first * each);
        part.insert(part.end(), at, at + static_cast<std::ptrdiff_t>(count * each));
    }
    return part;
}

void put_scalers(nexus_records &out, const std::string &card_group, const run_scalers &scalers,
                 std::size_t first, std::size_t count, std::size_t channels) {
    const std::string group = card_group + "/scalers";
    const std::size_t frames = scalers.factors.size() / channels;
    out.add({"group", group, "NXcollection"});
    out.array<std::uint32_t>(group + "/counted", part_of(scalers.counted, nr_scalers, first, count, channels),
                             {frames, count, nr_scalers});
    out.add({"names", group + "/counted", "scalers"}, scaler_names);
    out.array<double>(group + "/corrected", part_of(scalers.corrected, nr_scalers, first, count, channels),
                      {frames, count, nr_scalers});
    out.add({"names", group + "/corrected", "scalers"}, scaler_names);
    out.array<double>(group + "/dead_time_factor", part_of(scalers.factors, 1, first, count, channels),
                      {frames, count});
}

void put_times(nexus_records &out, const nexus_times &times) {
    if (times.live.empty())
        return;
    const std::string group = instrument + "/timing";
    out.add({"group", group, "NXcollection"});
    out.array<double>(group + "/dead_time", times.dead, {times.dead.size()}, "s");
    out.array<double>(group + "/live_time", times.live, {times.live.size()}, "s");
}

} // namespace

std::string nexus_start_records(const nexus_request &request, const run_description &run,
                                const run_state &state) {
    nexus_records out;
    put_entry(out, request, run, state);
    int first_channel = 0, modules = nexus_modules;
    for (const run_card &card : run.cards) {
        put_card(out, request, run, card, first_channel, modules);
        modules += 2;
        first_channel += static_cast<int>(card.channels.size());
    }
    return out.text();
}

std::string nexus_end_records(const run_description &run, const nexus_results_of_run &results) {
    nexus_records out;
    const run_state &state = results.state;
    out.add({"frames", std::to_string(state.frames), state.counting ? "final" : "all"});
    if (state.end)
        out.add({"text", entry + "/end_time"}, time_text(*state.end));
    if (state.start && state.end)
        number(out, entry + "/duration", std::chrono::duration<double>(*state.end - *state.start).count(),
               "s");
    put_times(out, results.times);
    std::size_t first = 0;
    const std::size_t channels = results.losses.size();
    for (const run_card &card : run.cards) {
        const std::string group = instrument + "/" + card_name(card);
        const std::size_t count = card.channels.size();
        put_losses(out, group, std::span(results.losses).subspan(first, count));
        if (results.scalers)
            put_scalers(out, group, *results.scalers, first, count, channels);
        first += count;
    }
    return out.text();
}

} // namespace kestrel
