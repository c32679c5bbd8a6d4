#include "instruments/timing/groups.h"

#include "server/session.h"

#include <algorithm>
#include <charconv>
#include <climits>

namespace kestrel {

int group_first_integer(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    const bool negative = text.starts_with('-');
    if (text.starts_with('+')) // from_chars knows none
        text.remove_prefix(1);
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc::result_out_of_range)
        return negative ? INT_MIN : INT_MAX;
    return value;
}

groups_read read_groups(const std::function<bool(std::string &line)> &next,
                        const std::function<bool(const std::string &line)> &hand_on) {
    groups_read read;
    for (std::string line; next(line);) {
        line.erase(line.find_last_not_of("\r\n") + 1);
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        if (line.size() > sv_line_max) {
            read.end = groups_end::too_long;
            return read;
        }
        if (!hand_on(line)) {
            read.end = groups_end::not_taken;
            return read;
        }
        if (group_first_integer(line) < 0)
            return read;
        if (read.group < INT_MAX)
            ++read.group;
        read.groups.push_back(std::move(line));
    }
    read.end = groups_end::run_out;
    return read;
}

} // namespace kestrel
