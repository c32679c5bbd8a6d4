// Variables: setting, listing, asking the user, and `eval`.
#include "parser/builtins.h"
#include "parser/call.h"
#include "parser/interpreter.h"
#include "parser/qualifiers.h"
#include "server/input.h"
#include "server/output.h"
#include "server/session.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format set_int_format("%s %d local = %d");
constexpr pt_format set_double_format("%s %g local = %d");
constexpr pt_format set_string_format("%s %s local = %d");
constexpr pt_format set_func_format("+ %s %s local hide = %d");
constexpr pt_format input_format("%s %s local int double string qualifier");

template <const pt_format &Format> bool is_global(const pt_qualifiers<Format> &q) {
    return !q.given("local");
}

int set_int(int quals, int cn, const char *name, int value) {
    const pt_qualifiers<set_int_format> q(quals);
    return set_int_variable(cn, name, value, is_global(q));
}

int set_double(int quals, int cn, const char *name, double value) {
    const pt_qualifiers<set_double_format> q(quals);
    return set_double_variable(cn, name, value, is_global(q));
}

int set_string(int quals, int cn, const char *name, const char *value) {
    const pt_qualifiers<set_string_format> q(quals);
    return set_string_variable(cn, name, value, is_global(q));
}

int set_qualifier(int quals, int cn, const char *name, const char *value) {
    const pt_qualifiers<set_string_format> q(quals);
    return set_string_variable(cn, name, value, is_global(q), vt_qualifier);
}

// Runs `function` as a command line and keeps its typed result.
int set_func(int quals, int cn, const char *name, const char *function) {
    const pt_qualifiers<set_func_format> q(quals);
    if (!name) {
        list_variables(cn);
        return 0;
    }
    if (!function) {
        sv_printf(cn, "! Need both a variable name and a function\n");
        return -1;
    }
    Variable result;
    result.type = vt_none;
    const int value = user_service_result(cn, function, &result, nullptr);
    if (result.type == vt_none || !sv_is_valid(cn))
        return value;
    if (set_variable(cn, name, result, is_global(q)) != 0)
        return -1;
    return q.given("hide") ? 0 : value;
}

// The value of an expression as the user typed it for `input`: a number, or nothing with a line to the
// session.
std::optional<double> typed_number(int cn, const char *line) {
    char *end = nullptr;
    const double value = std::strtod(line, &end);
    while (*end == ' ' || *end == '\t')
        ++end;
    if (end != line && *end == '\0')
        return value;
    sv_print(cn, std::string("! Cannot convert '") + line + "' to a number\n");
    return std::nullopt;
}

int store_typed(const pt_qualifiers<input_format> &q, int cn, const char *name, const char *line) {
    const bool global = is_global(q);
    if (q.given("qualifier"))
        return set_string_variable(cn, name, line, global, vt_qualifier);
    if (!q.given("int") && !q.given("double"))
        return set_string_variable(cn, name, line, global);
    const std::optional<double> value = typed_number(cn, line);
    if (!value)
        return -1;
    if (q.given("double"))
        return set_double_variable(cn, name, *value, global);
    if (!(*value > INT_MIN - 1.0 && *value < INT_MAX + 1.0)) {
        sv_print(cn, std::string("! '") + line + "' does not fit an integer\n");
        return -1;
    }
    return set_int_variable(cn, name, static_cast<int>(*value), global);
}

int input(int quals, int cn, const char *prompt, const char *name) {
    const pt_qualifiers<input_format> q(quals);
    sv_print(cn, prompt);
    char line[sv_line_max + 1];
    if (!sv_getline_top(cn, line, sizeof line))
        return -1;
    return store_typed(q, cn, name, line);
}

// ---------------------------------------------------------------- eval

enum class eval_op { add, sub, mult, div, mod, equal, not_equal };

constexpr pt_format eval_int_format("%d + %d add sub mult div mod equal not-equal = %d");
constexpr pt_qualifiers<eval_int_format>::choice<eval_op> int_operations[] = {
    {"add", eval_op::add},
    {"sub", eval_op::sub},
    {"mult", eval_op::mult},
    {"div", eval_op::div},
    {"mod", eval_op::mod},
    {"equal", eval_op::equal},
    {"not-equal", eval_op::not_equal},
};

constexpr pt_format eval_double_format("%g + %g add sub mult div = %g");
constexpr pt_qualifiers<eval_double_format>::choice<eval_op> double_operations[] = {
    {"add", eval_op::add}, {"sub", eval_op::sub}, {"mult", eval_op::mult}, {"div", eval_op::div}};

// True when the operation can be worked out with what is given; false after a line to the session. Nothing stands
// for several operations.
bool can_evaluate(int cn, std::optional<eval_op> op) {
    if (OptionalArgumentCount < 1)
        sv_printf(cn, "! Need Optional Argument for basic maths\n");
    else if (!op)
        sv_printf(cn, "! Can only do one off add/sub/mult/div/equal\n");
    else
        return true;
    return false;
}

int eval_division(int cn, eval_op op, int a, int b) {
    if (b == 0) {
        sv_printf(cn, "! Integer division by zero\n");
        return -1;
    }
    if (a == INT_MIN && b == -1) {
        sv_printf(cn, "! Integer quotient does not fit in 32 bits\n");
        return -1;
    }
    return op == eval_op::div ? a / b : a % b;
}

int eval_int(int quals, int cn, int a, int b) {
    const pt_qualifiers<eval_int_format> q(quals);
    if (q.none())
        return a;
    const std::optional<eval_op> op = q.only(int_operations);
    if (!can_evaluate(cn, op))
        return -1;
    const unsigned x = static_cast<unsigned>(a), y = static_cast<unsigned>(b);
    switch (*op) {
    case eval_op::add:
        return static_cast<int>(x + y);
    case eval_op::sub:
        return static_cast<int>(x - y);
    case eval_op::mult:
        return static_cast<int>(x * y);
    case eval_op::equal:
        return a == b;
    case eval_op::not_equal:
        return a != b;
    default:
        return eval_division(cn, *op, a, b);
    }
}

double eval_double(int quals, int cn, double a, double b) {
    const pt_qualifiers<eval_double_format> q(quals);
    if (q.none())
        return a;
    const std::optional<eval_op> op = q.only(double_operations);
    if (!can_evaluate(cn, op))
        return -1.0;
    switch (*op) {
    case eval_op::add:
        return a + b;
    case eval_op::sub:
        return a - b;
    case eval_op::mult:
        return a * b;
    default:
        return a / b;
    }
}

constexpr std::size_t eval_string_max = 999; // characters of the joined string
constexpr int eval_string_pieces = 8;

pt_string eval_string(int, int cn, const char *first, std::span<const pt_value> rest) {
    if (TotalArgumentCount > eval_string_pieces) {
        sv_printf(cn, "! Can only concatenate 8 strings at a time\n");
        return std::nullopt;
    }
    std::string joined;
    const auto join = [&joined](const std::string &piece) {
        if (joined.size() + piece.size() <= eval_string_max)
            joined += piece;
    };
    join(first);
    for (const pt_value &piece : rest)
        if (piece.type)
            join(piece.s);
    return joined;
}

pt_string eval_qualifier(int, int, const char *text) {
    return text;
}

constinit const PARSE_TREE eval_tree[] = {
    pt_command<eval_int>("int", eval_int_format, "Evaluate an integer",
                         "First integer/Second integer/Add/Subtract/Multiply/Divide/Remainder/1 if equal/"
                         "1 if not equal"),
    pt_command<eval_double>("double", eval_double_format, "Evaluate a double",
                            "First number/Second number/Add/Subtract/Multiply/Divide"),
    pt_command<eval_string>("string", "%s + %s %s %s %s %s %s %s = %s", "Join strings",
                            "First string/Next string/Next string/Next string/Next string/Next string/"
                            "Next string/Next string"),
    pt_command<eval_qualifier>("qualifier", "%s = %q", "Make a qualifier", "Qualifier word"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_set_func =
    pt_command<set_func>("set-func", set_func_format, "Set Variable 'name' from return code of 'function'",
                         "Variable name/Command line/Set local variable/Return 0 unless it failed");
constinit const PARSE_TREE row_set_int = pt_command<set_int>(
    "set-int", set_int_format, "Set variable to an integer", "Variable name/Value/Set local variable");
constinit const PARSE_TREE row_set_double = pt_command<set_double>(
    "set-double", set_double_format, "Set variable to an Double", "Variable name/Value/Set local variable");
constinit const PARSE_TREE row_set_string = pt_command<set_string>(
    "set-string", set_string_format, "Set variable to an string", "Variable name/Value/Set local variable");
constinit const PARSE_TREE row_set_qualifier =
    pt_command<set_qualifier>("set-qualifier", set_string_format, "Set variable to a Qualifier",
                              "Variable name/Value/Set local variable");
constinit const PARSE_TREE row_input =
    pt_command<input>("input", input_format, "Promt user to input a value",
                      "Prompt/Variable name/Set local variable/As integer/As double/As string/As qualifier");
constinit const PARSE_TREE row_eval =
    pt_subtree("eval", eval_tree, "Evaluate various types, for set command");

} // namespace kestrel
