// server: the command logs, and what they may show.
#include "server/output.h"

#include <cctype>

namespace kestrel {

std::FILE *log_file = nullptr;
std::FILE *vlog_file = nullptr;

namespace {

constexpr std::string_view secret_word = "password";

bool is_quote(char c) {
    return c == '\'' || c == '"';
}
bool is_word(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool secret_word_at(std::string_view line, std::size_t at) {
    if (line.size() - at < secret_word.size() || (at > 0 && is_word(line[at - 1])))
        return false;
    for (std::size_t i = 0; i < secret_word.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(line[at + i])) != secret_word[i])
            return false;
    }
    const std::size_t end = at + secret_word.size();
    return end == line.size() || !is_word(line[end]);
}

// Masks what stands in quotes up to the first blank outside them, from the argument that begins at or after
// `at`; returns where it ends.
std::size_t mask_argument(std::string &line, std::size_t at) {
    while (at < line.size() && (line[at] == ' ' || line[at] == '\t' || line[at] == '='))
        ++at;
    char quote = 0;
    for (; at < line.size(); ++at) {
        char &c = line[at];
        if (quote == 0) {
            if (c == ' ' || c == '\t')
                break;
            if (is_quote(c))
                quote = c;
        } else if (c == quote) {
            quote = 0;
        } else if (c != '\n') {
            c = '*';
        }
    }
    return at;
}

} // namespace

std::string sv_masked(std::string_view line) {
    std::string shown(line);
    for (std::size_t at = 0; at + secret_word.size() <= shown.size();) {
        if (!secret_word_at(shown, at)) {
            ++at;
            continue;
        }
        std::size_t next = at + secret_word.size();
        if (at > 0 && next < shown.size() && is_quote(shown[next]) && shown[next] == shown[at - 1])
            ++next; // the word itself stands in quotes
        at = mask_argument(shown, next);
    }
    return shown;
}

} // namespace kestrel
