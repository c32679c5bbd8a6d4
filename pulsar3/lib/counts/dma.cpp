#include "pulsar3/lib/counts/dma.h"

#include "pulsar3/lib/paths/access.h"

#include <cstring>
#include <vector>

namespace kestrel {

namespace {

constexpr std::uint32_t every_stream = (1U << plr3_dma_streams) - 1;

// The card's connection; null after a text.
FemHandle *fem_of(const char *function, int path, int card, int &status) {
    const int leaf = plr3_card_path(function, path, card);
    if (leaf < 0) {
        status = leaf;
        return nullptr;
    }
    FemHandle *fem = plr3_path(leaf)->femHandle.get();
    if (!fem)
        status = plr3_fail(plr3_failed, "%s: path %d is a dummy", function, leaf);
    return fem;
}

} // namespace

int plr3_dma_send(const plr3_dma_message &message, int path, int card, int stream,
                  std::initializer_list<std::uint32_t> words, std::span<std::uint32_t> result) {
    int status = 0;
    FemHandle *fem = fem_of(message.function, path, card, status);
    if (!fem)
        return status;
    if (stream < 0 || stream >= plr3_dma_streams)
        return plr3_fail(plr3_failed, "%s: invalid dma stream number %d", message.function, stream);
    if (words.size() != message.words || result.size() != message.returned)
        return plr3_fail(plr3_failed, "%s: %zu words are given, %zu asked for", message.function,
                         words.size(), result.size());
    std::vector<std::uint32_t> sent{1U << stream};
    sent.insert(sent.end(), words);
    status = result.empty() ? pulsar3FemPersonalityWrite(*fem, message.code, sent)
                            : pulsar3FemPersonalityRead(*fem, message.code, sent, result);
    return status == 0 ? 0
                       : plr3_fail(status, "%s: Error writing stream 0x%x: return code %d", message.function,
                                   1U << stream, status);
}

int plr3_dma_read_status(int path, int card, dma_status_block &block) {
    int status = 0;
    FemHandle *fem = fem_of("plr3_dma_read_status", path, card, status);
    if (!fem)
        return status;
    std::array<std::uint32_t, dma_status_words> words{};
    status = pulsar3FemGetDMAStatusBlock(*fem, every_stream, words);
    if (status != 0)
        return plr3_fail(status, "plr3_dma_read_status: Error writing stream 0x%x: return code %d",
                         every_stream, status);
    std::memcpy(&block, words.data(), sizeof block);
    return 0;
}

} // namespace kestrel
