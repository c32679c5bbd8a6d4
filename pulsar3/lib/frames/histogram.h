// pulsar3/lib/frames: a channel's histogram state, and the thread that receives its frames.
//
// The thread sleeps until packets come or it is woken. It holds the channel's mutex while it puts packets in their
// places; the command thread takes the same mutex to begin and end runs and to read the frames. The mutex serves in
// turn, so that a busy stream does not keep the command thread waiting.
#pragma once

#include "pulsar3/lib/frames/frame_assembler.h"
#include "pulsar3/lib/frames/frame_reader.h"
#include "pulsar3/lib/frames/udp.h"
#include "support/fair_mutex.h"
#include "support/fd.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <sched.h>
#include <thread>

namespace kestrel {

using plr3_clock = std::chrono::steady_clock;

inline constexpr int hist_socket_buffer = 4 << 20;  // bytes wanted for each channel's socket
inline constexpr std::chrono::seconds plr3_tail{2}; // what has not come so long after a run's end is lost
inline constexpr int words_of_progress = 4;         // reached, asked, running, seconds

// What the threads of a card tell whoever looks at the progress module: at most ten times a second.
struct progress_row {
    std::uint32_t *words = nullptr; // null: nobody looks
    plr3_clock::time_point begun{}, written{};
};

struct Histogram {
    int path = 0; // of the card
    int card = 0; // within its system
    int chan_of_card = 0;
    int chan_of_system = 0;
    std::atomic<int> message_to{-1};
    std::span<std::uint32_t> buffer; // the channel's part of the card's module
    std::uint32_t format_reg = 0;
    int nbits_eng = 0, nbits_aux1 = 0, nbits_aux2 = 0;
    int nbins_eng = 0, nbins_aux1 = 0, nbins_aux2 = 0;
    int aux1_mode = 0, aux2_mode = 0;
    cpu_set_t cpu_set{}; // processors for the thread; none: any
    UDPconnection udpsock;

    fair_mutex mutex; // guards what follows up to `thread`
    frame_assembler frames;
    frame_reader reader;
    bool running = false;                     // a run that has not been settled
    std::optional<std::uint64_t> frames_sent; // the run is over, and this is what the card has sent in it
    plr3_clock::time_point run_over{};        // when that was known
    std::uint32_t last_drops = 0;
    int gaps_told = 0;
    progress_row progress;        // of the card's first channel
    running_count kernel_dropped; // datagrams, of this run
    std::atomic<int> busy{0};     // a frame is being received
    std::atomic<int> debug_burst{0};
    std::atomic<int> error_flags{0}; // 1: the socket failed, the thread has ended

    unique_fd wake; // an eventfd
    std::atomic<bool> ending{false};
    std::thread thread;

    Histogram() { CPU_ZERO(&cpu_set); }
    Histogram(const Histogram &) = delete;
    Histogram &operator=(const Histogram &) = delete;
    ~Histogram();

    int dropped_frames() const; // incomplete and missing ones, of this run
};

// Starts the channel's thread; its socket must be open. 0, or a status with its text.
int plr3_histogram_thread_start(Histogram &h);
// Binds it to processors; none: any. 0, or plr3_failed with its text, and it stays where it was.
int plr3_histogram_set_processors(Histogram &h, const cpu_set_t &processors);
// Ends and joins it: never longer than the packets take that have come already.
void plr3_histogram_thread_stop(Histogram &h);

// The run's begin: what is still under way from another is thrown away, frame 0 is the next.
void plr3_histogram_begin_run(Histogram &h);
// The run's end, as the card knows it. Its thread waits plr3_tail for what is missing.
void plr3_histogram_end_run(Histogram &h, std::uint64_t frames_sent);
// Whether all of a run is accounted for; what is due is accounted for now.
bool plr3_histogram_settled(Histogram &h);
// Accounts at once for all that has not come.
void plr3_histogram_settle(Histogram &h);

} // namespace kestrel
