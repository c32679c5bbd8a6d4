// The modules of a system: of each card its histograms, scalers and the status of its time frames, and one for scope
// data. A module that stands there with another shape is made anew; who has the old one mapped keeps that.
#include "modules/store/store.h"
#include "pulsar3/lib/config/config_steps.h"

namespace kestrel {

namespace {

constexpr int status_planes = 2;  // the status of each frame, and its missing packets
constexpr int scope_words = 4096; // of each channel

struct shape {
    int x, y, t;
    bool is_3d;
};

bool fits(const module_view &view, const shape &s) {
    return view.data_type == MOD_U_INT32 && view.num_x == s.x && view.num_y == s.y && view.num_t == s.t;
}

// A module of ours that has another shape is made anew, one that somebody named is left to him.
int make(result_module &module, int to, const std::string &name, const shape &s, bool ours) {
    if (module.find(name.c_str())) {
        if (module.look(-1) == 0 && fits(module.view(), s))
            return 0;
        if (ours)
            datamod_remove(name.c_str(), module.head()); // where that fails, making the new one says why
        module.reset();
    }
    const module_plan plan{mod_element::u_int32, s.x, s.y, s.t, s.is_3d};
    if (module.make(to, name.c_str(), plan) != 0)
        return plr3_fail(plr3_failed, "plr3_do_config: cannot make module '%s'", name.c_str());
    return 0;
}

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
    for (result_module *module : {&path.scope_mod, &path.hist_mod, &path.scalers_mod, &path.tf_status_mod})
        module->keep();
}

int plr3_make_data_areas(PLR3Path &card, const plr3_request &asked) {
    const std::string number = std::to_string(card.startingCard);
    const int frames = asked.num_tf, to = card.message_to;
    const bool mini = card.features.generation == PulsarGen3Mini;
    const bool sends_scalers = mini && (card.readout_mode & Plr3mRd_SendScalars) != 0;
    const bool has_histograms =
        !mini || (card.readout_mode & (Plr3mRd_SendHistFrames | Plr3mRd_SendHistList)) != 0;
    if (has_histograms)
        if (const int status = make(card.hist_mod, to, "plr3_hist" + number,
                                    {plr3_default_bins, frames, card.chans_per_card, true}, true);
            status != 0)
            return status;
    if (sends_scalers)
        plr3_message(to, "Configuring scalers buffer for %d time frames\n", frames);
    else if (card.features.soft_scalers)
        plr3_message(to, "Configuring software scalers for %d time frames\n", frames);
    if (const int status = make(card.scalers_mod, to, "plr3_scalers" + number,
                                {plr3_nr_scalers, card.chans_per_card, frames, true}, true);
        status != 0)
        return status;
    card.total_scaler_num_tf = card.scaler_num_tf = static_cast<std::uint32_t>(frames);
    if (!has_histograms && !sends_scalers)
        return 0;
    return make(card.tf_status_mod, to, "plr3_tf_status" + number,
                {card.chans_per_card, frames, status_planes, true}, true);
}

int plr3_make_scope_module(PLR3Path &top, const plr3_request &asked) {
    if (!asked.create_module)
        return 0;
    if (asked.debug > 1)
        plr3_message(top.message_to, "Creating scope module name  '%s'\n", asked.modname.c_str());
    static constexpr int layouts[] = {0, 18, 12, 18}; // by generation
    top.mem_layout = layouts[top.features.generation];
    return make(top.scope_mod, top.message_to, asked.modname, {scope_words, top.max_num_chan, 1, false},
                asked.modname.starts_with("plr3_scope"));
}

} // namespace kestrel
