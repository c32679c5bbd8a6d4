// stream: a stream of the broker, read page by page.
#pragma once

#include "stream/entries.h"

#include <string>
#include <string_view>

namespace kestrel::stream {

// Whether the broker has said what there is; a refusal says nothing. A key of another type is none of ours.
inline bool has_said(const broker_value &reply) {
    const auto error = reply.error();
    return reply && (!error || error->starts_with("WRONGTYPE"));
}

inline std::size_t bytes_of_fields(const broker_value &fields) {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < fields.size(); ++i)
        bytes += fields.at(i).text().value_or("").size();
    return bytes;
}

// f(frame, fields) for each entry of a stream from a frame on; false when the broker does not say.
template <class F> bool for_entries(broker &b, const std::string &stream, std::uint64_t from, F f) {
    constexpr std::size_t entries_at_once = 1000;
    const std::string count = std::to_string(entries_at_once);
    for (;;) {
        const broker_reply page = b.command({"XRANGE", stream, entry_id(from), "+", "COUNT", count});
        if (!has_said(page))
            return false;
        for (std::size_t i = 0; i < page.size(); ++i) {
            const auto frame = frame_of_entry(page.at(i).at(0).text().value_or(""));
            if (!frame || *frame < from)
                return true; // no stream of ours
            f(*frame, page.at(i).at(1));
            from = *frame + 1;
        }
        if (page.size() < entries_at_once)
            return true;
    }
}

} // namespace kestrel::stream
