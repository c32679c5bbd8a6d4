#include "pulsar3/lib/saved/dead_time_records.h"

#include "pulsar3/lib/saved/item_access.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace kestrel {

namespace {

constexpr std::size_t record_bytes = sizeof(ChannelDTC);
constexpr std::size_t first_double = offsetof(ChannelDTC, processDeadTimeAllEventGradient);
constexpr std::size_t doubles = (record_bytes - first_double) / sizeof(double);

static_assert(record_bytes == 72 && first_double == 8 && doubles == 8);

std::span<const std::byte> record_of(std::span<const std::byte> bytes, std::size_t index, std::size_t size) {
    return bytes.subspan(index * size, size);
}

bool is_sound(std::span<const std::byte> record) {
    const int flags = saved_value<int>(record);
    if (flags < 0 || flags > (plr3_dtc_omit | plr3_dtc_use_good_event))
        return false;
    for (std::size_t i = 0; i < doubles; ++i)
        if (!std::isfinite(saved_value<double>(record, first_double + i * sizeof(double))))
            return false;
    return true;
}

} // namespace

void put_dead_times(std::span<std::byte> bytes, int index, const ChannelDTC &record) {
    const std::span<std::byte> to =
        bytes.subspan(static_cast<std::size_t>(index) * record_bytes, record_bytes);
    std::memcpy(to.data(), &record, record_bytes);
    clear_dead_time_gaps(to); // two saves of the same are the same
}

void clear_dead_time_gaps(std::span<std::byte> bytes) {
    constexpr std::size_t gap = sizeof(ChannelDTC::flags);
    for (std::size_t at = gap; at < bytes.size(); at += record_bytes)
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), first_double - gap, std::byte{0});
}

ChannelDTC get_dead_times(std::span<const std::byte> bytes, int index) {
    return saved_value<ChannelDTC>(record_of(bytes, static_cast<std::size_t>(index), record_bytes));
}

bool dead_times_are_sound(std::span<const std::byte> bytes) {
    for (std::size_t i = 0; i < bytes.size() / record_bytes; ++i)
        if (!is_sound(record_of(bytes, i, record_bytes)))
            return false;
    return true;
}

saved_bytes renew_dead_times(std::span<const std::byte> old) {
    const std::size_t records = old.size() / old_dead_time_bytes;
    saved_bytes renewed(records * record_bytes);
    for (std::size_t i = 0; i < records; ++i)
        std::ranges::copy(record_of(old, i, old_dead_time_bytes),
                          renewed.begin() + static_cast<std::ptrdiff_t>(i * record_bytes));
    return renewed;
}

} // namespace kestrel
