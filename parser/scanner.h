// parser: a line cut into items. Each item is a whole expression written without blanks (strings may hold
// them), compiled when it is first asked for and kept with the line, so that a line that runs again is not
// read again.
#pragma once

#include "parser/expression.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// What an item is when it is evaluated.
enum class token_kind : int {
    unexpected = 1,
    integer,
    real,
    identifier,
    help,
    string,
    end_of_line,
    end_of_input,
    undefined_variable,
};

struct token {
    token_kind kind = token_kind::unexpected;
    int ScannedInt = 0;
    double ScannedDouble = 0.0;
    std::string ScannedString;    // a string's value; an undefined variable's name
    std::string_view ScannedId;   // a word, or the value of a qualifier variable (held by ScannedString)
    bool qualifier_value = false; // an identifier that was the value of a qualifier variable
    std::size_t ScannerInputPosn = 0;
};

// A line and what is known of it. Items hold views of its text, so it never moves.
class scanned_line {
  public:
    explicit scanned_line(std::string_view line = {}) : text_(line) {}
    scanned_line(const scanned_line &) = delete;
    scanned_line &operator=(const scanned_line &) = delete;

    std::string_view text() const { return text_; }

    // Becomes that line if what is known of this one is known of it, too: when they differ in digits of integers and inside
    // of strings only, as the lines of a control program do.
    bool becomes(std::string_view line);

    // Becomes that line in any case. Of this one only the memory stays then, unless it is much.
    void assign(std::string_view line);

    // Evaluates item number `index` (0 based); items are asked for in order, each compiled once.
    void scan(int cn, std::size_t index, token &out);

    // The command that the first words name, when a run has found it, and the index of the item after them.
    const struct PARSE_TREE *command = nullptr;
    std::size_t first_argument = 0;

  private:
    enum class item_kind { word, help, end, string, integer, variable, expression, bad };
    struct item {
        item_kind kind = item_kind::end;
        std::size_t position = 0;
        std::string_view text; // of a word or string; a variable's name
        int value = 0;         // of an integer
        std::size_t code = 0, code_end = 0;
    };
    bool differs_in_constants(std::string_view line, std::size_t at) const;
    void take_constants(std::string_view line);
    void read_item();
    bool take_word(item &next);
    void take_expression(item &next);
    program program_of(const item &i) const;
    void evaluate(int cn, item &i, token &out);

    std::string text_;
    std::vector<item> items_;
    std::vector<instruction> code_; // of all items
    std::string message_;           // of a bad item, which nobody reads past
    std::size_t at_ = 0;
};

} // namespace kestrel
