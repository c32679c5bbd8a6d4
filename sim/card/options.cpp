#include "sim/card/options.h"

#include "sim/card/card.h"
#include "sim/options.h"

#include <arpa/inet.h>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

namespace {

struct wishes {
    int count = 1, index = 0, channels = 0, protocol = 0, text = -1;
    const card_kind *kind = nullptr;
    std::optional<std::uint32_t> revision;
    std::array<std::optional<std::uint32_t>, 4> features;
};
wishes wish;

constexpr int text_port_above = 100; // of the base port, without -text
constexpr std::uint32_t usual_revision = 16u << 12 | 1;

bool take_base(std::string_view text) {
    in_addr address{};
    if (::inet_pton(AF_INET, std::string(text).c_str(), &address) != 1)
        return false;
    const std::uint32_t whole = ntohl(address.s_addr);
    cards.base = {static_cast<int>(whole >> 24), static_cast<int>(whole >> 16 & 255),
                  static_cast<int>(whole >> 8 & 255), static_cast<int>(whole & 255)};
    return true;
}

bool take_feature(std::string_view text) {
    std::uint32_t word = 0, value = 0;
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos ||
        !sim_number(text.substr(0, colon), card_first_feature, card_first_feature + 3, word) ||
        !sim_number(text.substr(colon + 1), 0u, 0xffffffffu, value))
        return false;
    wish.features[word - card_first_feature] = value;
    return true;
}

bool take_revision(std::string_view text) {
    std::uint32_t value = 0;
    if (!sim_number(text, 1u, 0xffffffffu, value))
        return false;
    wish.revision = value;
    return true;
}

constexpr sim_option options[] = {
    {"-cards", "n", "cards to play (1)", [](std::string_view t) { return sim_number(t, 1, 32, wish.count); }},
    {"-index", "n", "first card's index in the installation (0)",
     [](std::string_view t) { return sim_number(t, 0, 62, wish.index); }},
    {"-base", "a.b.c.d", "base address (127.0.0.1)", take_base},
    {"-port", "n", "base port (30123)",
     [](std::string_view t) { return sim_number(t, 1, 65000, cards.base_port); }},
    {"-text", "n", "port for commands (base port + 100); 0: this terminal",
     [](std::string_view t) { return sim_number(t, 0, 65535, wish.text); }},
    {"-gate", "n", "port of 127.0.0.1 for a timing unit (none)",
     [](std::string_view t) { return sim_number(t, 1, 65535, cards.gate_port); }},
    {"-kind", "name", "3, 3v7, 3mini or 4 (3v7)",
     [](std::string_view t) { return (wish.kind = card_find_kind(t)) != nullptr; }},
    {"-generation", "n", "protocol, 1 or 2 (3 and 3v7: 1, others always 2)",
     [](std::string_view t) { return sim_number(t, 1, 2, wish.protocol); }},
    {"-chans", "n", "channels a card (9, 10, 2, 16 by kind)",
     [](std::string_view t) { return sim_number(t, 1, card_max_channels, wish.channels); }},
    {"-revision", "word", "revision word (major 16, the kind's generation)", take_revision},
    {"-feature", "n:word", "feature word 60 to 63, may be repeated", take_feature},
    {"-seed", "n", "seed of all that is random (1)",
     [](std::string_view t) { return sim_number(t, std::uint64_t{0}, ~std::uint64_t{0}, cards.seed); }},
    {"-clock", "hertz", "ticks a second (8e7)",
     [](std::string_view t) { return sim_number(t, 1.0, 1e12, cards.clock); }},
    {"-scope-rate", "x", "gigabits a second of scope data (4)",
     [](std::string_view t) { return sim_number(t, 1e-3, 1e3, cards.scope_gigabits); }},
    {"-speed", "x", "seconds of the cards in a second (1)",
     [](std::string_view t) { return sim_number(t, 1e-3, 1e6, cards.speed); }},
};

[[noreturn]] void usage(const char *program, std::string_view wrong) {
    sim_usage(program, wrong, options);
}

void make_card(int index) {
    auto c = std::make_unique<card>();
    c->index = index;
    c->kind = wish.kind;
    c->protocol = wish.protocol;
    c->channels = wish.channels != 0 ? wish.channels : wish.kind->channels;
    c->revision = wish.revision.value_or(usual_revision | wish.kind->generation << 4);
    for (std::size_t i = 0; i < c->features.size(); ++i)
        c->features[i] = wish.features[i].value_or(wish.kind->features[i]);
    c->control.sin_family = AF_INET;
    c->control.sin_addr.s_addr = card_address(card_control_last(index));
    c->control.sin_port = htons(static_cast<std::uint16_t>(cards.base_port + c->protocol - 1));
    card_power_up(*c);
    cards.cards.push_back(std::move(c));
}

} // namespace

int card_take_options(int &argc, char **argv) {
    sim_take_options(argc, argv, options);
    if (!wish.kind)
        wish.kind = card_find_kind("3v7");
    if (wish.protocol == 0)
        wish.protocol = wish.kind->protocol;
    if (wish.protocol == 1 && !wish.kind->both_protocols)
        usage(argv[0], "-generation=1 for this kind");
    if (wish.index + wish.count > 63)
        usage(argv[0], "a card with an index above 62");
    if (wish.kind->mini && wish.channels > 2)
        usage(argv[0], "a mini model of more than 2 channels");
    for (int i = 0; i < wish.count; ++i)
        make_card(wish.index + i);
    return wish.text >= 0 ? wish.text : cards.base_port + text_port_above;
}

} // namespace kestrel
