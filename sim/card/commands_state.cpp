// sim/card: looking at cards and changing them behind the host's back.
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "sim/card/commands.h"

#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

namespace kestrel {

card *commands_card(int cn, int position) {
    if (position >= 0 && position < static_cast<int>(cards.cards.size()))
        return cards.cards[static_cast<std::size_t>(position)].get();
    sv_printf(cn, "! Card %d is not in 0..%zu\n", position, cards.cards.size() - 1);
    return nullptr;
}

card *commands_channel(int cn, int position, int chan) {
    card *c = commands_card(cn, position);
    if (!c || (chan >= 0 && chan < c->channels))
        return c;
    sv_printf(cn, "! Channel %d is not in 0..%d\n", chan, c->channels - 1);
    return nullptr;
}

namespace {

constexpr pt_format peek_format("%d %d registers local rdma memory dram i2c spi chan-spi fan config xadc "
                                "readout-mode dma-block mgt-drp raw eeprom = %d");
constexpr pt_format poke_format("%d %d %d registers local rdma memory dram i2c spi chan-spi fan config xadc "
                                "readout-mode dma-block mgt-drp raw eeprom = %d");

template <const pt_format &Format>
constexpr typename pt_qualifiers<Format>::template choice<card_target> target_words[] = {
    {"registers", card_target::registers},
    {"local", card_target::local},
    {"rdma", card_target::rdma},
    {"memory", card_target::memory},
    {"dram", card_target::dram},
    {"i2c", card_target::i2c},
    {"spi", card_target::spi},
    {"chan-spi", card_target::chan_spi},
    {"fan", card_target::fan},
    {"config", card_target::config},
    {"xadc", card_target::xadc},
    {"readout-mode", card_target::readout_mode},
    {"dma-block", card_target::dma_block},
    {"mgt-drp", card_target::mgt_drp},
    {"raw", card_target::raw},
    {"eeprom", card_target::eeprom},
};

// One word, or byte, of the address space that a command names.
template <const pt_format &Format> std::optional<card_run> run_of(int quals, int cn, int address) {
    const std::optional<card_target> target = pt_qualifiers<Format>(quals).only(target_words<Format>);
    if (!target) {
        sv_printf(cn, "! Please say what the address is of\n");
        return std::nullopt;
    }
    return card_run{*target, *target == card_target::i2c ? 1u : 4u, static_cast<std::uint32_t>(address)};
}

int write_word(int cn, card &c, const card_run &run, int value) {
    const auto word = static_cast<std::uint32_t>(value);
    std::lock_guard guard(cards.lock);
    if (card_write(c, run, {&word, 1}))
        return 0;
    sv_printf(cn, "! Address 0x%x takes nothing\n", run.address);
    return -1;
}

int peek(int quals, int cn, int position, int address) {
    card *c = commands_card(cn, position);
    const std::optional<card_run> run = c ? run_of<peek_format>(quals, cn, address) : std::nullopt;
    if (!run)
        return -1;
    std::uint32_t word = 0;
    std::lock_guard guard(cards.lock);
    if (card_read(*c, *run, {&word, 1}))
        return static_cast<int>(word);
    sv_printf(cn, "! Nothing at address 0x%x\n", run->address);
    return -1;
}

int poke(int quals, int cn, int position, int address, int value) {
    card *c = commands_card(cn, position);
    const std::optional<card_run> run = c ? run_of<poke_format>(quals, cn, address) : std::nullopt;
    return run ? write_word(cn, *c, *run, value) : -1;
}

int get_register(int, int cn, int position, int chan, int region, int offset) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    std::lock_guard guard(cards.lock);
    return static_cast<int>(
        c->words(card_target::registers)
            .get(static_cast<std::uint32_t>((chan & 15) << 20 | (region & 15) << 16 | (offset & 0xffff))));
}

int get_global(int, int cn, int position, int offset) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    std::lock_guard guard(cards.lock);
    return static_cast<int>(c->global(static_cast<std::uint32_t>(offset)));
}

int set_global(int, int cn, int position, int offset, int value) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    const auto word = static_cast<std::uint32_t>(offset);
    const card_run run = c->kind->local_globals
                             ? card_run{card_target::local, 4, 4 * word}
                             : card_run{card_target::registers, 4, 4 * (global_block | word)};
    return write_word(cn, *c, run, value);
}

// The last requests, oldest first, one a line.
int seen(int, int cn, int position, int number) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    std::string text;
    {
        std::lock_guard guard(cards.lock);
        const std::size_t wanted =
            OptionalArgumentCount > 0 ? static_cast<std::size_t>(std::max(number, 0)) : 20;
        const std::size_t n = std::min(wanted, c->seen.size());
        for (auto s = c->seen.end() - static_cast<std::ptrdiff_t>(n); s != c->seen.end(); ++s) {
            char line[160];
            std::snprintf(
                line, sizeof line,
                "# command %u bus %u width %u state %u address 0x%x items %u first 0x%x sequence %u%s\n",
                s->command, s->bus, s->width, s->state, s->address, s->items, s->first, s->sequence,
                s->refused ? " refused" : "");
            text += line;
        }
    }
    sv_print(cn, text);
    return 0;
}

int forget(int, int cn, int position) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    std::lock_guard guard(cards.lock);
    const std::uint64_t open = c->counts.open;
    c->seen.clear();
    c->counts = {};
    c->counts.open = open;
    return 0;
}

constexpr pt_format count_format(
    "%d transactions refused malformed connections open frames packets bytes withheld unsent = %d");
using count_words = pt_qualifiers<count_format>;
using count_member = std::uint64_t card_counts::*;
constexpr count_words::choice<count_member> count_names[] = {
    {"transactions", &card_counts::transactions},
    {"refused", &card_counts::refused},
    {"malformed", &card_counts::malformed},
    {"connections", &card_counts::connections},
    {"open", &card_counts::open},
    {"frames", &card_counts::frames},
    {"packets", &card_counts::packets},
    {"bytes", &card_counts::bytes},
    {"withheld", &card_counts::withheld},
    {"unsent", &card_counts::unsent},
};

// Exactly in a line; the result has 32 bits.
int count(int quals, int cn, int position) {
    card *c = commands_card(cn, position);
    const std::optional<count_member> member = count_words(quals).only(count_names);
    if (!c || !member) {
        if (c)
            sv_printf(cn, "! Please say which one count\n");
        return -1;
    }
    std::unique_lock guard(cards.lock);
    const std::uint64_t value = c->counts.**member;
    guard.unlock();
    sv_printf(cn, "# %llu\n", static_cast<unsigned long long>(value));
    return static_cast<int>(value);
}

} // namespace

constinit const PARSE_TREE commands_state[] = {
    pt_command<peek>(
        "peek", peek_format, "read one word (I2C: byte) of a card",
        "Card/Address as on the wire/registers of channels/generation-4 globals/data link/"
        "histograms, scalers, scope data/playback memory/I2C devices/SPI/a channel's SPI/fan/"
        "configuration store/FPGA monitor/mini model's readout mode/DMA or clock block/transceivers/"
        "raw registers/EEPROM"),
    pt_command<poke>(
        "poke", poke_format, "write one word (I2C: byte) of a card",
        "Card/Address as on the wire/Value/registers of channels/generation-4 globals/data link/"
        "histograms, scalers, scope data/playback memory/I2C devices/SPI/a channel's SPI/fan/"
        "configuration store/FPGA monitor/mini model's readout mode/DMA or clock block/transceivers/"
        "raw registers/EEPROM"),
    pt_command<get_register>("get-register", "%d %d %d %d = %d", "read a channel's register",
                             "Card/Channel/Region/Offset in words"),
    pt_command<get_global>("get-global", "%d %d = %d", "read a global register", "Card/Offset in words"),
    pt_command<set_global>("set-global", "%d %d %d = %d", "write a global register, as the host would",
                           "Card/Offset in words/Value"),
    pt_command<seen>("seen", "%d + %d = %d", "list the last requests, oldest first",
                     "Card/Number of requests (20)"),
    pt_command<forget>("forget", "%d = %d", "forget requests and counts", "Card"),
    pt_command<count>("count", count_format, "read one of a card's counts",
                      "Card/requests answered/requests refused/requests without sense/connections ever/"
                      "connections now/histogram and scope frames/packets sent/payload bytes sent/"
                      "packets that a fault kept/packets that nobody took"),
    pt_end(),
};

} // namespace kestrel
