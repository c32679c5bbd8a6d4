#include "stream/fits/message.h"

#include "maths/peak_fit/results.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <type_traits>

namespace kestrel::stream {

namespace {

constexpr std::uint32_t magic = 0x5449464b; // "KFIT" on a host of the usual byte order
constexpr std::uint16_t version = 1;

enum class kind : std::uint16_t { job = 1, block = 2, result = 3 };

struct head_record {
    std::uint32_t magic;
    std::uint16_t version;
    kind what;
    std::uint64_t bytes; // of the whole message
    std::uint64_t job;
};

struct job_record {
    head_record head;
    std::int32_t channels, type, first, last, single_pass, num_peaks;
    std::uint32_t constraints, tied; // a bit a peak
    double width;
    double energy[peak_fit_max_peaks], height[peak_fit_max_peaks];
};

struct block_record {
    head_record head;
    std::int32_t number, nq, ns, q1, q2, unused;
};

struct result_record {
    head_record head;
    std::int32_t number, points, values, microseconds;
};

struct point_record {
    std::uint32_t status;
    std::uint8_t near_ends, high_at_ends;
    std::uint16_t unused;
};

template <class Record> constexpr bool has_gaps = !std::has_unique_object_representations_v<Record>;
static_assert(!has_gaps<head_record> && sizeof(head_record) == 24);
static_assert(sizeof(job_record) == 24 + 32 + 17 * 8); // doubles have no unique representation
static_assert(!has_gaps<block_record> && !has_gaps<result_record> && !has_gaps<point_record>);

head_record head_of(kind what, std::size_t bytes, std::uint64_t id) {
    return {magic, version, what, bytes, id};
}

template <class Record> void put(std::string &bytes, const Record &record) {
    const auto *from = reinterpret_cast<const char *>(&record);
    bytes.append(from, sizeof record);
}

std::nullopt_t refuse(std::string &cause, std::string why) {
    cause = std::move(why);
    return std::nullopt;
}

// The record at the front of a message, when it is one of that kind for that job, and as long as it says.
template <class Record>
std::optional<Record> take(std::string_view bytes, kind what, std::uint64_t id, std::string &cause) {
    Record record;
    if (bytes.size() < sizeof record)
        return refuse(cause, std::to_string(bytes.size()) + " bytes are too few");
    std::memcpy(&record, bytes.data(), sizeof record);
    const head_record &head = record.head;
    if (head.magic != magic)
        return refuse(cause, "it is no message of ours, or one of a host with another byte order");
    if (head.version != version)
        return refuse(cause,
                      "its version is " + std::to_string(head.version) + ", not " + std::to_string(version));
    if (head.what != what)
        return refuse(cause, "it is a message of another kind");
    if (head.bytes != bytes.size())
        return refuse(cause, "it has " + std::to_string(bytes.size()) + " bytes and should have " +
                                 std::to_string(head.bytes));
    if (head.job != id)
        return refuse(cause, "it is of another job");
    return record;
}

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

bool is_energy(double value) {
    return value >= 0.0 && value <= 1e6; // as the command takes them
}

// A tied height is a ratio to the one before it.
bool lines_are_good(const peak_fit_lines &lines) {
    for (std::size_t i = 0; i < lines.energy.size(); ++i) {
        if (!is_energy(lines.energy[i]) || !is_energy(lines.height[i]))
            return false;
        if (lines.tied[i] && (i == 0 || !(lines.height[i - 1] > 0.0)))
            return false;
    }
    return true;
}

bool is_spectrum_type(int type) {
    return type == el_long || type == el_float || type == el_double;
}

bool channels_are_good(const job_record &r) {
    return r.channels > 0 && r.first >= 0 && r.first <= r.last && r.last < r.channels &&
           is_spectrum_type(r.type);
}

bool options_are_good(const job_record &r) {
    return r.width >= 0.0 && std::isfinite(r.width) && r.single_pass >= -1 &&
           r.single_pass < peak_fit_passes() &&
           (r.constraints & ~(peak_fit_no_lor | peak_fit_by_top_sum)) == 0 && r.num_peaks >= 1 &&
           r.num_peaks <= peak_fit_max_peaks;
}

// Along q, what a block has of the spectra: its points and their neighbours.
fit_box with_neighbours(const peak_spectra &spectra, const fit_box &box, int neighbours) {
    return {std::max(0, box.q1 - neighbours), std::min(spectra.nq - 1, box.q2 + neighbours), box.s1, box.s2};
}

// Totals of what could not be fitted may be anything: they are of whatever lay in the spectrum.
bool is_good(const fit_values &point) {
    return point.status != peak_fit_status::fitted ||
           std::all_of(point.values.begin(), point.values.end(),
                       [](double value) { return std::isfinite(value); });
}

} // namespace

// ---------------------------------------------------------------- job

std::string fit_encode_job(const fit_job &job) {
    const peak_fit_request &from = job.request;
    job_record record{.head = head_of(kind::job, sizeof record, job.id),
                      .channels = job.channels,
                      .type = job.type,
                      .first = from.first,
                      .last = from.last,
                      .single_pass = from.single_pass,
                      .num_peaks = from.lines.num_peaks,
                      .constraints = from.constraints,
                      .tied = 0,
                      .width = from.width,
                      .energy = {},
                      .height = {}};
    for (std::size_t i = 0; i < peak_fit_max_peaks; ++i) {
        record.energy[i] = from.lines.energy[i];
        record.height[i] = from.lines.height[i];
        record.tied |= from.lines.tied[i] ? 1U << i : 0U;
    }
    std::string bytes;
    put(bytes, record);
    return bytes;
}

std::optional<fit_job> fit_decode_job(std::string_view bytes, std::uint64_t id, std::string &cause) {
    const auto record = take<job_record>(bytes, kind::job, id, cause);
    if (!record)
        return std::nullopt;
    if (bytes.size() != sizeof *record || !channels_are_good(*record))
        return refuse(cause, "its channels make no sense");
    if (!options_are_good(*record))
        return refuse(cause, "its options make no sense");
    fit_job job{id, {}, record->channels, record->type};
    job.request.tell = false;
    job.request.single_pass = record->single_pass;
    job.request.constraints = record->constraints;
    job.request.first = record->first;
    job.request.last = record->last;
    job.request.width = record->width;
    peak_fit_lines &lines = job.request.lines;
    lines.num_peaks = record->num_peaks;
    for (std::size_t i = 0; i < peak_fit_max_peaks; ++i) {
        lines.energy[i] = record->energy[i];
        lines.height[i] = record->height[i];
        lines.tied[i] = (record->tied >> i & 1U) != 0;
    }
    return lines_are_good(lines) ? std::optional(job) : refuse(cause, "its lines make no sense");
}

// ---------------------------------------------------------------- block

std::size_t fit_block_bytes(const peak_spectra &spectra, const fit_box &box, int neighbours) {
    const fit_box all = with_neighbours(spectra, box, neighbours);
    const auto elements = product({spectra.channels, all.nq(), all.ns()}, fit_most_bytes);
    return elements ? sizeof(block_record) + *elements * static_cast<std::size_t>(element_size(spectra.type))
                    : fit_most_bytes + 1;
}

std::string fit_encode_block(std::uint64_t id, int number, const peak_spectra &spectra, const fit_box &box,
                             int neighbours) {
    const fit_box all = with_neighbours(spectra, box, neighbours);
    const std::size_t size = fit_block_bytes(spectra, box, neighbours);
    const auto element = static_cast<std::size_t>(element_size(spectra.type));
    std::string bytes;
    bytes.reserve(size);
    put(bytes, block_record{head_of(kind::block, size, id), number, all.nq(), all.ns(), box.q1 - all.q1,
                            box.q2 - all.q1, 0});
    for (int s = all.s1; s <= all.s2; ++s)
        for (int q = all.q1; q <= all.q2; ++q) {
            const std::byte *at = spectra.first + static_cast<std::size_t>(q) * spectra.q_step +
                                  static_cast<std::size_t>(s) * spectra.s_step;
            const auto channels = static_cast<std::size_t>(spectra.channels);
            if (spectra.energy_step == element) {
                bytes.append(reinterpret_cast<const char *>(at), channels * element);
                continue;
            }
            for (std::size_t channel = 0; channel < channels; ++channel, at += spectra.energy_step)
                bytes.append(reinterpret_cast<const char *>(at), element);
        }
    return bytes;
}

std::optional<fit_block> fit_decode_block(std::string_view bytes, const fit_job &job, std::string &cause) {
    const auto record = take<block_record>(bytes, kind::block, job.id, cause);
    if (!record)
        return std::nullopt;
    const auto element = static_cast<std::size_t>(element_size(job.type));
    const auto elements = product({job.channels, record->nq, record->ns}, fit_most_bytes / element);
    if (record->number < 0 || !elements || *elements * element != bytes.size() - sizeof *record)
        return refuse(cause, "its spectra are not as many as it says");
    if (record->q1 < 0 || record->q1 > record->q2 || record->q2 >= record->nq)
        return refuse(cause, "its points lie outside its spectra");
    if (!product({record->q2 - record->q1 + 1, record->ns}, fit_most_points))
        return refuse(cause, "its points are too many");
    const auto *first = reinterpret_cast<const std::byte *>(bytes.data() + sizeof *record);
    const std::size_t spectrum = element * static_cast<std::size_t>(job.channels);
    return fit_block{record->number,
                     {first, job.type, element, spectrum, spectrum * static_cast<std::size_t>(record->nq),
                      job.channels, record->nq, record->ns},
                     record->q1,
                     record->q2};
}

// ---------------------------------------------------------------- result

std::string fit_encode_result(std::uint64_t id, const fit_result &result) {
    const std::size_t values = result.points.empty() ? 0 : result.points.front().values.size();
    const std::size_t size =
        sizeof(result_record) + result.points.size() * (sizeof(point_record) + values * sizeof(double));
    std::string bytes;
    bytes.reserve(size);
    put(bytes,
        result_record{head_of(kind::result, size, id), result.number, static_cast<int>(result.points.size()),
                      static_cast<int>(values), result.microseconds});
    for (const fit_values &point : result.points) {
        put(bytes,
            point_record{static_cast<std::uint32_t>(point.status), point.near_ends, point.high_at_ends, 0});
        for (const double value : point.values)
            put(bytes, value);
    }
    return bytes;
}

std::optional<fit_result> fit_decode_result(std::string_view bytes, std::uint64_t id, int number, int points,
                                            std::size_t values, std::string &cause) {
    const auto record = take<result_record>(bytes, kind::result, id, cause);
    if (!record)
        return std::nullopt;
    const std::size_t size = sizeof(point_record) + values * sizeof(double);
    if (record->number != number || record->points != points || record->values != static_cast<int>(values) ||
        bytes.size() != sizeof *record + static_cast<std::size_t>(points) * size)
        return refuse(cause, "it is not of the block's points");
    if (record->microseconds < 0)
        return refuse(cause, "its time is negative");
    fit_result result{number, record->microseconds, {}};
    result.points.reserve(static_cast<std::size_t>(points));
    for (const char *at = bytes.data() + sizeof *record; at != bytes.data() + bytes.size(); at += size) {
        point_record from;
        std::memcpy(&from, at, sizeof from);
        if (from.status > static_cast<std::uint32_t>(peak_fit_status::failed) || from.near_ends > 1 ||
            from.high_at_ends > 1)
            return refuse(cause, "a point is neither fitted nor failed");
        fit_values point{static_cast<peak_fit_status>(from.status), from.near_ends != 0,
                         from.high_at_ends != 0, std::vector<double>(values)};
        std::memcpy(point.values.data(), at + sizeof from, values * sizeof(double));
        if (!is_good(point))
            return refuse(cause, "a fitted value is not a finite number");
        result.points.push_back(std::move(point));
    }
    return result;
}

// ---------------------------------------------------------------- names

std::string fit_id_text(std::uint64_t id) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(id));
    return text;
}

std::optional<std::uint64_t> fit_id_of(std::string_view text) {
    std::uint64_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, 16);
    const bool whole = text.size() == 16 && error == std::errc() && end == text.data() + text.size();
    return whole ? std::optional(id) : std::nullopt;
}

// FNV-1a over the version and the values of one fit, in which exp(), sums, the solver and the error bars take part.
std::uint64_t fit_fingerprint() {
    constexpr int channels = 256;
    const peak_fit_peak_t peaks[] = {{120.3, 4000.0, 4.0, 7.0, 0.15}, {132.45, 600.0, 4.2, 7.3, 0.15}};
    std::vector<double> spectrum(channels);
    for (int x = 0; x < channels; ++x)
        spectrum[static_cast<std::size_t>(x)] = std::floor(peak_fit_calc_point(peaks, x) + (x * 7919 % 23));
    peak_fit_request request;
    request.lines = *peak_fit_find_element("fe55");
    request.last = channels - 1;
    request.tell = false;
    const fit_values point{peak_fit_status::fitted, false, false,
                           peak_fit_values(peak_fit_solver().peak_fit_run_solver(request, 0, spectrum),
                                           request.lines, spectrum)};
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char byte : fit_encode_result(version, {0, 0, {point}}))
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    return hash;
}

} // namespace kestrel::stream
