#include "parser/help.h"
#include "parser/text.h"

namespace kestrel {

namespace {

// The table that the words before the partial one lead to; null when they reach a command or nothing.
const PARSE_TREE *walk_words(std::string_view words) {
    const PARSE_TREE *table = pt_root();
    for (;;) {
        const std::size_t start = words.find_first_not_of(" \t");
        if (start == std::string_view::npos)
            return table;
        words.remove_prefix(start);
        const std::string_view word = words.substr(0, words.find_first_of(" \t"));
        words.remove_prefix(word.size());
        const PARSE_TREE *entry = pt_find(table, word);
        if (!entry || entry->type != PT_TYPE_SUBTREE)
            return nullptr;
        table = entry->subtree;
    }
}

} // namespace

std::vector<std::string> user_sv_ln_completion(std::string_view line) {
    const std::size_t blank = line.find_last_of(" \t");
    const std::size_t start = blank == std::string_view::npos ? 0 : blank + 1;
    const std::string_view partial = line.substr(start);
    std::vector<std::string> candidates;
    const PARSE_TREE *table = walk_words(line.substr(0, start));
    if (!table)
        return candidates;
    for (const PARSE_TREE &row : pt_rows(table))
        if (begins_with_word(row.name, partial))
            candidates.push_back(std::string(line.substr(0, start)) + row.name);
    return candidates;
}

} // namespace kestrel
