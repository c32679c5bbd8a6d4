// display: what pages are told in JSON: the modules, the server's words, announcements.
#pragma once

#include "display/announced.h"
#include "display/modules_seen.h"
#include "display/server_watch.h"

#include <string>
#include <string_view>
#include <vector>

namespace kestrel::display {

// Text from outside in a JSON text, in its quotes; bytes that are no UTF-8 become "?".
std::string json_quoted(std::string_view text);

std::string json_modules(const std::vector<seen_module> &modules);
std::string json_server(const server_words &words);
std::string json_announcements(const std::vector<announcement> &announcements);

} // namespace kestrel::display
