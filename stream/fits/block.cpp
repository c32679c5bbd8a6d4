// stream/fits: blocks. Spectra of counts are packed: most channels of most spectra hold less than a byte's worth, and all
// that a block is copied between here, the broker and a worker becomes a fourth.
#include "stream/fits/message.h"
#include "stream/fits/records.h"

#include <algorithm>
#include <array>

namespace kestrel::stream {

namespace {

struct block_record {
    fit_head head;
    std::int32_t number, nq, ns, q1, q2, unused;
};
static_assert(!has_gaps<block_record>);

// The product of positive factors; nothing when one is not positive, or it is above `most`.
std::optional<std::size_t> product(std::initializer_list<int> factors, std::size_t most) {
    std::size_t all = 1;
    for (const int factor : factors) {
        if (factor <= 0 || static_cast<std::size_t>(factor) > most / all)
            return std::nullopt;
        all *= static_cast<std::size_t>(factor);
    }
    return all;
}

// Along q, what a block has of the spectra: its points and their neighbours.
fit_box with_neighbours(const peak_spectra &spectra, const fit_box &box, int neighbours) {
    return {std::max(0, box.q1 - neighbours), std::min(spectra.nq - 1, box.q2 + neighbours), box.s1, box.s2};
}

// Counts go in groups of 64 (the last one of a spectrum may have fewer): a byte that says how many bytes each has, 0 (all
// are zero), 1, 2 or 4, and the counts.
constexpr std::size_t group_counts = 64;
using count_group = std::array<std::uint32_t, group_counts>;

template <class Narrow> void put_group(std::string &bytes, const count_group &group, std::size_t count) {
    std::array<Narrow, group_counts> narrow;
    std::copy(group.begin(), group.end(), narrow.begin());
    bytes += static_cast<char>(sizeof(Narrow));
    bytes.append(reinterpret_cast<const char *>(narrow.data()), count * sizeof(Narrow));
}

void pack_group(std::string &bytes, const count_group &group, std::size_t count) {
    std::uint32_t bits = 0;
    for (const std::uint32_t value : group)
        bits |= value;
    if (bits == 0)
        bytes += '\0';
    else if (bits <= 0xff)
        put_group<std::uint8_t>(bytes, group, count);
    else if (bits <= 0xffff)
        put_group<std::uint16_t>(bytes, group, count);
    else
        put_group<std::uint32_t>(bytes, group, count);
}

void pack(std::string &bytes, const std::byte *at, std::size_t step, std::size_t channels) {
    count_group group{};
    for (std::size_t done = 0; done < channels; done += group_counts) {
        const std::size_t count = std::min(group_counts, channels - done);
        if (step == sizeof group[0])
            std::memcpy(group.data(), at, count * step);
        else
            for (std::size_t i = 0; i < count; ++i)
                std::memcpy(&group[i], at + i * step, sizeof group[i]);
        std::fill(group.begin() + static_cast<std::ptrdiff_t>(count), group.end(), 0U);
        at += count * step;
        pack_group(bytes, group, count);
    }
}

template <class Narrow> void widen(const char *from, std::span<std::uint32_t> to) {
    for (std::uint32_t &value : to) {
        Narrow narrow;
        std::memcpy(&narrow, from, sizeof narrow);
        from += sizeof narrow;
        value = narrow;
    }
}

// Takes a group from the front of `bytes`; false when it is none.
bool unpack_group(std::string_view &bytes, std::span<std::uint32_t> to) {
    if (bytes.empty())
        return false;
    const auto width = static_cast<unsigned char>(bytes.front());
    bytes.remove_prefix(1);
    if (bytes.size() / to.size() < width)
        return false;
    switch (width) {
    case 0:
        std::ranges::fill(to, 0U);
        break;
    case 1:
        widen<std::uint8_t>(bytes.data(), to);
        break;
    case 2:
        widen<std::uint16_t>(bytes.data(), to);
        break;
    case 4:
        widen<std::uint32_t>(bytes.data(), to);
        break;
    default:
        return false;
    }
    bytes.remove_prefix(width * to.size());
    return true;
}

// Whether `bytes` are that many spectra, and nothing else.
bool unpack(std::string_view bytes, std::size_t spectra, std::size_t channels,
            std::vector<std::uint32_t> &counts) {
    const std::size_t groups = (channels + group_counts - 1) / group_counts;
    if (bytes.size() / groups < spectra)
        return false;
    counts.resize(spectra * channels);
    std::span<std::uint32_t> rest(counts);
    for (std::size_t spectrum = 0; spectrum < spectra; ++spectrum)
        for (std::size_t done = 0; done < channels; done += group_counts) {
            const std::size_t count = std::min(group_counts, channels - done);
            if (!unpack_group(bytes, rest.first(count)))
                return false;
            rest = rest.subspan(count);
        }
    return bytes.empty();
}

void put_spectrum(std::string &bytes, const peak_spectra &spectra, const std::byte *at) {
    const auto element = static_cast<std::size_t>(element_size(spectra.type)),
               channels = static_cast<std::size_t>(spectra.channels);
    if (spectra.type == el_long)
        return pack(bytes, at, spectra.energy_step, channels);
    for (std::size_t channel = 0; channel < channels; ++channel, at += spectra.energy_step)
        bytes.append(reinterpret_cast<const char *>(at), element);
}

} // namespace

std::size_t fit_block_bytes(const peak_spectra &spectra, const fit_box &box, int neighbours) {
    const fit_box all = with_neighbours(spectra, box, neighbours);
    const auto elements = product({spectra.channels, all.nq(), all.ns()}, fit_most_bytes);
    return elements ? sizeof(block_record) + *elements * static_cast<std::size_t>(element_size(spectra.type))
                    : fit_most_bytes + 1;
}

std::string fit_encode_block(std::uint64_t id, int number, const peak_spectra &spectra, const fit_box &box,
                             int neighbours) {
    const fit_box all = with_neighbours(spectra, box, neighbours);
    block_record record{
        fit_head_of(fit_kind::block, 0, id), number, all.nq(), all.ns(), box.q1 - all.q1, box.q2 - all.q1, 0};
    std::string bytes;
    fit_put(bytes, record);
    for (int s = all.s1; s <= all.s2; ++s)
        for (int q = all.q1; q <= all.q2; ++q)
            put_spectrum(bytes, spectra,
                         spectra.first + static_cast<std::size_t>(q) * spectra.q_step +
                             static_cast<std::size_t>(s) * spectra.s_step);
    record.head.bytes = bytes.size();
    std::memcpy(bytes.data(), &record, sizeof record);
    return bytes;
}

std::optional<fit_block> fit_decode_block(std::string_view bytes, const fit_job &job,
                                          std::vector<std::uint32_t> &counts, std::string &cause) {
    const auto record = fit_take<block_record>(bytes, fit_kind::block, job.id, cause);
    if (!record)
        return std::nullopt;
    const auto element = static_cast<std::size_t>(element_size(job.type));
    const auto elements = product({job.channels, record->nq, record->ns}, fit_most_bytes / element);
    if (record->number < 0 || !elements)
        return fit_refuse(cause, "its spectra are not as many as it says");
    if (record->q1 < 0 || record->q1 > record->q2 || record->q2 >= record->nq)
        return fit_refuse(cause, "its points lie outside its spectra");
    if (!product({record->q2 - record->q1 + 1, record->ns}, fit_most_points))
        return fit_refuse(cause, "its points are too many");
    const auto channels = static_cast<std::size_t>(job.channels);
    const std::string_view body = bytes.substr(sizeof *record);
    const bool packed = job.type == el_long;
    if (packed ? !unpack(body, *elements / channels, channels, counts) : body.size() != *elements * element)
        return fit_refuse(cause, "its spectra are not as many as it says");
    const auto *first =
        reinterpret_cast<const std::byte *>(packed ? static_cast<const void *>(counts.data()) : body.data());
    const std::size_t spectrum = element * channels;
    return fit_block{record->number,
                     {first, job.type, element, spectrum, spectrum * static_cast<std::size_t>(record->nq),
                      job.channels, record->nq, record->ns},
                     record->q1,
                     record->q2};
}

} // namespace kestrel::stream
