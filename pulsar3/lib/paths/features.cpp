#include "pulsar3/lib/paths/features.h"

#include "pulsar3/lib/registers/bits.h"

namespace kestrel {

namespace {

using F = Pulsar3_features;

constexpr plr3_feature_row row(const char *name, int word, int first, int last, std::uint8_t F::*byte) {
    return {name, word, first, last, byte, nullptr};
}
constexpr plr3_feature_row row(const char *name, int word, int first, int last, int F::*number) {
    return {name, word, first, last, nullptr, number};
}

} // namespace

constinit const std::array<plr3_feature_row, plr3_nr_features> plr3_feature_rows = {{
    row("test_data_source", 0, 0, 3, &F::test_data_source),
    row("real_data_source", 0, 4, 7, &F::real_data_source),
    row("data_mux", 0, 8, 11, &F::data_mux),
    row("inl_corr", 0, 12, 13, &F::inl_corr),
    row("reset_detector", 0, 14, 15, &F::reset_detector),
    row("reset_corr", 0, 16, 17, &F::reset_corr),
    row("glitch_detect", 0, 18, 19, &F::glitch_detect),
    row("glitch_pad", 0, 20, 21, &F::glitch_pad),
    row("trigger_b", 0, 22, 24, &F::trigger_b),
    row("trigger_c", 0, 25, 27, &F::trigger_c),
    row("trigger_extra", 0, 28, 31, &F::trigger_extra),
    row("calibrator", 1, 0, 1, &F::calibrator),
    row("neighbour_events", 1, 2, 3, &F::neighbour_events),
    row("servo_base", 1, 4, 6, &F::servo_base),
    row("servo_details", 1, 7, 9, &F::servo_details),
    row("run_ave", 1, 10, 11, &F::run_ave),
    row("lead_tail_corr", 1, 12, 14, &F::lead_tail_corr),
    row("output_format", 1, 16, 19, &F::output_format),
    row("format_details_a", 1, 20, 23, &F::format_details_a),
    row("format_details_b", 1, 24, 27, &F::format_details_b),
    row("global_reset", 1, 28, 29, &F::global_reset),
    row("ack_eof", 1, 30, 30, &F::ack_eof),
    row("timing_source", 2, 0, 3, &F::timing_source),
    row("timing_generator", 2, 4, 7, &F::timing_generator),
    row("scope_mode", 2, 8, 11, &F::scope_mode),
    row("farm_mode", 2, 12, 12, &F::farm_mode),
    row("soft_scalers", 2, 13, 13, &F::soft_scalers),
    row("num_scope_dma", 2, 16, 19, &F::num_scope_dma),
    row("num_playback_streams", 2, 20, 23, &F::num_playback_streams),
    row("max_real_dma_stream", 2, 24, 27, &F::max_real_dma_stream),
    row("min_nbits_eng", 2, 28, 31, &F::min_nbits_eng),
    row("nbits_frac_be", 3, 0, 7, &F::nbits_frac_be),
    row("plr3m_send_mode", 3, 8, 10, &F::plr3m_send_mode),
}};

PulsarGeneration plr3_generation_of(std::uint32_t revision) {
    const std::uint32_t code = plr3_bits(revision, 4, 7);
    return code <= PulsarGen4 ? static_cast<PulsarGeneration>(code) : PulsarGenError;
}

Pulsar3_features plr3_unpack_features(std::uint32_t revision,
                                      const std::array<std::uint32_t, plr3_feature_words> &words) {
    Pulsar3_features f;
    f.generation = plr3_generation_of(revision);
    for (const plr3_feature_row &r : plr3_feature_rows) {
        const std::uint32_t value =
            plr3_bits(words[static_cast<std::size_t>(r.word)], r.first_bit, r.last_bit);
        if (r.byte)
            f.*r.byte = static_cast<std::uint8_t>(value);
        else
            f.*r.number = static_cast<int>(value);
    }
    return f;
}

} // namespace kestrel
