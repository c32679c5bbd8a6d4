// parser: expressions, compiled once to a small stack program and run as often as the line is.
//
// Compiling looks at the text only; running reads and sets variables and reports to the session. There is no
// recursion at run time, and the parser's is bounded, so that no text can exhaust the stack.
#pragma once

#include "parser/text.h"
#include "parser/value.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

enum class op : std::uint8_t {
    push_int,
    push_double,
    push_string,
    load, // a = index of the name, b = 1: in parentheses before "-", where a cast may be meant
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
    cast,         // a = value_type, b = 1 + index of the format string, 0 without one
    bad_cast,     // a = index of the cast word
    call,         // a = index of the function's name
    jump,         // a = target
    jump_if_zero, // a = target; takes the control of "?:" from the stack
};

struct instruction {
    op code;
    std::int32_t a = 0;
    std::int32_t b = 0;
    double d = 0.0;
};

struct program {
    std::vector<instruction> code;
    std::vector<std::string> strings; // names, string constants, formats

    // The name of the variable, when the whole expression is one variable; else empty.
    std::string_view single_variable() const;
    // Whether it always has the same value, and does nothing else.
    bool is_constant() const;
    // The text, when the whole expression is one string constant; else null.
    const std::string *string_constant() const;
};

inline constexpr int expression_depth_max = 200; // parentheses, casts, calls, unary operators, ...

// Compiles the expression that starts at `at` (not blank) and moves `at` behind it. On a syntax error returns
// false with the parser's message.
bool expression_compile(std::string_view line, std::size_t &at, program &out, std::string &message);

// Runs it; an error prints its "!" line to the session and gives a value of type pe_error.
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
