// The modules of a system: of each card its histograms, scalers and the status of its time frames, and one for scope
// data.
#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/paths/card_module.h"

namespace kestrel {

namespace {

constexpr int scope_words = 4096; // of each channel

} // namespace

int plr3_check_frames(const PLR3Path &card) {
    const long long bytes = 4LL * plr3_default_bins * card.hist_frames_num_tf * card.chans_per_card;
    constexpr long long most = 1LL << 40;
    if (bytes <= most)
        return 0;
    return plr3_fail(plr3_failed, "plr3_do_config: %u time frames of %d channels are too many",
                     card.hist_frames_num_tf, card.chans_per_card);
}

void plr3_keep_data_areas(PLR3Path &path) {
    path.scope_mod.keep();
    path.progress_mod.keep();
    plr3_keep_card_modules(path);
}

int plr3_make_data_areas(PLR3Path &card) {
    const auto frames = static_cast<int>(card.hist_frames_num_tf);
    if (plr3_sends_scalers(card))
        plr3_message(card.message_to, "Configuring scalers buffer for %d time frames\n", frames);
    else if (card.features.soft_scalers)
        plr3_message(card.message_to, "Configuring software scalers for %d time frames\n", frames);
    return plr3_histogram_mkmod(card);
}

int plr3_make_scope_module(PLR3Path &top, const plr3_request &asked) {
    if (!asked.create_module)
        return 0;
    if (asked.debug > 1)
        plr3_message(top.message_to, "Creating scope module name  '%s'\n", asked.modname.c_str());
    static constexpr int layouts[] = {0, 18, 12, 18}; // by generation
    top.mem_layout = layouts[top.features.generation];
    return plr3_make_module(top.scope_mod, top.message_to, asked.modname,
                            {scope_words, top.max_num_chan, 1, false},
                            asked.modname.starts_with("plr3_scope"));
}

} // namespace kestrel
