#include "pulsar3/lib/counts/scope.h"

#include "pulsar3/lib/counts/dma.h"
#include "pulsar3/lib/frames/receive_run.h"
#include "pulsar3/lib/paths/card_module.h"

#include <future>
#include <pthread.h>
#include <string>
#include <vector>

namespace kestrel {

namespace {

struct row {
    int path, card, chan;
    std::span<std::uint32_t> words;
};

// A channel's capture lies behind those of the channels before it; one descriptor is one frame.
int read_row(const row &r) {
    PLR3Path &leaf = *plr3_path(plr3_leaf(*plr3_path(r.path), r.path, r.card));
    const int stream = r.chan % plr3_dma_streams;
    const auto bytes = static_cast<std::uint32_t>(r.words.size_bytes());
    if (const int status = plr3_dma_send(plr3_dma_reset, r.path, r.card, stream, {}); status != 0)
        return status;
    if (const int status = plr3_dma_send(
            plr3_dma_build_desc, r.path, r.card, stream,
            {static_cast<std::uint32_t>(stream), static_cast<std::uint32_t>(r.chan) * bytes, bytes, bytes});
        status != 0)
        return status;
    run_request run;
    run.shape = {std::as_writable_bytes(r.words), bytes, 0, leaf.message_to};
    run.farm_mode = leaf.features.farm_mode != 0;
    run.debug = leaf.debug;
    run.resend = [&r, stream](std::uint32_t, std::uint32_t) {
        return plr3_dma_send(plr3_dma_resend, r.path, r.card, stream, {0, 1, 0});
    };
    frame_reader::drain(leaf.udpsock.socket.get());
    if (const int status = plr3_dma_send(plr3_dma_start, r.path, r.card, stream, {0, 1, 0}); status != 0)
        return status;
    run_result result;
    return plr3_read_data_10g_receive(leaf.udpsock, run, result);
}

struct outcome {
    int status = 0;
    std::string text;
};

outcome read_card(int path, int card, std::span<std::uint32_t> module, std::size_t width) {
    const PLR3Path &leaf = *plr3_path(plr3_leaf(*plr3_path(path), path, card));
    for (int chan = 0; chan < leaf.num_chan; ++chan) {
        const auto first = static_cast<std::size_t>(leaf.chan_of_system + chan) * width;
        if (const int status = read_row({path, card, chan, module.subspan(first, width)}); status != 0)
            return {status, plr3_get_error_message()};
    }
    return {};
}

int check(int path, int card) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "plr3_read_scope_data: invalid path %d", path);
    if (card < -1 || card >= top->num_cards)
        return plr3_fail(plr3_illegal_card, "plr3_read_scope_data: illegal card specified (%d)", card);
    if (!top->scope_mod)
        return plr3_fail(plr3_failed, "plr3_read_scope_data: path %d has no scope module", path);
    for (int one = 0; one < top->num_cards; ++one)
        if (!plr3_path(plr3_leaf(*top, path, one))->udpsock.socket)
            return plr3_fail(plr3_failed, "plr3_read_scope_data: card %d of path %d has no data link", one,
                             path);
    return 0;
}

// The module's words and how many of them a channel has: a row for each of the path.
int find_words(const char *function, int path, std::size_t &width, std::span<std::uint32_t> &module) {
    PLR3Path &top = *plr3_path(path);
    if (top.scope_mod.look(top.message_to) != 0)
        return plr3_fail(plr3_failed, "%s: the scope module of path %d cannot be used", function, path);
    width = static_cast<std::size_t>(top.scope_mod.view().num_x);
    module = plr3_words(top.scope_mod);
    if (module.size() < width * static_cast<std::size_t>(top.max_num_chan))
        return plr3_fail(plr3_failed, "%s: the scope module of path %d is too small", function, path);
    return 0;
}

// The calling thread, which reads this card's data, to the processors that are set for that.
void bind_thread(int path, int card) {
    const PLR3Path &leaf = *plr3_path(plr3_leaf(*plr3_path(path), path, card));
    const cpu_set_t &set = leaf.scope_cpu_set;
    if (CPU_COUNT(&set) == 0)
        return;
    const int error = ::pthread_setaffinity_np(::pthread_self(), sizeof set, &set);
    if (error != 0)
        plr3_message(leaf.message_to,
                     "The scope thread of card %d cannot be bound to its processors (errno %d)\n", card,
                     error);
}

} // namespace

int plr3_read_scope_data(int path, int card) {
    if (const int status = check(path, card); status != 0)
        return status;
    const PLR3Path &top = *plr3_path(path);
    std::size_t width = 0;
    std::span<std::uint32_t> module;
    if (const int status = find_words("plr3_read_scope_data", path, width, module); status != 0)
        return status;
    const int first = card < 0 ? 0 : card, end = card < 0 ? top.num_cards : card + 1;
    const bool side_by_side = !top.disable_multi_thread && end - first > 1;
    const auto how = side_by_side ? std::launch::async : std::launch::deferred;
    std::vector<std::future<outcome>> cards;
    for (int one = first; one < end; ++one)
        cards.push_back(std::async(how, [=] {
            if (side_by_side)
                bind_thread(path, one);
            return read_card(path, one, module, width);
        }));
    int status = 0;
    for (std::future<outcome> &one : cards) {
        const outcome o = one.get();
        if (o.status != 0 && status == 0)
            status = plr3_fail(o.status, "%s", o.text.c_str());
    }
    return status;
}

int plr3_scope_row(int path, int chan, std::span<const std::uint32_t> &row) {
    constexpr const char *name = "plr3_scope_row";
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", name, path);
    if (chan < 0 || chan >= top->max_num_chan)
        return plr3_fail(plr3_out_of_range, "%s: chan=%d out of range 0..%d", name, chan,
                         top->max_num_chan - 1);
    if (!top->scope_mod)
        return plr3_fail(plr3_failed, "%s: path %d has no scope module", name, path);
    std::size_t width = 0;
    std::span<std::uint32_t> module;
    if (const int status = find_words(name, path, width, module); status != 0)
        return status;
    row = module.subspan(static_cast<std::size_t>(chan) * width, width);
    return 0;
}

} // namespace kestrel
