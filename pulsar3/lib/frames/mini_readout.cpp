#include "pulsar3/lib/frames/mini_readout.h"

#include "pulsar3/lib/wire/connection.h"
#include "pulsar3/lib/wire/error.h"
#include "support/byte_order.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>

namespace kestrel {

namespace {

constexpr std::uint32_t message_magic = 0x334D4C50;
constexpr std::uint32_t whole_card = 0xFFFFFFFF;
constexpr std::size_t events_max = 1 << 16; // of one message
constexpr std::size_t event_bytes = 8;
constexpr std::chrono::milliseconds quiet_max{200};

enum message_kind : std::uint32_t { kind_scalers = 1, kind_frame = 2, kind_events = 4 };

struct message_header {
    std::uint32_t magic, kind, chan, time_frame, payload_bytes, sequence;
};
static_assert(sizeof(message_header) == 24 && machine_is_intel);

// Fills the bytes; false when the thread is to end or the connection is gone.
bool read_all(mini_readout &r, std::span<std::byte> to, bool begins) {
    std::size_t done = 0;
    while (done < to.size()) {
        const ssize_t n = ::recv(r.socket.get(), to.data() + done, to.size() - done, MSG_DONTWAIT);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            r.waiting = false;
            continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR))
            return false;
        r.waiting = begins && done == 0;
        pollfd wanted[] = {{r.socket.get(), POLLIN, 0}, {r.wake.get(), POLLIN, 0}};
        ::poll(wanted, std::size(wanted), -1);
        if (r.ending)
            return false;
    }
    return true;
}

// False: the payload no longer has the size that it should have. The areas may have changed since it began.
bool take_scalers(mini_readout &r, const message_header &m, std::span<const std::byte> payload) {
    const std::lock_guard guard(r.mutex);
    const std::size_t words = r.scalers.channels * mini_scalers_a_channel;
    if (payload.size() != words * 4)
        return false;
    const std::size_t frames = words == 0 ? 0 : r.scalers.words.size() / words;
    if (frames == 0 || (m.time_frame >= frames && !r.scalers.circular))
        return true;
    const std::size_t frame = m.time_frame % frames;
    const auto status = r.scalers.status.subspan(frame * r.scalers.channels, r.scalers.channels);
    for (std::uint32_t &word : status)
        std::atomic_ref(word).store(frame_not_yet, std::memory_order_relaxed);
    std::memcpy(&r.scalers.words[frame * words], payload.data(), words * 4);
    for (std::uint32_t &word : status)
        std::atomic_ref(word).store(frame_whole, std::memory_order_release);
    return true;
}

bool take_frame(Histogram &h, const message_header &m, std::span<const std::byte> payload) {
    const std::lock_guard guard(h.mutex);
    if (payload.size() != h.frames.area().frame_words * 4)
        return false;
    const auto place = h.frames.open_frame(m.time_frame);
    if (!place)
        return true;
    if (!place->empty())
        std::memcpy(place->data(), payload.data(), payload.size());
    h.frames.end_open_frame();
    return true;
}

// Events of a time frame come in several messages; the last one ends it, as does a message without any.
bool take_events(Histogram &h, const message_header &m, std::span<const std::byte> payload) {
    const std::lock_guard guard(h.mutex);
    const auto place = h.frames.open_frame(m.time_frame);
    if (!place)
        return true;
    bool ended = payload.empty();
    for (std::size_t at = 0; at < payload.size(); at += event_bytes) {
        std::uint64_t event;
        std::memcpy(&event, payload.data() + at, sizeof event);
        ended = (event >> 63) != 0;
        const std::size_t energy = event & 0xFFFF, aux = event >> 16 & 0xFFFF;
        const auto energies = static_cast<std::size_t>(h.nbins_eng);
        const std::size_t bin = aux * energies + energy;
        if (energy >= energies || bin >= h.frames.area().frame_words)
            h.frames.counts.malformed += 1;
        else if (!place->empty())
            ++(*place)[bin];
    }
    if (ended)
        h.frames.end_open_frame();
    return true;
}

// The events as they came, those of no bin or frame of ours too.
void keep_events(mini_readout &r, const message_header &m, std::span<const std::byte> payload) {
    std::shared_ptr<list_mode_file> file;
    std::uint32_t chan = m.chan;
    {
        const std::lock_guard guard(r.mutex);
        file = r.list_mode_fd;
        chan += r.first_chan;
    }
    if (file && plr3_list_mode_add(*file, chan, m.time_frame, payload))
        plr3_message(r.message_to, "List-mode file %s: %s, it ends with the record before\n",
                     file->name.c_str(), std::strerror(file->error));
}

Histogram *channel_of(mini_readout &r, const message_header &m) {
    return m.chan < r.channels.size() ? r.channels[m.chan] : nullptr;
}

// Whether the payload has the size that its kind has here.
bool fits(mini_readout &r, const message_header &m) {
    if (m.magic != message_magic || (m.kind & r.mode) == 0)
        return false;
    Histogram *h = channel_of(r, m);
    switch (m.kind) {
    case kind_scalers: {
        const std::lock_guard guard(r.mutex);
        return m.chan == whole_card && m.payload_bytes == r.scalers.channels * mini_scalers_a_channel * 4;
    }
    case kind_frame: {
        if (!h)
            return false;
        const std::lock_guard guard(h->mutex);
        return m.payload_bytes == h->frames.area().frame_words * 4;
    }
    case kind_events:
        return h && m.payload_bytes % event_bytes == 0 && m.payload_bytes <= events_max * event_bytes;
    default:
        return false;
    }
}

bool take(mini_readout &r, const message_header &m, std::span<const std::byte> payload) {
    if (m.kind == kind_scalers)
        return take_scalers(r, m, payload);
    Histogram &h = *channel_of(r, m);
    if (m.kind == kind_events)
        keep_events(r, m, payload);
    const bool taken = m.kind == kind_frame ? take_frame(h, m, payload) : take_events(h, m, payload);
    plr3_histogram_settled(h);
    return taken;
}

void tell_refusal(const mini_readout &r, const message_header &m) {
    plr3_message(r.message_to,
                 "Readout of a mini model: message %u of kind %u, channel %u, %u bytes is not the expected "
                 "one, the connection is closed\n",
                 m.sequence, m.kind, m.chan, m.payload_bytes);
}

void read_messages(mini_readout &r) {
    std::vector<std::byte> payload;
    message_header m{};
    for (std::uint32_t sequence = 0;; ++sequence) {
        if (!read_all(r, std::as_writable_bytes(std::span(&m, 1)), true))
            break;
        if (!fits(r, m) || m.sequence != sequence) {
            tell_refusal(r, m);
            break;
        }
        payload.resize(m.payload_bytes);
        if (!read_all(r, payload, false))
            break;
        if (!take(r, m, payload)) {
            tell_refusal(r, m);
            break;
        }
    }
    if (r.ending)
        return;
    r.failed = true;
    ::shutdown(r.socket.get(), SHUT_RDWR);
    plr3_message(r.message_to, "Readout of a mini model: the connection has ended\n");
}

} // namespace

mini_readout::~mini_readout() {
    plr3_readout_stop(*this);
}

int plr3_readout_start(mini_readout &r) {
    plr3_readout_stop(r);
    r.socket = plr3_connect(r.address, r.port);
    if (!r.socket)
        return plr3_fail(plr3_failed, "plr3_readout: Cannot connect to the readout on port %d (errno %d)",
                         r.port, errno);
    if (::send(r.socket.get(), &r.mode, sizeof r.mode, MSG_NOSIGNAL) != sizeof r.mode)
        return plr3_fail(plr3_failed, "plr3_readout: Cannot send the readout mode (errno %d)", errno);
    r.wake = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!r.wake)
        return plr3_fail(plr3_failed, "plr3_readout: no eventfd (errno %d)", errno);
    r.ending = r.failed = r.waiting = false;
    try {
        r.thread = std::thread(read_messages, std::ref(r));
    } catch (const std::system_error &error) {
        r.failed = true; // the next start tries again
        return plr3_fail(plr3_failed, "plr3_readout: no thread (%s)", error.what());
    }
    return 0;
}

void plr3_readout_stop(mini_readout &r) {
    if (r.thread.joinable()) {
        r.ending = true;
        ::eventfd_write(r.wake.get(), 1);
        r.thread.join();
    }
    r.socket.reset();
}

void plr3_readout_quiet(mini_readout &r) {
    const auto end = plr3_clock::now() + quiet_max;
    int times_quiet = 0; // what the card has sent may be on its way
    while (r.thread.joinable() && !r.failed && times_quiet < 3 && plr3_clock::now() < end) {
        int bytes = 0;
        const bool quiet = ::ioctl(r.socket.get(), FIONREAD, &bytes) == 0 && bytes == 0 && r.waiting;
        times_quiet = quiet ? times_quiet + 1 : 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace kestrel
