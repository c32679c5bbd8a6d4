#include "pulsar3/lib/counts/progress.h"

#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/paths/card_module.h"

#include <cstdlib>
#include <string>

namespace kestrel {

namespace {

enum : std::size_t { at_reached, at_asked, at_running, at_seconds };

Histogram &first_channel(int path, int card) {
    const PLR3Path &leaf = *plr3_path(plr3_leaf(*plr3_path(path), path, card));
    return *leaf.histogram.front();
}

void put(std::uint32_t &word, std::uint64_t value) {
    std::atomic_ref(word).store(static_cast<std::uint32_t>(value), std::memory_order_relaxed);
}

} // namespace

int plr3_make_progress(int path) {
    PLR3Path &top = *plr3_path(path);
    const char *name = std::getenv("PLR3PROGRESS");
    const bool ours = !name || !*name;
    const std::string own = "plr3_progress" + std::to_string(top.startingCard);
    if (const int status = plr3_make_module(top.progress_mod, top.message_to, ours ? own : name,
                                            {words_of_progress, top.num_cards, 1, false}, ours);
        status != 0)
        return status;
    const std::span<std::uint32_t> words = plr3_words(top.progress_mod);
    for (int card = 0; card < top.num_cards; ++card) {
        Histogram &h = first_channel(path, card);
        const std::lock_guard guard(h.mutex);
        h.progress.words = words.data() + words_of_progress * static_cast<std::size_t>(card);
    }
    return 0;
}

void plr3_begin_progress(int path) {
    PLR3Path &top = *plr3_path(path);
    top.start_time = plr3_clock::now();
    for (int card = 0; card < top.num_cards; ++card) {
        run_progress now;
        const bool known = plr3_get_progress(path, card, now) == 0;
        Histogram &h = first_channel(path, card);
        const std::lock_guard guard(h.mutex);
        h.progress.begun = top.start_time;
        h.progress.written = {};
        if (!h.progress.words)
            continue;
        put(h.progress.words[at_reached], 0);
        put(h.progress.words[at_asked], known ? now.asked : 0);
        put(h.progress.words[at_running], 1);
        put(h.progress.words[at_seconds], 0);
    }
}

void plr3_end_progress(int path) {
    PLR3Path &top = *plr3_path(path);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(plr3_clock::now() - top.start_time).count();
    for (int card = 0; card < top.num_cards; ++card) {
        Histogram &h = first_channel(path, card);
        const std::lock_guard guard(h.mutex);
        if (!h.progress.words || h.progress.words[at_running] == 0)
            continue;
        put(h.progress.words[at_reached], h.frames.expected_frame());
        put(h.progress.words[at_running], 0);
        put(h.progress.words[at_seconds], static_cast<std::uint64_t>(seconds));
    }
}

} // namespace kestrel
