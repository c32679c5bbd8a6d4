// pulsar3/lib/counts: messages to the DMA engine of a card, which reads its memory out in up to 8 streams. Each has a
// code, the mask of its stream, and argument words; some are answered with words. All return 0, or a negative status with
// its text kept.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>

namespace kestrel {

inline constexpr int plr3_dma_streams = 8;

struct plr3_dma_message {
    const char *function; // in the texts of failures
    std::uint32_t code;
    std::size_t words;    // of arguments
    std::size_t returned; // words of the answer
};

inline constexpr plr3_dma_message plr3_dma_reset{"plr3_dma_reset", 1, 0, 0};
// src_stream, addr, size_bytes, block_size
inline constexpr plr3_dma_message plr3_dma_build_desc{"plr3_dma_build_desc", 3, 4, 0};
// first_desc, num_desc, options: in all that have three
inline constexpr plr3_dma_message plr3_dma_start{"plr3_dma_start", 4, 3, 0};
inline constexpr plr3_dma_message plr3_dma_build_test_pat{"plr3_dma_build_test_pat", 6, 4, 0};
inline constexpr plr3_dma_message plr3_dma_print_data{"plr3_dma_print_data", 7, 3, 0};
inline constexpr plr3_dma_message plr3_dma_resend{"plr3_dma_resend", 9, 3, 0};
inline constexpr plr3_dma_message plr3_dma_build_debug_desc{"plr3_dma_build_debug_desc", 11, 6, 0};
inline constexpr plr3_dma_message plr3_dma_print_desc{"plr3_dma_print_desc", 12, 3, 0};
inline constexpr plr3_dma_message plr3_dma_check_desc{"plr3_dma_check_desc", 13, 3, 3};
inline constexpr plr3_dma_message plr3_dma_get_desc_status{"plr3_dma_get_desc_status", 16, 1, 1};
inline constexpr plr3_dma_message plr3_dma_reuse{"plr3_dma_reuse", 17, 3, 0};

// Sends a message with as many words as it takes; the answer goes to `result`, which has its size.
int plr3_dma_send(const plr3_dma_message &message, int path, int card, int stream,
                  std::initializer_list<std::uint32_t> words, std::span<std::uint32_t> result = {});

struct dma_stream_status {
    std::uint32_t state, base_addr, is_tx, desc, num_desc, data_start, data_size, max_block_bytes,
        defined_desc, transfer_start, transfer_size, num_frames, frame_rule;
};
struct dma_status_block {
    std::array<std::uint32_t, 8> status;
    std::array<dma_stream_status, plr3_dma_streams> stream;
};
static_assert(sizeof(dma_status_block) == dma_status_words * sizeof(std::uint32_t));
int plr3_dma_read_status(int path, int card, dma_status_block &block);

} // namespace kestrel
