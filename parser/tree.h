// parser: the command tree. Every room contributes tables of these rows; the program's root table ties them
// together and is given to the interpreter at start. The rows are constant but for the compiled format.
#pragma once

#include "parser/handler.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kestrel {

enum _pt_t : int { PT_TYPE_COMMAND, PT_TYPE_SUBTREE, PT_TYPE_END, PT_TYPE_ROW };

// A compiled argument format.
struct _pt_args {
    int nr_args = 0;
    int stack_size = 0; // bytes of the converted positional arguments
    int nr_strings = 0;
    int opt_start = 0; // index of the first optional argument, nr_args when none
    std::string type;  // 'd', 'g', 'f', 's' or 'v' an argument
    int nr_quals = 0;
    std::vector<std::string> name;                           // qualifier words
    std::string qtype;                                       // '\0', 'd', 'g', 'f' or 's' a qualifier
    char return_type = 0;                                    // 'd', 'g', 'f', 's', 'q' or 0
    mutable std::atomic<std::uint64_t> runs{0}, failures{0}; // of the command; any thread reads them
};

struct PARSE_TREE {
    _pt_t type = PT_TYPE_END;
    const PARSE_TREE *subtree = nullptr; // the table of a subtree; the row itself where it is another file's
    const char *name = "";
    const char *help = "";
    const char *arghelp = "";
    const char *raw_args = "";
    int cmd_flags = 0;
    mutable const _pt_args *args = nullptr; // compiled at the command's first use, kept for good
    pt_handler fn{};
    const char *file = "";
    int line = 0;
};

// Rows of a table. A row may stand beside its handler in another file, as a constinit object of its own:
//   constinit const PARSE_TREE table[] = {
//       pt_command<do_create>("create", "%s + %d = %d", "create a thing", "name/size"),
//       pt_row(row_remove),
//       pt_subtree("sub", sub_table, "prefix for sub functions"),
//       pt_end(),
//   };
// Where a row stands comes from builtins that gcc and clang share: clang 14 has no std::source_location.
template <auto Handler>
constexpr PARSE_TREE pt_command(const char *name, const char *format, const char *help, const char *arghelp,
                                const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {PT_TYPE_COMMAND,    nullptr, name, help, arghelp, format, 0, nullptr,
            pt_bind<Handler>(), file,    line};
}

constexpr PARSE_TREE pt_subtree(const char *name, const PARSE_TREE *table, const char *help,
                                const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {PT_TYPE_SUBTREE, table, name, help, "", "", 0, nullptr, {}, file, line};
}

constexpr PARSE_TREE pt_row(const PARSE_TREE &row) {
    return {PT_TYPE_ROW, &row};
}

constexpr PARSE_TREE pt_end() {
    return {};
}

// The commands and subtrees of a table, wherever their rows stand:  for (const PARSE_TREE &row : pt_rows(table))
class pt_rows {
  public:
    struct end_row {};
    class iterator {
      public:
        explicit iterator(const PARSE_TREE *at) : at_(at) {}
        const PARSE_TREE &operator*() const { return at_->type == PT_TYPE_ROW ? *at_->subtree : *at_; }
        iterator &operator++() {
            ++at_;
            return *this;
        }
        bool operator!=(end_row) const { return at_->type != PT_TYPE_END; }

      private:
        const PARSE_TREE *at_;
    };

    explicit pt_rows(const PARSE_TREE *table) : table_(table) {}
    iterator begin() const { return iterator(table_); }
    end_row end() const { return {}; }

  private:
    const PARSE_TREE *table_;
};

// Rows up to the end row.
std::size_t pt_size(const PARSE_TREE *table);

// The first row whose name is the whole word, in any case; null when there is none.
const PARSE_TREE *pt_find(const PARSE_TREE *table, std::string_view word);

// The root table; set once, before the first line is interpreted.
void pt_set_root(const PARSE_TREE *table);
const PARSE_TREE *pt_root();

} // namespace kestrel
