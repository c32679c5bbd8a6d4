// `pulsar3 dma`: messages to a card's DMA engine, what it says of its streams, and what a capture has brought.
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/dma.h"
#include "pulsar3/lib/counts/scope.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <algorithm>
#include <string>

namespace kestrel {

namespace {

constexpr std::uint32_t word(int value) {
    return static_cast<std::uint32_t>(value);
}

constexpr pt_format reset_format("%d %d %d = %d");

int pulsar3_dma_reset(int, int cn, int path, int card, int stream) {
    return pulsar3_status(cn, plr3_dma_send(plr3_dma_reset, path, card, stream, {}));
}

constexpr pt_format build_test_pat_format("%d %d %d %d %d %d %d = %d");

int pulsar3_dma_build_test_pat(int, int cn, int path, int card, int stream, int address, int bytes, int first,
                               int step) {
    return pulsar3_status(cn, plr3_dma_send(plr3_dma_build_test_pat, path, card, stream,
                                            {word(address), word(bytes), word(first), word(step)}));
}

constexpr pt_format three_words_format("%d %d %d %d %d + %d = %d");

// What the card prints goes to its own console.
template <const plr3_dma_message &Message>
int print_message(int, int cn, int path, int card, int stream, int first, int number, int options) {
    return pulsar3_status(
        cn, plr3_dma_send(Message, path, card, stream, {word(first), word(number), word(options)}));
}

constexpr pt_format print_scope_format("%d %d + %d %d = %d");
constexpr int words_a_line = 8, usual_words = 64;

// The result is the number of words.
int pulsar3_dma_print_scope(int, int cn, int path, int chan, int first, int number) {
    std::span<const std::uint32_t> row;
    if (const int status = plr3_scope_row(path, chan, row); status != 0)
        return pulsar3_status(cn, status);
    const int width = static_cast<int>(row.size());
    if (number == 0)
        number = usual_words;
    if (first < 0 || number < 0 || first >= width) {
        sv_printf(cn, "! ERROR: %d words from %d are not within the %d of a channel\n", number, first, width);
        return plr3_out_of_range;
    }
    const int end = first + std::min(number, width - first);
    for (int at = first; at < end; at += words_a_line) {
        std::string line;
        char text[12];
        for (int i = at; i < std::min(at + words_a_line, end); ++i) {
            std::snprintf(text, sizeof text, " %08X", row[static_cast<std::size_t>(i)]);
            line += text;
        }
        sv_printf(cn, "# %5d:%s\n", at, line.c_str());
    }
    return end - first;
}

void print_stream(int cn, int stream, const dma_stream_status &s) {
    sv_printf(
        cn,
        "# stream %d: state %u, base 0x%08X, %s, descriptor %u of %u (%u defined), data 0x%X bytes from "
        "0x%X in blocks of 0x%X\n",
        stream, s.state, s.base_addr, s.is_tx != 0 ? "sends" : "receives", s.desc, s.num_desc, s.defined_desc,
        s.data_size, s.data_start, s.max_block_bytes);
    sv_printf(cn, "# stream %d: transfer of %u from descriptor %u, %u frames, frame rule %u\n", stream,
              s.transfer_size, s.transfer_start, s.num_frames, s.frame_rule);
}

constexpr pt_format read_status_format("%d %d %d = %d");

// The result is the stream's state.
int pulsar3_dma_read_status(int, int cn, int path, int card, int stream) {
    dma_status_block block{};
    if (const int status = plr3_dma_read_status(path, card, block); status != 0)
        return pulsar3_status(cn, status);
    if (stream < 0 || stream >= plr3_dma_streams) {
        sv_printf(cn, "! ERROR plr3_dma_read_status: invalid dma stream number %d\n", stream);
        return plr3_failed;
    }
    const dma_stream_status &s = block.stream[static_cast<std::size_t>(stream)];
    print_stream(cn, stream, s);
    return static_cast<int>(s.state);
}

constexpr pt_format read_status_block_format("%d %d = %d");

int pulsar3_dma_read_status_block(int, int cn, int path, int card) {
    dma_status_block block{};
    if (const int status = plr3_dma_read_status(path, card, block); status != 0)
        return pulsar3_status(cn, status);
    for (std::size_t i = 0; i < block.status.size(); ++i)
        sv_printf(cn, "# status %zu: 0x%08X\n", i, block.status[i]);
    for (int stream = 0; stream < plr3_dma_streams; ++stream)
        print_stream(cn, stream, block.stream[static_cast<std::size_t>(stream)]);
    return 0;
}

// The result is the number of faults that the card has found.
int pulsar3_dma_check_desc(int, int cn, int path, int card, int stream, int first, int number, int options) {
    std::array<std::uint32_t, plr3_dma_check_desc.returned> answer{};
    const int status = plr3_dma_send(plr3_dma_check_desc, path, card, stream,
                                     {word(first), word(number), word(options)}, answer);
    if (status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# stream %d: %u descriptors of 0x%X bytes, %u faults\n", stream, answer[0], answer[1],
              answer[2]);
    return static_cast<int>(answer[2]);
}

constexpr pt_format get_desc_status_format("%d %d %d %d = %d");

int pulsar3_dma_get_desc_status(int, int cn, int path, int card, int stream, int descriptor) {
    std::uint32_t state = 0;
    const int status =
        plr3_dma_send(plr3_dma_get_desc_status, path, card, stream, {word(descriptor)}, {&state, 1});
    return status != 0 ? pulsar3_status(cn, status) : static_cast<int>(state);
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_reset = pt_command<pulsar3_dma_reset>(
    "reset", reset_format, "Reset a stream of a card's DMA engine", "Path/Card/Stream, 0 to 7");

extern constinit const PARSE_TREE row_pulsar3_dma_build_test_pat = pt_command<pulsar3_dma_build_test_pat>(
    "build-test-pat", build_test_pat_format, "Fill memory of a card with words that rise",
    "Path/Card/Stream, 0 to 7/Address in bytes/Bytes/First word/Step from word to word");

extern constinit const PARSE_TREE row_pulsar3_dma_print_data = pt_command<print_message<plr3_dma_print_data>>(
    "print-data", three_words_format, "Print data on the card's own console",
    "Path/Card/Stream, 0 to 7/First descriptor/Number/Options");

extern constinit const PARSE_TREE row_pulsar3_dma_print_scope = pt_command<pulsar3_dma_print_scope>(
    "print-scope", print_scope_format, "Print the scope data of a channel that have been read",
    "Path/Channel/First word/Number of words, 64 if not given");

extern constinit const PARSE_TREE row_pulsar3_dma_print_desc = pt_command<print_message<plr3_dma_print_desc>>(
    "print-desc", three_words_format, "Print descriptors on the card's own console",
    "Path/Card/Stream, 0 to 7/First descriptor/Number/Options");

extern constinit const PARSE_TREE row_pulsar3_dma_read_status = pt_command<pulsar3_dma_read_status>(
    "read-status", read_status_format, "Read the state of a stream", "Path/Card/Stream, 0 to 7");

extern constinit const PARSE_TREE row_pulsar3_dma_read_status_block =
    pt_command<pulsar3_dma_read_status_block>("read-status-block", read_status_block_format,
                                              "Read the state of a card's DMA engine", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_check_desc =
    pt_command<pulsar3_dma_check_desc>("check-desc", three_words_format, "Let a card check its descriptors",
                                       "Path/Card/Stream, 0 to 7/First descriptor/Number/Options");

extern constinit const PARSE_TREE row_pulsar3_dma_get_desc_status = pt_command<pulsar3_dma_get_desc_status>(
    "get-desc-status", get_desc_status_format, "Get the state of a descriptor",
    "Path/Card/Stream, 0 to 7/Descriptor");

} // namespace kestrel
