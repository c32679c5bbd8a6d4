#include "stream/fits/message.h"

#include "maths/peak_fit/results.h"
#include "stream/fits/records.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace kestrel::stream {

namespace {

struct job_record {
    fit_head head;
    std::int32_t channels, type, first, last, single_pass, num_peaks;
    std::uint32_t constraints, tied; // a bit a peak
    double width;
    double energy[peak_fit_max_peaks], height[peak_fit_max_peaks];
};

struct result_record {
    fit_head head;
    std::int32_t number, points, values, microseconds;
};

struct point_record {
    std::uint32_t status;
    std::uint8_t near_ends, high_at_ends;
    std::uint16_t unused;
};

static_assert(sizeof(job_record) == 24 + 32 + 17 * 8); // doubles have no unique representation
static_assert(!has_gaps<result_record> && !has_gaps<point_record>);

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
    job_record record{.head = fit_head_of(fit_kind::job, sizeof record, job.id),
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
    fit_put(bytes, record);
    return bytes;
}

std::optional<fit_job> fit_decode_job(std::string_view bytes, std::uint64_t id, std::string &cause) {
    const auto record = fit_take<job_record>(bytes, fit_kind::job, id, cause);
    if (!record)
        return std::nullopt;
    if (bytes.size() != sizeof *record || !channels_are_good(*record))
        return fit_refuse(cause, "its channels make no sense");
    if (!options_are_good(*record))
        return fit_refuse(cause, "its options make no sense");
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
    return lines_are_good(lines) ? std::optional(job) : fit_refuse(cause, "its lines make no sense");
}

// ---------------------------------------------------------------- result

std::string fit_encode_result(std::uint64_t id, const fit_result &result) {
    const std::size_t values = result.points.empty() ? 0 : result.points.front().values.size();
    const std::size_t size =
        sizeof(result_record) + result.points.size() * (sizeof(point_record) + values * sizeof(double));
    std::string bytes;
    bytes.reserve(size);
    fit_put(bytes, result_record{fit_head_of(fit_kind::result, size, id), result.number,
                                 static_cast<int>(result.points.size()), static_cast<int>(values),
                                 result.microseconds});
    for (const fit_values &point : result.points) {
        fit_put(bytes, point_record{static_cast<std::uint32_t>(point.status), point.near_ends,
                                    point.high_at_ends, 0});
        for (const double value : point.values)
            fit_put(bytes, value);
    }
    return bytes;
}

std::optional<fit_result> fit_decode_result(std::string_view bytes, std::uint64_t id, int number, int points,
                                            std::size_t values, std::string &cause) {
    const auto record = fit_take<result_record>(bytes, fit_kind::result, id, cause);
    if (!record)
        return std::nullopt;
    const std::size_t size = sizeof(point_record) + values * sizeof(double);
    if (record->number != number || record->points != points || record->values != static_cast<int>(values) ||
        bytes.size() != sizeof *record + static_cast<std::size_t>(points) * size)
        return fit_refuse(cause, "it is not of the block's points");
    if (record->microseconds < 0)
        return fit_refuse(cause, "its time is negative");
    fit_result result{number, record->microseconds, {}};
    result.points.reserve(static_cast<std::size_t>(points));
    for (const char *at = bytes.data() + sizeof *record; at != bytes.data() + bytes.size(); at += size) {
        point_record from;
        std::memcpy(&from, at, sizeof from);
        if (from.status > static_cast<std::uint32_t>(peak_fit_status::failed) || from.near_ends > 1 ||
            from.high_at_ends > 1)
            return fit_refuse(cause, "a point is neither fitted nor failed");
        fit_values point{static_cast<peak_fit_status>(from.status), from.near_ends != 0,
                         from.high_at_ends != 0, std::vector<double>(values)};
        std::memcpy(point.values.data(), at + sizeof from, values * sizeof(double));
        if (!is_good(point))
            return fit_refuse(cause, "a fitted value is not a finite number");
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
    for (const char byte : fit_encode_result(fit_version, {0, 0, {point}}))
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    return hash;
}

} // namespace kestrel::stream
