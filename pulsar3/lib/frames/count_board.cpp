#include "pulsar3/lib/frames/count_board.h"

#include "pulsar3/lib/frames/histogram.h"
#include "support/metrics_text.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <vector>

namespace kestrel {

namespace {

struct fate_row {
    const char *name; // what became of a frame or a packet
    const running_count &(*count)(const Histogram &);
};

constexpr fate_row frame_fates[] = {
    {"whole", [](const Histogram &h) -> const running_count & { return h.frames.counts.whole; }},
    {"incomplete", [](const Histogram &h) -> const running_count & { return h.frames.counts.incomplete; }},
    {"missing", [](const Histogram &h) -> const running_count & { return h.frames.counts.missing; }},
    {"no place", [](const Histogram &h) -> const running_count & { return h.frames.counts.beyond; }},
};
constexpr fate_row packet_fates[] = {
    {"kernel", [](const Histogram &h) -> const running_count & { return h.kernel_dropped; }},
    {"late", [](const Histogram &h) -> const running_count & { return h.frames.counts.late; }},
    {"repeated", [](const Histogram &h) -> const running_count & { return h.frames.counts.repeated; }},
    {"malformed", [](const Histogram &h) -> const running_count & { return h.frames.counts.malformed; }},
};

struct board_row {
    const Histogram *channel;
    int path, number; // of the channel in its system
    std::array<std::uint64_t, std::size(frame_fates)> frames{};
    std::array<std::uint64_t, std::size(packet_fates)> packets{};
};

std::mutex mutex; // held to add, to remove and to read the counts: never while a channel works
std::vector<board_row> board;

std::vector<board_row> read_board() {
    const std::lock_guard guard(mutex);
    for (board_row &row : board) {
        for (std::size_t i = 0; i < std::size(frame_fates); ++i)
            row.frames[i] = frame_fates[i].count(*row.channel);
        for (std::size_t i = 0; i < std::size(packet_fates); ++i)
            row.packets[i] = packet_fates[i].count(*row.channel);
    }
    return board;
}

std::string labels_of(const board_row &row, const char *fate) {
    return "path=" + metric_quoted(std::to_string(row.path)) +
           ",channel=" + metric_quoted(std::to_string(row.number)) + ",fate=" + metric_quoted(fate);
}

} // namespace

void plr3_board_add(const Histogram &channel) {
    const std::lock_guard guard(mutex);
    board.push_back({&channel, channel.path, channel.chan_of_system, {}, {}});
}

void plr3_board_remove(const Histogram &channel) {
    const std::lock_guard guard(mutex);
    std::erase_if(board, [&](const board_row &row) { return row.channel == &channel; });
}

void plr3_board_metrics(std::string &out) {
    const std::vector<board_row> rows = read_board();
    metric_family(out, "kestrel_frames_total", "counter",
                  "Frames of the last run by channel and what became of them.");
    for (const board_row &row : rows)
        for (std::size_t i = 0; i < std::size(frame_fates); ++i)
            metric_sample(out, "kestrel_frames_total", labels_of(row, frame_fates[i].name),
                          std::to_string(row.frames[i]));
    metric_family(out, "kestrel_lost_packets_total", "counter",
                  "Packets of the last run that were of no use.");
    for (const board_row &row : rows)
        for (std::size_t i = 0; i < std::size(packet_fates); ++i)
            metric_sample(out, "kestrel_lost_packets_total", labels_of(row, packet_fates[i].name),
                          std::to_string(row.packets[i]));
}

void plr3_board_status(std::string &out) {
    const std::vector<board_row> rows = read_board();
    std::uint64_t whole = 0, lost = 0;
    for (const board_row &row : rows) {
        whole += row.frames[0];
        lost += row.frames[1] + row.frames[2];
    }
    if (!rows.empty())
        out += "channels " + std::to_string(rows.size()) + ", " + std::to_string(whole) + " frames whole, " +
               std::to_string(lost) + " lost\n";
}

} // namespace kestrel
