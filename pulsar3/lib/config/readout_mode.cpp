// What a mini model sends of itself: asked for, set in the environment, or what it was left at.
#include "pulsar3/lib/config/config_steps.h"

#include <cstdlib>
#include <strings.h>

namespace kestrel {

namespace {

constexpr int default_mode = Plr3mRd_SendScalars | Plr3mRd_SendHistList;

constexpr struct {
    const char *word;
    int mode;
} words[] = {
    {"passive", Plr3mRd_Passive},
    {"frames", Plr3mRd_SendScalars | Plr3mRd_SendHistFrames},
    {"list", Plr3mRd_SendScalars | Plr3mRd_SendHistList},
};

int mode_of_environment(int to) {
    const char *value = std::getenv("PLR3READOUT");
    if (!value)
        return default_mode;
    for (const auto &row : words) {
        if (::strcasecmp(value, row.word) != 0)
            continue;
        plr3_message(to, "Set readout mode =%d from enviroment variable PLR3READOUT=%s\n", row.mode, value);
        return row.mode;
    }
    plr3_message(
        to,
        "Environment variable PLR3READOUT found but not valid. Expected values are passive, frames or list, "
        "not '%s'\n",
        value);
    return default_mode;
}

int check_mode(const PLR3Path &card, int mode) {
    if (mode == Plr3mRd_Passive || (mode & ~card.features.plr3m_send_mode) == 0)
        return 0;
    return plr3_fail(plr3_failed, "plr3_do_config: readout mode %d is asked for, but the card can send %d",
                     mode, card.features.plr3m_send_mode);
}

int set_mode(PLR3Path &card, std::uint32_t mode) {
    if (card.femHandle)
        return pulsar3FemWriteReadoutMode(*card.femHandle, mode);
    card.dummy.write(dummy_space::readout_mode, 0, {&mode, 1});
    return 0;
}

int get_mode(PLR3Path &card, std::uint32_t &mode) {
    if (card.femHandle)
        return pulsar3FemReadReadoutMode(*card.femHandle, mode);
    card.dummy.read(dummy_space::readout_mode, 0, {&mode, 1});
    return 0;
}

} // namespace

int plr3_settle_readout_mode(PLR3Path &card, const plr3_request &asked) {
    if (card.features.generation != PulsarGen3Mini)
        return 0;
    if (card.features.plr3m_send_mode == 0) {
        card.readout_mode = Plr3mRd_Passive;
        return asked.readout_mode == Plr3mRd_Auto ? 0 : check_mode(card, asked.readout_mode);
    }
    std::uint32_t mode = 0;
    int status = 0;
    if (asked.do_init) {
        mode = static_cast<std::uint32_t>(
            asked.readout_mode != Plr3mRd_Auto ? asked.readout_mode : mode_of_environment(card.message_to));
        status = check_mode(card, static_cast<int>(mode));
        if (status != 0)
            return status;
        status = set_mode(card, mode);
    } else {
        status = get_mode(card, mode);
    }
    if (status != 0)
        return plr3_fail(status, "plr3_do_config: %s", plr3_get_error_message());
    card.readout_mode = static_cast<Plr3mReadoutMode>(mode);
    return 0;
}

} // namespace kestrel
