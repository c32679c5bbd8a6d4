// stream/fits: what a command and its workers send each other, as bytes: a job (what is looked for), blocks of its
// spectra, and what was fitted. Pure: no broker, no session.
//
// Each message is a record of fixed layout in this machine's byte order, whose first number says so, and behind it the
// elements or values that the record counts. What is read is hostile until every number in it has been checked.
#pragma once

#include "maths/peak_fit/point.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::stream {

inline constexpr std::size_t fit_most_bytes = std::size_t{256} << 20; // of a message
inline constexpr int fit_most_points = 4096;                          // of a block

// Points q1..q2 along the scan axis, for s1..s2 of the second one.
struct fit_box {
    int q1 = 0, q2 = 0, s1 = 0, s2 = 0;
    int nq() const { return q2 - q1 + 1; }
    int ns() const { return s2 - s1 + 1; }
    int points() const { return nq() * ns(); }
};

struct fit_job {
    std::uint64_t id = 0;
    peak_fit_request request; // its lines, channels and constraints
    int channels = 0;
    int type = 0; // of an element: long, float or double
};

// Points q1..q2 of the spectra, all s; the others are neighbours. The bytes are the message's, not aligned, or the
// counts' that were unpacked.
struct fit_block {
    int number = 0;
    peak_spectra spectra;
    int q1 = 0, q2 = 0;
};

struct fit_values {
    peak_fit_status status = peak_fit_status::failed;
    bool near_ends = false, high_at_ends = false;
    std::vector<double> values; // one a label
};
struct fit_result {
    int number = 0;                 // the block's
    int microseconds = 0;           // that its fits took
    std::vector<fit_values> points; // q fastest
};

std::string fit_encode_job(const fit_job &job);
std::optional<fit_job> fit_decode_job(std::string_view bytes, std::uint64_t id, std::string &cause);

// What the block's spectra take at a worker, which may be too much to be sent; counts are packed on their way.
std::size_t fit_block_bytes(const peak_spectra &spectra, const fit_box &box, int neighbours);
// A box of the spectra, with as many neighbours on each side as there are, at most `neighbours`.
std::string fit_encode_block(std::uint64_t id, int number, const peak_spectra &spectra, const fit_box &box,
                             int neighbours);
// `counts` is where they are unpacked to, and stay.
std::optional<fit_block> fit_decode_block(std::string_view bytes, const fit_job &job,
                                          std::vector<std::uint32_t> &counts, std::string &cause);

std::string fit_encode_result(std::uint64_t id, const fit_result &result);
// Of a block with that many points, and that many values a point.
std::optional<fit_result> fit_decode_result(std::string_view bytes, std::uint64_t id, int number, int points,
                                            std::size_t values, std::string &cause);

// A job's number as keys have it: 16 hexadecimal digits.
std::string fit_id_text(std::uint64_t id);
std::optional<std::uint64_t> fit_id_of(std::string_view text);

// What the fit of a made-up spectrum comes to here. Only programs that share it give the same bits.
std::uint64_t fit_fingerprint();

} // namespace kestrel::stream
