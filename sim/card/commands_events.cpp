// sim/card: what each channel's detector sees, the truth that a correction is judged by, and the frames as sent.
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "sim/card/commands.h"
#include "sim/card/frames.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <numeric>
#include <optional>

namespace kestrel {

namespace {

constexpr pt_format
    set_format("%d %d rate %g a %g b %g c %g d %g resets %g noise %g fano %g background %g tau %g "
               "model paralysable non-paralysable = %d");
using set_words = pt_qualifiers<set_format>;

struct real_setting {
    const char *name;
    set_words::real_word word;
    double channel_model::*value;
};
constexpr real_setting settings[] = {
    {"rate", "rate", &channel_model::rate},
    {"a", "a", &channel_model::a},
    {"b", "b", &channel_model::b},
    {"c", "c", &channel_model::c},
    {"d", "d", &channel_model::d},
    {"resets", "resets", &channel_model::resets},
    {"noise", "noise", &channel_model::noise},
    {"fano", "fano", &channel_model::fano},
    {"background", "background", &channel_model::background},
    {"tau", "tau", &channel_model::tau},
};
constexpr set_words::choice<dead_time> ways[] = {
    {"model", dead_time::model},
    {"paralysable", dead_time::paralysable},
    {"non-paralysable", dead_time::non_paralysable},
};
constexpr const char *way_names[] = {"model", "non-paralysable", "paralysable"};

int set(int quals, int cn, int position, int chan) {
    const set_words q(quals);
    std::lock_guard guard(cards.lock);
    const bool done = commands_each_channel(cn, position, chan, [&](card &c, int i) {
        channel_model &m = c.models[static_cast<std::size_t>(i)];
        for (const real_setting &s : settings)
            m.*s.value = q.real(s.word, m.*s.value);
        m.way = q.first(ways).value_or(m.way);
        m.changed();
    });
    return done ? 0 : -1;
}

int line(int, int cn, int position, int chan, double bin, double intensity) {
    if (!(bin >= 0) || !(intensity >= 0)) {
        sv_printf(cn, "! A line at bin %g of intensity %g cannot be\n", bin, intensity);
        return -1;
    }
    std::lock_guard guard(cards.lock);
    const bool done = commands_each_channel(cn, position, chan, [&](card &c, int i) {
        channel_model &m = c.models[static_cast<std::size_t>(i)];
        m.lines.push_back({bin, intensity});
        m.changed();
    });
    return done ? 0 : -1;
}

int no_lines(int, int cn, int position, int chan) {
    std::lock_guard guard(cards.lock);
    const bool done = commands_each_channel(cn, position, chan, [&](card &c, int i) {
        c.models[static_cast<std::size_t>(i)].lines.clear();
        c.models[static_cast<std::size_t>(i)].changed();
    });
    return done ? 0 : -1;
}

int list(int, int cn, int position, int chan) {
    std::string text;
    char row[256];
    std::unique_lock guard(cards.lock);
    const bool done = commands_each_channel(cn, position, chan, [&](card &c, int i) {
        const channel_model &m = c.models[static_cast<std::size_t>(i)];
        std::snprintf(row, sizeof row, "# card %d chan %d %s", card_position(c), i,
                      way_names[static_cast<int>(m.way)]);
        text += row;
        for (const real_setting &s : settings) {
            std::snprintf(row, sizeof row, " %s %g", s.name, m.*s.value);
            text += row;
        }
        for (const spectrum_line &l : m.lines) {
            std::snprintf(row, sizeof row, " line %g %g", l.bin, l.intensity);
            text += row;
        }
        text += '\n';
    });
    guard.unlock();
    sv_print(cn, text);
    return done ? 0 : -1;
}

double rate(int, int cn, int position, int chan) {
    const card *c = commands_channel(cn, position, chan);
    std::lock_guard guard(cards.lock);
    return c ? c->models[static_cast<std::size_t>(chan)].rate : -1.0;
}

constexpr pt_format kind_format("spectrum pattern = %d");

int kind(int quals, int cn) {
    const pt_qualifiers<kind_format> q(quals);
    if (q.count({"spectrum", "pattern"}) != 1) {
        sv_printf(cn, "! Please give spectrum or pattern\n");
        return -1;
    }
    std::lock_guard guard(cards.lock);
    cards.pattern = q.given("pattern");
    return 0;
}

// A channel's frame of a time frame, as it was made and sent; nothing after a line when it is not in memory.
std::optional<std::vector<std::uint32_t>> kept_frame(int cn, int position, int chan, int time_frame) {
    card *c = commands_channel(cn, position, chan);
    if (!c)
        return std::nullopt;
    std::lock_guard guard(cards.lock);
    const std::uint32_t kept = frames_kept(*c), ended = c->frames_ended;
    const auto wanted = static_cast<std::uint32_t>(time_frame);
    const std::size_t size = frames_format(*c, chan).words();
    const bool keeps = (cards.keep || c->kind->mini) && kept != 0 && size == frames_format(*c, 0).words();
    if (time_frame < 0 || wanted >= ended || !keeps || ended - wanted > kept) {
        sv_printf(cn, "! Time frame %d is not kept: %u ended, the last %u are\n", time_frame, ended, kept);
        return std::nullopt;
    }
    std::vector<std::uint32_t> words(size);
    c->words(card_target::memory).read(frames_place(*c, chan, wanted), words);
    return words;
}

// Exactly in a line; the result has 32 bits.
int total(int, int cn, int position, int chan, int time_frame) {
    const auto words = kept_frame(cn, position, chan, time_frame);
    if (!words)
        return -1;
    const std::uint64_t sum = std::accumulate(words->begin(), words->end(), std::uint64_t{0});
    sv_printf(cn, "# %llu\n", static_cast<unsigned long long>(sum));
    return static_cast<int>(sum);
}

int save(int, int cn, int position, int chan, int time_frame, const char *name) {
    const auto words = kept_frame(cn, position, chan, time_frame);
    if (!words)
        return -1;
    std::FILE *file = std::fopen(name, "wbe");
    const bool written = file && std::fwrite(words->data(), 4, words->size(), file) == words->size();
    if ((file && std::fclose(file) != 0) || !written) {
        sv_printf(cn, "! Cannot write file '%s'\n", name);
        return -1;
    }
    return 0;
}

int keep(int, int, int on) {
    std::lock_guard guard(cards.lock);
    cards.keep = on != 0;
    return 0;
}

int gate_open(int, int) {
    std::lock_guard guard(cards.lock);
    timing_gate(true);
    return 0;
}

int gate_close(int, int) {
    std::lock_guard guard(cards.lock);
    timing_gate(false);
    return 0;
}

int frame_next(int, int, int times) {
    std::lock_guard guard(cards.lock);
    for (int i = 0; i < (OptionalArgumentCount > 0 ? times : 1); ++i)
        timing_next_frame();
    return 0;
}

} // namespace

constinit const PARSE_TREE commands_events[] = {
    pt_command<set>("set", set_format, "set what a detector sees and how its channel counts",
                    "Card, -1 for all/Channel, -1 for all/true events a second/all-event dead time, s/"
                    "all-event rate term, s^2/in-window dead time, s/in-window rate term, s^2/"
                    "part of the time lost to resets/standard deviation at no energy, bins/"
                    "variance a bin of energy/part of the events that is flat/dead time event by event, s/"
                    "counts by the model of a, b, c, d/event by event, each event extends the dead time/"
                    "event by event, only taken ones start it"),
    pt_command<line>("line", "%d %d %g %g = %d", "add a line to the spectrum",
                     "Card, -1 for all/Channel, -1 for all/Energy in bins of 12 bits/Intensity"),
    pt_command<no_lines>("no-lines", "%d %d = %d", "take all lines out of the spectrum",
                         "Card, -1 for all/Channel, -1 for all"),
    pt_command<list>("list", "%d %d = %d", "list the settings of channels",
                     "Card, -1 for all/Channel, -1 for all"),
    pt_command<rate>("rate", "%d %d = %g", "get the true rate", "Card/Channel"),
    pt_command<kind>("kind", kind_format, "choose what all channels count",
                     "events of the spectrum/a pattern known for each bin of each frame"),
    pt_command<total>("total", "%d %d %d = %d", "add up a frame as it was sent", "Card/Channel/Time frame"),
    pt_command<save>("save", "%d %d %d %s = %d", "write a frame as it was sent, 32-bit words",
                     "Card/Channel/Time frame/File"),
    pt_command<keep>("keep", "%d = %d", "keep frames in the card's memory or not", "0 or 1"),
    pt_end(),
};

constinit const PARSE_TREE commands_gate[] = {
    pt_command<gate_open>("open", "= %d", "let the cards count", ""),
    pt_command<gate_close>("close", "= %d", "stop the counting within the time frame", ""),
    pt_end(),
};

constinit const PARSE_TREE commands_frame[] = {
    pt_command<frame_next>("next", "+ %d = %d", "end the time frame and begin the next", "Number (1)"),
    pt_end(),
};

} // namespace kestrel
