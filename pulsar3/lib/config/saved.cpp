// What was configured before: the same again is the same path, and no card belongs to two.
#include "pulsar3/lib/config/config_steps.h"

#include <algorithm>
#include <span>

namespace kestrel {

std::array<Pulsar3SavedConfig, plr3_max_saved> pulsar3_saved_config;
int configNo = 0;

namespace {

// The limits of the saved texts.
constexpr std::size_t ip_max = 16, mac_max = 18, modname_max = 100;

plr3_request cut(plr3_request asked) {
    asked.baseIPaddress.resize(std::min(asked.baseIPaddress.size(), ip_max));
    asked.baseMACaddress.resize(std::min(asked.baseMACaddress.size(), mac_max));
    asked.modname.resize(std::min(asked.modname.size(), modname_max));
    return asked;
}

bool same(const plr3_request &a, const plr3_request &b) {
    return a.ncards == b.ncards && a.num_tf == b.num_tf && a.baseIPaddress == b.baseIPaddress &&
           a.basePort == b.basePort && a.baseMACaddress == b.baseMACaddress && a.num_chan == b.num_chan &&
           a.create_module == b.create_module && a.modname == b.modname && a.card_index == b.card_index &&
           a.dummy_system == b.dummy_system;
}

int reuse(const Pulsar3SavedConfig &saved, const plr3_request &asked) {
    const PLR3Path *path = plr3_path(saved.path);
    if (path && path->features.generation == PulsarGen3Mini && saved.asked.readout_mode != asked.readout_mode)
        return plr3_fail(
            plr3_failed,
            "plr3_config: Cannot change readoutmode of Pulsar3mini. previous=%d, requested=%d Please "
            "restart application (pulsar3.server)",
            saved.asked.readout_mode, asked.readout_mode);
    return saved.path;
}

int check_apart(const Pulsar3SavedConfig &saved, const plr3_request &asked) {
    const long long first = asked.card_index, last = first + asked.ncards - 1;
    const long long saved_first = saved.asked.card_index, saved_last = saved_first + saved.asked.ncards - 1;
    if (first > saved_last) {
        if (asked.debug)
            plr3_message(asked.message_to,
                         "OK: card index %lld is greater than saved card index+saved ncards-1 %lld\n", first,
                         saved_last);
        return 0;
    }
    if (last < saved_first) {
        if (asked.debug)
            plr3_message(asked.message_to,
                         "OK: card index+ncards-1 %lld is less than saved card index %lld\n", last,
                         saved_first);
        return 0;
    }
    return plr3_fail(plr3_failed,
                     "plr3_config: card index=%d and ncards=%d conflicts with saved card index=%d, ncards=%d",
                     asked.card_index, asked.ncards, saved.asked.card_index, saved.asked.ncards);
}

} // namespace

std::optional<int> plr3_saved_path(const plr3_request &asked) {
    const plr3_request wanted = cut(asked);
    const std::span saved(pulsar3_saved_config.data(), static_cast<std::size_t>(configNo));
    for (const Pulsar3SavedConfig &one : saved)
        if (same(one.asked, wanted))
            return reuse(one, wanted);
    for (const Pulsar3SavedConfig &one : saved)
        if (const int status = check_apart(one, asked); status != 0)
            return status;
    if (configNo < plr3_max_saved)
        return std::nullopt;
    return plr3_fail(plr3_failed, "plr3_config: Reached maximum number of configs");
}

void plr3_save_config(const plr3_request &asked, int path) {
    pulsar3_saved_config[static_cast<std::size_t>(configNo++)] = {cut(asked), path};
}

} // namespace kestrel
