// parser: expressions, compiled once to a small stack program and run as often as the line is.
//
// Compiling looks at the text only; running reads and sets variables and reports to the session. There is no
// recursion at run time, and the parser's is bounded, so that no text can exhaust the stack.
#pragma once

#include "parser/text.h"
#include "parser/value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

enum class op : std::uint8_t {
    push_int,
    push_double,
    push_string,
    load,
    load_or_cast, // in parentheses before "-", where a cast may be meant
    store,
    add,
    sub,
    mult,
    div,
    shl,
    shr,
    lt,
    gt,
    le,
    ge,
    eq,
    ne,
    bit_and,
    bit_xor,
    bit_or,
    log_and,
    log_or,
    negate,
    complement,
    invert,
    cast,         // a = value_type
    cast_format,  // to a string; names the format
    bad_cast,     // names the cast word
    call,         // names the function
    jump,         // a = target
    jump_if_zero, // a = target; takes the control of "?:" from the stack
};

inline constexpr std::size_t short_integer_max = 9; // decimal digits that always fit in 32 bits

struct instruction {
    op code;
    std::int32_t a; // a value or a target
    std::int32_t
        at; // where in the line a string, name or format stands, or the few decimal digits of a value
    std::int32_t length; // of that, else 0
    double d;
};

// Views of what was compiled and of the line that it was compiled from.
struct program {
    std::string_view line;
    std::span<const instruction> code;

    // The string, name or format of an instruction.
    std::string_view text(const instruction &i) const {
        return line.substr(static_cast<std::size_t>(i.at), static_cast<std::size_t>(i.length));
    }
    // Whether it always has the same value, and does nothing else.
    bool is_constant() const;
};

inline constexpr int expression_depth_max = 200; // parentheses, casts, calls, unary operators, ...

// Compiles the expression that starts at `at` (not blank), appends its code, and moves `at` behind it. On a syntax
// error returns false with the parser's message.
bool expression_compile(std::string_view line, std::size_t &at, std::vector<instruction> &out,
                        std::string &message);

// The value of a program of integers that nothing can go wrong with, as most are: without types, and so much
// faster. Nothing for any other, of which nothing has been done then.
std::optional<int> expression_run_integers(const program &p);

// Runs any; an error prints its "!" line to the session and gives a value of type pe_error.
PE_Value expression_run(int cn, const program &p);

// A printable form for tests: one instruction a word.
std::string expression_dump(const program &p);

// Characters of a variable name, behind "%" (digits may come first) and bare.
constexpr bool is_name_char(char c) {
    return is_kind(c, kind_name);
}
constexpr bool is_name_start(char c) {
    return is_kind(c, kind_name_start);
}

} // namespace kestrel
