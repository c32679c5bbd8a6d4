// Variables: setting, listing, asking the user, and `eval`.
#include "parser/builtins.h"
#include "parser/call.h"
#include "parser/interpreter.h"
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

constexpr int qual_local = 1; // first keyword of the variable commands

bool is_global(int quals) {
    return !(quals & qual_local);
}

int set_int(int quals, int cn, const char *name, int value) {
    return set_int_variable(cn, name, value, is_global(quals));
}

int set_double(int quals, int cn, const char *name, double value) {
    return set_double_variable(cn, name, value, is_global(quals));
}

int set_string(int quals, int cn, const char *name, const char *value) {
    return set_string_variable(cn, name, value, is_global(quals));
}

int set_qualifier(int quals, int cn, const char *name, const char *value) {
    return set_string_variable(cn, name, value, is_global(quals), vt_qualifier);
}

// Runs `function` as a command line and keeps its typed result.
int set_func(int quals, int cn, const char *name, const char *function) {
    constexpr int qual_hide = 2;
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
    if (set_variable(cn, name, result, is_global(quals)) != 0)
        return -1;
    return quals & qual_hide ? 0 : value;
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

int store_typed(int quals, int cn, const char *name, const char *line) {
    constexpr int as_int = 2, as_double = 4, as_qualifier = 16;
    const bool global = is_global(quals);
    if (quals & as_qualifier)
        return set_string_variable(cn, name, line, global, vt_qualifier);
    if (!(quals & (as_int | as_double)))
        return set_string_variable(cn, name, line, global);
    const std::optional<double> value = typed_number(cn, line);
    if (!value)
        return -1;
    if (quals & as_double)
        return set_double_variable(cn, name, *value, global);
    if (!(*value > INT_MIN - 1.0 && *value < INT_MAX + 1.0)) {
        sv_print(cn, std::string("! '") + line + "' does not fit an integer\n");
        return -1;
    }
    return set_int_variable(cn, name, static_cast<int>(*value), global);
}

int input(int quals, int cn, const char *prompt, const char *name) {
    sv_print(cn, prompt);
    char line[sv_line_max + 1];
    if (!sv_getline_top(cn, line, sizeof line))
        return -1;
    return store_typed(quals, cn, name, line);
}

// ---------------------------------------------------------------- eval

enum eval_keyword : int {
    eval_add = 1,
    eval_sub = 2,
    eval_mult = 4,
    eval_div = 8,
    eval_mod = 16,
    eval_equal = 32,
    eval_not_equal = 64
};

// True when there is something to work out; false with `failed` when the line is wrong.
bool eval_operation(int quals, int cn, bool &failed) {
    failed = false;
    if (quals == 0)
        return false;
    if ((quals & (quals - 1)) != 0) {
        sv_printf(cn, "! Can only do one off add/sub/mult/div/equal\n");
        failed = true;
    } else if (OptionalArgumentCount < 1) {
        sv_printf(cn, "! Need Optional Argument for basic maths\n");
        failed = true;
    }
    return !failed;
}

int eval_division(int quals, int cn, int a, int b) {
    if (b == 0) {
        sv_printf(cn, "! Integer division by zero\n");
        return -1;
    }
    if (a == INT_MIN && b == -1) {
        sv_printf(cn, "! Integer quotient does not fit in 32 bits\n");
        return -1;
    }
    return quals == eval_div ? a / b : a % b;
}

int eval_int(int quals, int cn, int a, int b) {
    bool failed = false;
    if (!eval_operation(quals, cn, failed))
        return failed ? -1 : a;
    const unsigned x = static_cast<unsigned>(a), y = static_cast<unsigned>(b);
    switch (quals) {
    case eval_add:
        return static_cast<int>(x + y);
    case eval_sub:
        return static_cast<int>(x - y);
    case eval_mult:
        return static_cast<int>(x * y);
    case eval_equal:
        return a == b;
    case eval_not_equal:
        return a != b;
    default:
        return eval_division(quals, cn, a, b);
    }
}

double eval_double(int quals, int cn, double a, double b) {
    bool failed = false;
    if (!eval_operation(quals, cn, failed))
        return failed ? -1.0 : a;
    switch (quals) {
    case eval_add:
        return a + b;
    case eval_sub:
        return a - b;
    case eval_mult:
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

const PARSE_TREE eval_tree[] = {
    pt_command<eval_int>("int", "%d + %d add sub mult div mod equal not-equal = %d", "Evaluate an integer",
                         "First integer/Second integer/Add/Subtract/Multiply/Divide/Remainder/1 if equal/"
                         "1 if not equal"),
    pt_command<eval_double>("double", "%g + %g add sub mult div = %g", "Evaluate a double",
                            "First number/Second number/Add/Subtract/Multiply/Divide"),
    pt_command<eval_string>("string", "%s + %s %s %s %s %s %s %s = %s", "Join strings",
                            "First string/Next string/Next string/Next string/Next string/Next string/"
                            "Next string/Next string"),
    pt_command<eval_qualifier>("qualifier", "%s = %q", "Make a qualifier", "Qualifier word"),
    pt_end(),
};

} // namespace

const PARSE_TREE row_set_func = pt_command<set_func>(
    "set-func", "+ %s %s local hide = %d", "Set Variable 'name' from return code of 'function'",
    "Variable name/Command line/Set local variable/Return 0 unless it failed");
const PARSE_TREE row_set_int = pt_command<set_int>(
    "set-int", "%s %d local = %d", "Set variable to an integer", "Variable name/Value/Set local variable");
const PARSE_TREE row_set_double = pt_command<set_double>(
    "set-double", "%s %g local = %d", "Set variable to an Double", "Variable name/Value/Set local variable");
const PARSE_TREE row_set_string = pt_command<set_string>(
    "set-string", "%s %s local = %d", "Set variable to an string", "Variable name/Value/Set local variable");
const PARSE_TREE row_set_qualifier =
    pt_command<set_qualifier>("set-qualifier", "%s %s local = %d", "Set variable to a Qualifier",
                              "Variable name/Value/Set local variable");
const PARSE_TREE row_input =
    pt_command<input>("input", "%s %s local int double string qualifier", "Promt user to input a value",
                      "Prompt/Variable name/Set local variable/As integer/As double/As string/As qualifier");
const PARSE_TREE row_eval = pt_subtree("eval", eval_tree, "Evaluate various types, for set command");

} // namespace kestrel
