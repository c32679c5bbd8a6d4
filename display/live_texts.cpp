#include "display/live_texts.h"

#include <algorithm>
#include <cstdio>

namespace kestrel::display {

namespace {

// Bytes of the UTF-8 character at the front, 0 where there is none.
std::size_t utf8_length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = first < 0x80                    ? 1
                               : first >= 0xc2 && first < 0xe0 ? 2
                               : first >= 0xe0 && first < 0xf0 ? 3
                                                               : 0;
    if (length == 0 || length > text.size())
        return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80)
            return 0;
    const auto second = length > 1 ? static_cast<unsigned char>(text[1]) : 0;
    const bool overlong = first == 0xe0 && second < 0xa0;
    const bool surrogate = first == 0xed && second >= 0xa0;
    return overlong || surrogate ? 0 : length;
}

std::string member(const char *name, std::string_view text) {
    return std::string("\"") + name + "\":" + json_quoted(text);
}

} // namespace

std::string json_quoted(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const char c = text.front();
        char escaped[8];
        if (length == 0) {
            out += '?';
        } else if (length == 1 &&
                   (static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\' || c == '<')) {
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return out + "\"";
}

std::string json_modules(const std::vector<seen_module> &modules) {
    std::string out = "{\"type\":\"modules\",\"modules\":[";
    for (const seen_module &m : modules) {
        out += out.back() == '[' ? "{" : ",{";
        out += member("name", m.name) + "," + member("title", m.title) + "," + member("x", m.x_label) + "," +
               member("y", m.y_label) + "," + member("t", m.t_label) + "," + member("z", m.z_label) +
               ",\"nx\":" + std::to_string(m.shape.num_x) + ",\"ny\":" + std::to_string(m.shape.num_y) +
               ",\"nt\":" + std::to_string(m.shape.num_t) + ",\"kind\":" + std::to_string(m.shape.data_type) +
               ",\"changed\":" + std::to_string(m.changed_ms) + ",\"labels\":[";
        for (const std::string &label : m.frame_labels)
            out += (out.back() == '[' ? "" : ",") + json_quoted(label);
        out += "]}";
    }
    return out + "]}";
}

std::string json_server(const server_words &words) {
    return std::string("{\"type\":\"server\",\"answers\":") + (words.answers ? "true" : "false") + "," +
           member("status", words.status) + "," + member("metrics", words.metrics) + "}";
}

std::string json_announcements(const std::vector<announcement> &announcements) {
    std::string out = "{\"type\":\"announced\",\"last\":[";
    for (const announcement &a : announcements) {
        out += out.back() == '[' ? "{" : ",{";
        out += "\"number\":" + std::to_string(a.number) + "," + member("module", a.module) + "," +
               member("how", a.how) + "}";
    }
    return out + "]}";
}

} // namespace kestrel::display
