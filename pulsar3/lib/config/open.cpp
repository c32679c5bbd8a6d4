// Paths for the cards of a system, and the connection of each. Cards are connected side by side, so that many that do
// not answer are waited for once; all else happens card by card.
#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/bits.h"

#include <algorithm>
#include <future>
#include <system_error>

namespace kestrel {

namespace {

constexpr int old_firmware = 16; // bits 12..23 of the revision below this: up to 9 channels
constexpr int old_channels = 9;

struct connection {
    std::unique_ptr<FemHandle> handle; // null: there is none
};

connection connect(const card_addresses &card, int port1, int port2) {
    connection made;
    made.handle = pulsar3FemInitialise(card.femIPaddress.c_str(), port1, port2);
    return made;
}

std::future<connection> start_connecting(const config_plan &plan, const card_addresses &card) {
    const auto connecting = [&plan, &card] { return connect(card, plan.fem_port1, plan.fem_port2); };
    if (plan.cards.size() == 1)
        return std::async(std::launch::deferred, connecting);
    try {
        return std::async(std::launch::async, connecting);
    } catch (const std::system_error &) { // no thread can be made: this card when its turn comes
        return std::async(std::launch::deferred, connecting);
    }
}

std::vector<connection> connect_all(const config_plan &plan) {
    std::vector<std::future<connection>> waiting;
    for (const card_addresses &card : plan.cards)
        waiting.push_back(start_connecting(plan, card));
    std::vector<connection> made;
    for (std::future<connection> &one : waiting)
        made.push_back(one.get());
    return made;
}

// The lowest free path, its record as new, open.
int take_path(const plr3_request &asked) {
    const auto free = std::ranges::find_if(Plr3Sys, [](const PLR3Path &p) { return !p.valid; });
    if (free == Plr3Sys.end())
        return plr3_fail(plr3_failed, "plr3_config: all %d paths are in use", plr3_max_paths);
    plr3_reset(*free);
    free->valid = 1;
    free->debug = asked.debug;
    free->message_to = asked.message_to;
    free->dummy_system = asked.dummy_system;
    free->num_cards = 1;
    return static_cast<int>(free - Plr3Sys.begin());
}

int build_dummy(PLR3Path &card) {
    static constexpr struct {
        PulsarDummy kind;
        int channels;
        std::array<std::uint32_t, plr3_feature_words> features;
    } kinds[] = {
        {PulsarDummy3, 4, {0, 0, 1U << 13, 0}},
        {PulsarDummy3V7, 12, {0, 0, 1U << 13 | 1U << 12, 0}},
        {PulsarDummy3Mini, 2, {0, 1U << 16, 1U << 13, 7U << 8}},
        {PulsarDummy4, 10, {0, 3U << 16, 1U << 13 | 1U << 12, 0}},
    };
    const auto kind =
        std::ranges::find_if(kinds, [&card](const auto &k) { return k.kind == card.dummy_system; });
    if (kind == std::end(kinds))
        return plr3_fail(plr3_failed, "plr3_config: Unrecognised dummy system type %d", card.dummy_system);
    card.revision = card.dummy_system * 16 - 15;
    plr3_message(card.message_to, "Building dummy system from type=%d, revision=0x%08X\n", card.dummy_system,
                 static_cast<unsigned>(card.revision));
    const std::uint32_t revision = static_cast<std::uint32_t>(card.revision);
    for (int chan = 0; chan < kind->channels; ++chan)
        card.dummy.write(dummy_space::registers, dummy_register(chan, 0, 0), {&revision, 1});
    card.dummy.write(dummy_space::registers, dummy_register(0, 0, plr3_feature_offset), kind->features);
    card.chans_per_card = kind->channels;
    return 0;
}

// Channels whose revision word is not zero. A card refuses what it does not have; one that is gone is a failure.
int count_channels(PLR3Path &card) {
    FemHandle &fem = *card.femHandle;
    const std::uint32_t revision = static_cast<std::uint32_t>(card.revision);
    const int probed = plr3_bits(revision, 12, 23) < old_firmware ? old_channels : plr3_chans_per_card_max;
    for (int chan = 0; chan < probed; ++chan) {
        std::uint32_t word = 0;
        const int status = pulsar3FemGetInt(fem, chan, 0, 0, word);
        if (status != 0 && !fem.m_valid)
            return plr3_fail(status, "plr3_do_config: %s", plr3_get_error_message());
        card.chans_per_card += status == 0 && word != 0;
    }
    if (card.chans_per_card == 0)
        return plr3_fail(plr3_failed, "plr3_do_config: the card has no channels");
    return 0;
}

int connect_card(PLR3Path &card, connection &made, const card_addresses &addresses, int port) {
    card.femHandle = std::move(made.handle);
    if (!card.femHandle && plr3_interrupted())
        return plr3_fail(plr3_failed, "plr3_config: interrupted");
    if (!card.femHandle)
        return plr3_fail(plr3_failed, "plr3_config: Cannot initialise Fem %s on port %d",
                         addresses.femIPaddress.c_str(), port);
    std::uint32_t revision = 0;
    if (const int status = pulsar3FemGetInt(*card.femHandle, 0, 0, 0, revision); status != 0)
        return plr3_fail(status, "plr3_config: Cannot read revision register %d", status);
    card.revision = static_cast<int>(revision);
    return count_channels(card);
}

int read_features(PLR3Path &card, int path) {
    std::array<std::uint32_t, plr3_feature_words> words{};
    if (const int status = plr3_read_reg(path, 0, 0, plr3_feature_offset, words); status != 0)
        return plr3_fail(status, "plr3_do_config: %s", plr3_get_error_message());
    card.features = plr3_unpack_features(static_cast<std::uint32_t>(card.revision), words);
    if (card.features.generation == PulsarGenError) {
        plr3_message(card.message_to, "Unknown Pulsar3=%d generation at %s:%d\n",
                     static_cast<int>(plr3_bits(static_cast<std::uint32_t>(card.revision), 4, 7)), __FILE__,
                     __LINE__);
        return plr3_fail(plr3_failed, "plr3_do_config: the card is of no known generation (revision 0x%08X)",
                         static_cast<unsigned>(card.revision));
    }
    return 0;
}

// The leaf path of card `index`.
int open_leaf(const config_plan &plan, std::size_t index, connection *made) {
    const plr3_request &asked = plan.asked;
    const int path = take_path(asked);
    if (path < 0)
        return path;
    PLR3Path &card = Plr3Sys[static_cast<std::size_t>(path)];
    plr3_message(card.message_to, "plr3_config: Configuring %s on path %d\n", "leaf", path);
    card.startingCard = asked.card_index + static_cast<int>(index);
    card.hist_frames_num_tf = static_cast<std::uint32_t>(asked.num_tf);
    int status = made ? connect_card(card, *made, plan.cards[index], plan.fem_port1) : build_dummy(card);
    card.num_chan = card.max_num_chan = card.chans_per_card;
    if (status == 0 && card.debug)
        plr3_message(card.message_to, "plr3_config: Configuration found %d chans_per_card on path %d\n",
                     card.chans_per_card, path);
    if (status == 0)
        status = read_features(card, path);
    if (status == 0 && plr3_interrupted())
        status = plr3_fail(plr3_failed, "plr3_config: interrupted");
    if (status == 0)
        return path;
    plr3_discard(path);
    return status;
}

// The cards of a system are of one generation: its registers are reached by that. The leaf, or a status with the leaf
// closed.
int check_alike(const PLR3Path &node, int leaf, int card) {
    const int first = node.features.generation;
    const int own = Plr3Sys[static_cast<std::size_t>(leaf)].features.generation;
    if (own == first)
        return leaf;
    plr3_discard(leaf);
    return plr3_fail(plr3_failed, "plr3_do_config: card %d is of generation %d, the first of %d", card, own,
                     first);
}

int open_node(const config_plan &plan, std::span<connection> made) {
    const int path = take_path(plan.asked);
    if (path < 0)
        return path;
    PLR3Path &node = Plr3Sys[static_cast<std::size_t>(path)];
    node.type = 1;
    node.num_cards = 0;
    node.startingCard = plan.asked.card_index;
    node.hist_frames_num_tf = static_cast<std::uint32_t>(plan.asked.num_tf);
    plr3_message(node.message_to, "plr3_config: Configuring %s on path %d\n", "node", path);
    for (std::size_t i = 0; i < plan.cards.size(); ++i) {
        int leaf = open_leaf(plan, i, made.empty() ? nullptr : &made[i]);
        if (leaf >= 0 && i > 0)
            leaf = check_alike(node, leaf, static_cast<int>(i));
        if (leaf < 0) {
            plr3_message(node.message_to, "Opening sub-path failed\n");
            plr3_discard(path);
            return leaf;
        }
        PLR3Path &card = Plr3Sys[static_cast<std::size_t>(leaf)];
        node.sub_path[i] = leaf;
        ++node.num_cards;
        card.chan_of_system = node.max_num_chan;
        node.max_num_chan += card.max_num_chan;
        if (i == 0) {
            node.chans_per_card = card.chans_per_card;
            node.revision = card.revision;
            node.features = card.features;
        }
    }
    node.num_chan = node.max_num_chan;
    return path;
}

} // namespace

int plr3_open_cards(const config_plan &plan) {
    const plr3_request &asked = plan.asked;
    if (asked.ncards > plr3_max_cards)
        return plr3_fail(plr3_failed, "plr3_config: Too many cards specified for system");
    std::vector<connection> made;
    if (asked.dummy_system == PulsarReal)
        made = connect_all(plan);
    const int path =
        asked.ncards > 1 ? open_node(plan, made) : open_leaf(plan, 0, made.empty() ? nullptr : &made[0]);
    if (path < 0 || asked.num_chan < 1)
        return path;
    if (const int status = plr3_set_num_chan(path, asked.num_chan); status != 0) {
        plr3_discard(path);
        return plr3_fail(status, "plr3_do_config: %s", plr3_get_error_message());
    }
    return path;
}

} // namespace kestrel
