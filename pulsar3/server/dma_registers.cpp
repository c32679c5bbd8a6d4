// `pulsar3 dma`: raw access to registers. A read prints the word in hex and is the command's result as a signed number,
// so a word with its top bit set is negative without being a failure: failures print an error line.
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/told_here.h"
#include "server/output.h"

namespace kestrel {

namespace {

int show(int cn, const char *what, int number, int offset, std::uint32_t word) {
    sv_printf(cn, "# %s %d register %d = 0x%08X\n", what, number, offset, word);
    return static_cast<int>(word);
}

constexpr pt_format read_glob_reg_format("%d %d %d = %d");

int pulsar3_dma_read_glob_reg(int, int cn, int path, int card, int offset) {
    std::uint32_t word = 0;
    const int status = plr3_read_card_reg(path, card, offset, {&word, 1});
    return status < 0 ? pulsar3_status(cn, status) : show(cn, "Card", card, offset, word);
}

constexpr pt_format write_glob_reg_format("%d %d %d %d = %d");

int pulsar3_dma_write_glob_reg(int, int cn, int path, int card, int offset, int value) {
    const std::uint32_t word = static_cast<std::uint32_t>(value);
    const told_here here(path, cn);
    return pulsar3_status(cn, plr3_write_card_reg(path, card, offset, {&word, 1}));
}

constexpr pt_format read_chan_reg_format("%d %d %d %d = %d");

int pulsar3_dma_read_chan_reg(int, int cn, int path, int chan, int region, int offset) {
    std::uint32_t word = 0;
    const int status = plr3_read_reg(path, chan, region, offset, {&word, 1});
    return status < 0 ? pulsar3_status(cn, status) : show(cn, "Channel", chan, offset, word);
}

constexpr pt_format write_chan_reg_format("%d %d %d %d %d = %d");

int pulsar3_dma_write_chan_reg(int, int cn, int path, int chan, int region, int offset, int value) {
    const std::uint32_t word = static_cast<std::uint32_t>(value);
    const told_here here(path, cn);
    return pulsar3_status(cn, plr3_write_reg(path, chan, region, offset, {&word, 1}));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_read_glob_reg = pt_command<pulsar3_dma_read_glob_reg>(
    "read-glob-reg", read_glob_reg_format, "Read a global register of a card", "Path/Card/Offset in words");

extern constinit const PARSE_TREE row_pulsar3_dma_write_glob_reg = pt_command<pulsar3_dma_write_glob_reg>(
    "write-glob-reg", write_glob_reg_format, "Write a global register of a card",
    "Path/Card, -1 for all/Offset in words/Value");

extern constinit const PARSE_TREE row_pulsar3_dma_read_chan_reg = pt_command<pulsar3_dma_read_chan_reg>(
    "read-chan-reg", read_chan_reg_format, "Read a register of a channel",
    "Path/Channel/Region, 0 to 15/Offset in words");

extern constinit const PARSE_TREE row_pulsar3_dma_write_chan_reg = pt_command<pulsar3_dma_write_chan_reg>(
    "write-chan-reg", write_chan_reg_format, "Write a register of a channel",
    "Path/Channel, -1 for all/Region, 0 to 15/Offset in words/Value");

} // namespace kestrel
