// pulsar3/lib/paths: what a card's firmware can do, unpacked from its revision and feature words.
#pragma once

#include <array>
#include <cstdint>

namespace kestrel {

enum PulsarGeneration : int {
    PulsarGenError = -1,
    PulsarGen3 = 0,
    PulsarGen3V7 = 1,
    PulsarGen3Mini = 2,
    PulsarGen4 = 3,
};

struct Pulsar3_features {
    std::uint8_t test_data_source = 0, real_data_source = 0, data_mux = 0, inl_corr = 0, reset_detector = 0;
    std::uint8_t reset_corr = 0, glitch_detect = 0, glitch_pad = 0, trigger_b = 0, trigger_c = 0;
    std::uint8_t trigger_extra = 0, calibrator = 0, neighbour_events = 0, servo_base = 0, servo_details = 0;
    std::uint8_t run_ave = 0, lead_tail_corr = 0, output_format = 0, format_details_a = 0;
    std::uint8_t format_details_b = 0, global_reset = 0, timing_source = 0, timing_generator = 0;
    std::uint8_t scope_mode = 0, farm_mode = 0, soft_scalers = 0, ack_eof = 0;
    int generation = PulsarGenError;
    int num_scope_dma = 0, num_playback_streams = 0, max_real_dma_stream = 0, min_nbits_eng = 0;
    int nbits_frac_be = 0, plr3m_send_mode = 0;
};

inline constexpr int plr3_feature_offset = 60; // the first of the feature words, channel 0, region 0
inline constexpr int plr3_feature_words = 4;

// Bits 4..7 of a revision word; PulsarGenError for none of ours.
PulsarGeneration plr3_generation_of(std::uint32_t revision);

Pulsar3_features plr3_unpack_features(std::uint32_t revision,
                                      const std::array<std::uint32_t, plr3_feature_words> &words);

// The features by name, in the order of their words, for whoever lists them.
struct plr3_feature_row {
    const char *name;
    int word; // 0 is feature word 60
    int first_bit, last_bit;
    std::uint8_t Pulsar3_features::*byte; // one of the two is set
    int Pulsar3_features::*number;

    int value(const Pulsar3_features &f) const { return byte ? f.*byte : f.*number; }
};
inline constexpr std::size_t plr3_nr_features = 33;
extern const std::array<plr3_feature_row, plr3_nr_features> plr3_feature_rows;

} // namespace kestrel
