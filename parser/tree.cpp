#include "parser/tree.h"

#include "parser/text.h"

#include <array>
#include <cstdint>

namespace kestrel {

namespace {
constinit const PARSE_TREE empty_tree[] = {pt_end()};
const PARSE_TREE *main_parse_tree = empty_tree;

// As same_word, without looking for the name's end first.
bool is_named(const PARSE_TREE &row, std::string_view word) {
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (row.name[i] == '\0' || lower_case(row.name[i]) != lower_case(word[i]))
            return false;
    }
    return row.name[word.size()] == '\0';
}

// What was found before, by where the word and the table send it.
struct found {
    const PARSE_TREE *table = nullptr;
    const PARSE_TREE *row = nullptr;
    std::string_view name; // the row's

    // As it was written most often: in the same case.
    bool is(const PARSE_TREE *in, std::string_view word) const { return table == in && name == word; }
};
std::array<found, 256> found_before;

found &place_of(const PARSE_TREE *table, std::string_view word) {
    std::size_t hash = reinterpret_cast<std::uintptr_t>(table) >> 5;
    for (const char c : word)
        hash = hash * 31 + static_cast<unsigned char>(c);
    return found_before[hash % found_before.size()];
}
} // namespace

std::size_t pt_size(const PARSE_TREE *table) {
    std::size_t size = 0;
    for ([[maybe_unused]] const PARSE_TREE &row : pt_rows(table))
        ++size;
    return size;
}

const PARSE_TREE *pt_find(const PARSE_TREE *table, std::string_view word) {
    found &known = place_of(table, word);
    if (known.is(table, word))
        return known.row;
    for (const PARSE_TREE &row : pt_rows(table)) {
        if (is_named(row, word)) {
            known = {table, &row, row.name};
            return &row;
        }
    }
    return nullptr;
}

void pt_set_root(const PARSE_TREE *table) {
    main_parse_tree = table;
}
const PARSE_TREE *pt_root() {
    return main_parse_tree;
}

} // namespace kestrel
