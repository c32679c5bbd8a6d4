#include "parser/tree.h"

#include "parser/text.h"

namespace kestrel {

namespace {
const PARSE_TREE empty_tree[] = {pt_end()};
const PARSE_TREE *main_parse_tree = empty_tree;
} // namespace

std::size_t pt_size(const PARSE_TREE *table) {
    std::size_t size = 0;
    while (table[size].type != PT_TYPE_END)
        ++size;
    return size;
}

const PARSE_TREE *pt_find(const PARSE_TREE *table, std::string_view word) {
    for (const PARSE_TREE *row = table; row->type != PT_TYPE_END; ++row)
        if (same_word(row->name, word))
            return row;
    return nullptr;
}

void pt_set_root(const PARSE_TREE *table) {
    main_parse_tree = table;
}
const PARSE_TREE *pt_root() {
    return main_parse_tree;
}

} // namespace kestrel
