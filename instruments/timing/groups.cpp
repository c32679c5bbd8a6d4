#include "instruments/timing/groups.h"

#include "server/session.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <utility>

namespace kestrel {

int group_first_integer(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    const bool negative = text.starts_with('-');
    if (text.starts_with('+') && !text.starts_with("+-")) // from_chars knows no plus
        text.remove_prefix(1);
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range)
        return negative ? INT_MIN : INT_MAX;
    return value;
}

groups_read read_groups(const std::function<bool(std::string &line)> &next,
                        const std::function<void(const std::string &line)> &hand_on) {
    groups_read read;
    for (std::string line; next(line);) {
        line.erase(line.find_last_not_of("\r\n") + 1);
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        const bool closes = group_first_integer(line) < 0;
        if (line.size() > sv_line_max)
            read.end = groups_end::too_long;
        if (read.end == groups_end::too_long) {
            if (closes)
                return read;
            continue;
        }
        hand_on(line);
        if (closes) {
            read.end = groups_end::closed;
            return read;
        }
        read.groups.push_back(std::move(line));
        ++read.group;
    }
    return read;
}

} // namespace kestrel
