// parser: words compared without regard to case. Uses nothing.
#pragma once

#include <string_view>
#include <strings.h>

namespace kestrel {

inline bool same_word(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

inline bool begins_with_word(std::string_view text, std::string_view start) {
    return text.size() >= start.size() && same_word(text.substr(0, start.size()), start);
}

} // namespace kestrel
