// stream/fits: how every message begins, and reading a record that may be anything. Private to the messages' files.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace kestrel::stream {

inline constexpr std::uint32_t fit_magic = 0x5449464b; // "KFIT" on a host of the usual byte order
inline constexpr std::uint16_t fit_version = 2;

enum class fit_kind : std::uint16_t { job = 1, block = 2, result = 3 };

struct fit_head {
    std::uint32_t magic;
    std::uint16_t version;
    fit_kind what;
    std::uint64_t bytes; // of the whole message
    std::uint64_t job;
};

inline fit_head fit_head_of(fit_kind what, std::size_t bytes, std::uint64_t id) {
    return {fit_magic, fit_version, what, bytes, id};
}

template <class Record> constexpr bool has_gaps = !std::has_unique_object_representations_v<Record>;
static_assert(!has_gaps<fit_head> && sizeof(fit_head) == 24);

template <class Record> void fit_put(std::string &bytes, const Record &record) {
    const auto *from = reinterpret_cast<const char *>(&record);
    bytes.append(from, sizeof record);
}

inline std::nullopt_t fit_refuse(std::string &cause, std::string why) {
    cause = std::move(why);
    return std::nullopt;
}

// The record at the front of a message, when it is one of that kind for that job, and as long as it says.
template <class Record>
std::optional<Record> fit_take(std::string_view bytes, fit_kind what, std::uint64_t id, std::string &cause) {
    Record record;
    if (bytes.size() < sizeof record)
        return fit_refuse(cause, std::to_string(bytes.size()) + " bytes are too few");
    std::memcpy(&record, bytes.data(), sizeof record);
    const fit_head &head = record.head;
    if (head.magic != fit_magic)
        return fit_refuse(cause, "it is no message of ours, or one of a host with another byte order");
    if (head.version != fit_version)
        return fit_refuse(cause, "its version is " + std::to_string(head.version) + ", not " +
                                     std::to_string(fit_version));
    if (head.what != what)
        return fit_refuse(cause, "it is a message of another kind");
    if (head.bytes != bytes.size())
        return fit_refuse(cause, "it has " + std::to_string(bytes.size()) + " bytes and should have " +
                                     std::to_string(head.bytes));
    if (head.job != id)
        return fit_refuse(cause, "it is of another job");
    return record;
}

} // namespace kestrel::stream
