#include "pulsar3/lib/frames/histogram.h"

#include "pulsar3/lib/frames/count_board.h"
#include "pulsar3/lib/wire/error.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <system_error>

namespace kestrel {

namespace {

constexpr int rounds_a_turn = 8; // full batches before others get the mutex
constexpr int gaps_told_max = 20;
constexpr std::chrono::milliseconds progress_pause{100};

// Everything below but the thread's own loop runs with the mutex held.

void count_drops(Histogram &h) {
    const std::uint32_t drops = plr3_socket_drops(h.udpsock.socket.get());
    h.kernel_dropped += drops - h.last_drops; // wraps as the kernel's count does
    h.last_drops = drops;
}

bool all_came(const Histogram &h) {
    return h.frames_sent && h.frames.expected_frame() >= *h.frames_sent && !h.frames.is_under_way();
}

void settle(Histogram &h) {
    if (!h.running || !h.frames_sent)
        return;
    h.frames.finish(*h.frames_sent);
    count_drops(h);
    h.running = false;
    h.busy = 0;
}

void settle_if_due(Histogram &h) {
    if (h.running && h.frames_sent && (all_came(h) || plr3_clock::now() >= h.run_over + plr3_tail))
        settle(h);
}

void tell_progress(Histogram &h) {
    progress_row &row = h.progress;
    const auto now = plr3_clock::now();
    if (!row.words || now - row.written < progress_pause)
        return;
    row.written = now;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - row.begun).count();
    std::atomic_ref(row.words[0])
        .store(static_cast<std::uint32_t>(h.frames.expected_frame()), std::memory_order_relaxed);
    std::atomic_ref(row.words[3]).store(static_cast<std::uint32_t>(seconds), std::memory_order_relaxed);
}

// The first gaps of a run are told one by one; all are counted.
std::optional<frame_assembler::gap> gap_to_tell(Histogram &h) {
    const frame_assembler::gap gap = h.frames.take_gap();
    if (!gap.any)
        return std::nullopt;
    if (h.debug_burst > 0)
        --h.debug_burst;
    else if (h.gaps_told < gaps_told_max)
        ++h.gaps_told;
    else
        return std::nullopt;
    return gap;
}

frame_reader::got receive(Histogram &h) {
    h.busy = 1;
    frame_reader::got got = frame_reader::got::more;
    for (int round = 0; got == frame_reader::got::more && round < rounds_a_turn; ++round)
        got = h.reader.receive(h.udpsock, h.frames);
    h.busy = h.frames.is_under_way() ? 1 : 0;
    settle_if_due(h);
    tell_progress(h);
    return got;
}

int milliseconds_until_due(Histogram &h) {
    const std::lock_guard guard(h.mutex);
    if (!h.running || !h.frames_sent)
        return -1;
    const auto left = h.run_over + plr3_tail - plr3_clock::now();
    return static_cast<int>(
        std::max<long long>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 0));
}

// False: the thread ends.
bool wait_for_packets(Histogram &h) {
    pollfd wanted[] = {{h.udpsock.socket.get(), POLLIN, 0}, {h.wake.get(), POLLIN, 0}};
    if (::poll(wanted, std::size(wanted), milliseconds_until_due(h)) > 0 && wanted[1].revents != 0) {
        eventfd_t ignored;
        ::eventfd_read(h.wake.get(), &ignored);
    }
    return !h.ending;
}

void receive_frames(Histogram &h) {
    while (wait_for_packets(h)) {
        frame_reader::got got = frame_reader::got::more;
        while (got == frame_reader::got::more && !h.ending) {
            std::optional<frame_assembler::gap> gap;
            {
                const std::lock_guard guard(h.mutex);
                got = receive(h);
                gap = gap_to_tell(h);
            }
            if (gap)
                plr3_message(h.message_to, "Dropped framed read %d, expected %d\n",
                             static_cast<int>(gap->read), static_cast<int>(gap->expected));
        }
        if (got != frame_reader::got::error)
            continue;
        plr3_message(h.message_to, "plr3_histogram:read_and_histogram: read socket error (UDP). errno=%d\n",
                     errno);
        h.error_flags = 1;
        break;
    }
    if (h.error_flags)
        plr3_message(h.message_to, "thread on channel %d terminating\n", h.chan_of_system);
}

void wake(Histogram &h) {
    ::eventfd_write(h.wake.get(), 1);
}

} // namespace

Histogram::~Histogram() {
    plr3_board_remove(*this);
    plr3_histogram_thread_stop(*this);
}

int Histogram::dropped_frames() const {
    const std::uint64_t lost = frames.counts.incomplete + frames.counts.missing;
    return static_cast<int>(std::min<std::uint64_t>(lost, INT_MAX));
}

int plr3_histogram_thread_start(Histogram &h) {
    h.wake = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!h.wake)
        return plr3_fail(plr3_failed, "plr3_config_histogram_threads: no eventfd for channel %d (errno %d)",
                         h.chan_of_system, errno);
    h.ending = false;
    h.error_flags = 0;
    plr3_prepare_reader_socket(h.udpsock.socket.get());
    h.last_drops = plr3_socket_drops(h.udpsock.socket.get());
    try {
        h.thread = std::thread(receive_frames, std::ref(h));
    } catch (const std::system_error &error) {
        return plr3_fail(plr3_failed, "plr3_config_histogram_threads: no thread for channel %d (%s)",
                         h.chan_of_system, error.what());
    }
    if (CPU_COUNT(&h.cpu_set) == 0)
        return 0;
    const int error = ::pthread_setaffinity_np(h.thread.native_handle(), sizeof h.cpu_set, &h.cpu_set);
    if (error != 0)
        plr3_message(h.message_to,
                     "The receive thread of channel %d cannot be bound to its processor (errno %d)\n",
                     h.chan_of_system, error);
    return 0;
}

int plr3_histogram_set_processors(Histogram &h, const cpu_set_t &processors) {
    cpu_set_t wanted = processors;
    if (CPU_COUNT(&wanted) == 0 &&
        ::sched_getaffinity(0, sizeof wanted, &wanted) != 0) // those of this thread
        return plr3_fail(plr3_failed, "channel %d: errno %d", h.chan_of_system, errno);
    if (h.thread.joinable() && h.error_flags == 0) {
        const int error = ::pthread_setaffinity_np(h.thread.native_handle(), sizeof wanted, &wanted);
        if (error != 0)
            return plr3_fail(plr3_failed, "channel %d: errno %d", h.chan_of_system, error);
    }
    h.cpu_set = processors;
    return 0;
}

void plr3_histogram_thread_stop(Histogram &h) {
    if (!h.thread.joinable())
        return;
    h.ending = true;
    wake(h);
    try {
        h.thread.join();
    } catch (const std::system_error &error) {
        plr3_message(
            h.message_to,
            "plr3_config_histogram_threads: CAnnot cancel and join thread for card=%d, chan=%d, rc=%d\n",
            h.card, h.chan_of_card, error.code().value());
        h.thread.detach();
    }
}

void plr3_histogram_begin_run(Histogram &h) {
    const std::lock_guard guard(h.mutex);
    if (h.udpsock.socket) {
        frame_reader::drain(h.udpsock.socket.get());
        h.last_drops = plr3_socket_drops(h.udpsock.socket.get());
    }
    h.kernel_dropped = 0;
    h.gaps_told = 0;
    h.frames.start();
    h.frames_sent.reset();
    h.running = true;
}

void plr3_histogram_end_run(Histogram &h, std::uint64_t frames_sent) {
    const std::lock_guard guard(h.mutex);
    if (!h.running || h.frames_sent)
        return;
    h.frames_sent = frames_sent;
    h.run_over = plr3_clock::now();
    settle_if_due(h);
    if (h.running && h.wake)
        wake(h);
}

bool plr3_histogram_settled(Histogram &h) {
    const std::lock_guard guard(h.mutex);
    settle_if_due(h);
    return !h.running;
}

void plr3_histogram_settle(Histogram &h) {
    const std::lock_guard guard(h.mutex);
    settle(h);
}

} // namespace kestrel
