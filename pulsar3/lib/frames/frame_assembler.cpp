#include "pulsar3/lib/frames/frame_assembler.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

namespace {

constexpr std::size_t no_place = ~std::size_t{0};

} // namespace

void frame_assembler::set_area(const frame_area &area) {
    area_ = area;
    const std::size_t bytes = area.frame_words * 4;
    packets_ = static_cast<std::uint32_t>((bytes + frame_packet_payload - 1) / frame_packet_payload);
    last_bytes_ = packets_ == 0 ? 0 : bytes - (packets_ - 1) * frame_packet_payload;
    out_of_order_.assign(packets_, false);
    begin(0);
}

void frame_assembler::start() {
    for (running_count *count :
         {&counts.reached, &counts.whole, &counts.incomplete, &counts.missing, &counts.beyond, &counts.late,
          &counts.repeated, &counts.malformed, &overruns})
        *count = 0;
    acknowledged = 0;
    first_overrun = -1;
    held_.clear();
    gap_ = {};
    begin(0);
    for (std::uint64_t frame = 0; frame < area_.frames(); ++frame)
        set_status(frame, frame_not_yet, 0);
}

void frame_assembler::begin(std::uint64_t frame) {
    frame_ = frame;
    received_ = lowest_ = 0;
    spoiled_ = false;
    if (!in_order_)
        out_of_order_.assign(packets_, false);
    in_order_ = true;
}

std::size_t frame_assembler::place_index(std::uint64_t frame) const {
    const std::uint64_t frames = area_.frames();
    if (frames == 0 || (frame >= frames && !area_.circular))
        return no_place;
    return static_cast<std::size_t>(frame % frames);
}

std::span<std::uint32_t> frame_assembler::place_of(std::uint64_t frame) const {
    const std::size_t index = place_index(frame);
    return index == no_place ? std::span<std::uint32_t>{}
                             : area_.buffer.subspan(index * area_.frame_words, area_.frame_words);
}

frame_assembler::slot frame_assembler::slot_of(std::uint64_t frame, std::uint32_t packet) const {
    const std::span<std::uint32_t> place = place_of(frame);
    slot s{frame, packet, nullptr, frame_packet_payload, packet + 1 == packets_};
    if (s.ends)
        s.bytes = last_bytes_;
    if (!place.empty())
        s.place = reinterpret_cast<std::byte *>(place.data()) + packet * frame_packet_payload;
    return s;
}

frame_assembler::slot frame_assembler::after(const slot &s) const {
    std::uint32_t packet = s.packet + 1;
    while (s.frame == frame_ && packet < packets_ && has(packet))
        ++packet;
    return packet < packets_ ? slot_of(s.frame, packet) : slot_of(s.frame + 1, 0);
}

void frame_assembler::set_status(std::uint64_t frame, frame_status status, std::uint32_t missing) {
    const std::size_t index = place_index(frame);
    if (!area_.status || index == no_place)
        return;
    std::atomic_ref(area_.missing[index * area_.pitch]).store(missing, std::memory_order_relaxed);
    std::atomic_ref(area_.status[index * area_.pitch]).store(status, std::memory_order_release);
}

void frame_assembler::open(const slot &s) {
    const std::size_t index = place_index(s.frame);
    if (!area_.circular || !area_.status || index == no_place)
        return; // every place is new in a run
    std::atomic_ref(area_.status[index * area_.pitch]).store(frame_not_yet, std::memory_order_seq_cst);
}

// Numbers wrap; more than half of them ahead is behind.
std::uint64_t frame_assembler::extended(std::uint32_t number) const {
    const auto ahead = static_cast<std::int32_t>(number - static_cast<std::uint32_t>(frame_));
    const auto frame = static_cast<std::int64_t>(frame_) + ahead;
    return frame < 0 ? number : static_cast<std::uint64_t>(frame);
}

bool frame_assembler::fits(const packet_info &info) const {
    if (info.state != packet_state::good || info.packet >= packets_)
        return false;
    const bool last = info.packet + 1 == packets_;
    return info.starts == (info.packet == 0) && info.ends == last &&
           info.payload == (last ? last_bytes_ : frame_packet_payload);
}

bool frame_assembler::has(std::uint32_t packet) const {
    return packet < lowest_ || (!in_order_ && out_of_order_[packet]);
}

void frame_assembler::mark_received(std::uint32_t packet) {
    ++received_;
    if (packet == lowest_) {
        ++lowest_;
        while (!in_order_ && lowest_ < packets_ && out_of_order_[lowest_])
            ++lowest_;
    } else {
        in_order_ = false;
        out_of_order_[packet] = true;
    }
    if (received_ == packets_)
        end_frame();
}

bool frame_assembler::take_in_place(const slot &s, const packet_info &packet) {
    if (!fits(packet) || packet.packet != s.packet || extended(packet.frame) != s.frame ||
        s.frame != frame_ || s.packet != lowest_ || !held_.empty() || packet.pad_words != 0)
        return false;
    mark_received(s.packet);
    return true;
}

void frame_assembler::take(std::span<const std::byte> packet) {
    const packet_info info = plr3_walk_packet(packet, area_.farm_mode);
    if (!fits(info)) {
        counts.malformed += 1;
        return;
    }
    const std::uint64_t frame = extended(info.frame);
    // Two frames of one packet may have changed places; else one in its place speaks against the one that is held.
    if (!held_.empty() && (frame != frame_ || packets_ > 1))
        release_held(agrees_with_held(frame, info));
    if (needs_agreement(frame, info))
        hold(packet, frame, info);
    else
        use(frame, info, packet.first(info.payload));
}

// The next frame's first packet follows one that has begun: its end is lost, which is common. Anything farther off
// is another's word against what came so far.
bool frame_assembler::needs_agreement(std::uint64_t frame, const packet_info &info) const {
    if (frame <= frame_)
        return false;
    return received_ == 0 || frame != frame_ + 1 || !info.starts;
}

bool frame_assembler::agrees_with_held(std::uint64_t frame, const packet_info &info) const {
    return (frame == held_frame_ && info.packet > held_info_.packet) ||
           (frame == held_frame_ + 1 && info.starts);
}

void frame_assembler::hold(std::span<const std::byte> packet, std::uint64_t frame, const packet_info &info) {
    held_.assign(packet.begin(), packet.end());
    held_frame_ = frame;
    held_info_ = info;
}

void frame_assembler::release_held(bool believed) {
    const std::vector<std::byte> packet = std::move(held_);
    held_.clear();
    if (believed)
        use(held_frame_, held_info_, std::span(packet).first(held_info_.payload));
    else
        counts.malformed += 1;
}

void frame_assembler::use(std::uint64_t frame, const packet_info &info, std::span<const std::byte> payload) {
    if (frame < frame_)
        return use_old(frame, info, payload);
    if (frame > frame_)
        skip_to(frame);
    if (has(info.packet)) {
        counts.repeated += 1;
        spoiled_ = spoiled_ || differs(frame, info.packet, payload);
        return;
    }
    const slot s = slot_of(frame, info.packet);
    open(s);
    if (s.place)
        std::memcpy(s.place, payload.data(), payload.size());
    mark_received(info.packet);
}

// Only the frame just ended may have got another's packet under its number.
void frame_assembler::use_old(std::uint64_t frame, const packet_info &info,
                              std::span<const std::byte> payload) {
    const std::size_t index = place_index(frame);
    const bool whole = index != no_place && area_.status && frame + area_.frames() >= frame_ &&
                       area_.status[index * area_.pitch] == frame_whole;
    if (!whole) {
        counts.late += 1;
        return;
    }
    counts.repeated += 1;
    if (frame + 1 != frame_ || !differs(frame, info.packet, payload))
        return;
    spoil(frame, 1);
    counts.whole -= 1;
    counts.incomplete += 1;
}

bool frame_assembler::differs(std::uint64_t frame, std::uint32_t packet,
                              std::span<const std::byte> payload) const {
    const slot s = slot_of(frame, packet);
    return s.place && std::memcmp(s.place, payload.data(), payload.size()) != 0;
}

void frame_assembler::skip_to(std::uint64_t frame) {
    if (!gap_.any)
        gap_ = {frame, frame_, true};
    if (received_ > 0)
        end_incomplete();
    if (frame > frame_)
        lose(frame_, frame - frame_);
    begin(frame);
}

void frame_assembler::end_frame() {
    if (spoiled_)
        end_incomplete();
    else
        end_whole();
}

void frame_assembler::end_whole() {
    note_overrun(frame_);
    set_status(frame_, frame_whole, 0);
    counts.whole += 1;
    counts.reached += 1;
    if (place_index(frame_) == no_place)
        counts.beyond += 1;
    begin(frame_ + 1);
}

void frame_assembler::end_incomplete() {
    note_overrun(frame_);
    spoil(frame_, std::max(packets_ - received_, 1U));
    counts.incomplete += 1;
    counts.reached += 1;
    begin(frame_ + 1);
}

// Of a long gap only the last frames have places.
void frame_assembler::lose(std::uint64_t first, std::uint64_t n) {
    counts.missing += n;
    counts.reached += n;
    const std::uint64_t frames = area_.frames();
    const std::uint64_t end = area_.circular ? first + n : std::min(first + n, frames);
    std::uint64_t frame = end - std::min(end, frames) > first ? end - frames : first;
    for (; frame < end; ++frame) {
        note_overrun(frame);
        spoil(frame, packets_);
    }
}

void frame_assembler::spoil(std::uint64_t frame, std::uint32_t missing) {
    if (place_index(frame) == no_place)
        return;
    set_status(frame, frame_not_yet, missing);
    std::ranges::fill(place_of(frame), 0);
    set_status(frame, frame_incomplete, missing);
}

void frame_assembler::note_overrun(std::uint64_t frame) {
    const std::uint64_t frames = area_.frames();
    if (!area_.circular || frame < frames || frame - frames < acknowledged.load(std::memory_order_relaxed))
        return;
    overruns += 1;
    if (first_overrun.load(std::memory_order_relaxed) < 0)
        first_overrun = static_cast<std::int64_t>(frame);
}

std::optional<std::span<std::uint32_t>> frame_assembler::open_frame(std::uint32_t number) {
    const std::uint64_t frame = extended(number);
    if (frame < frame_) {
        counts.late += 1;
        return std::nullopt;
    }
    if (frame > frame_)
        skip_to(frame);
    const std::span<std::uint32_t> place = place_of(frame);
    if (received_ == 0) {
        set_status(frame, frame_not_yet, 0);
        std::ranges::fill(place, 0);
        received_ = 1;
    }
    return place;
}

void frame_assembler::finish(std::uint64_t frames_sent) {
    if (!held_.empty())
        release_held(held_frame_ < frames_sent);
    if (received_ > 0)
        end_incomplete();
    if (frames_sent > frame_)
        skip_to(frames_sent);
}

frame_assembler::gap frame_assembler::take_gap() {
    const gap g = gap_;
    gap_ = {};
    return g;
}

} // namespace kestrel
