#include "parser/expression.h"
#include "parser/functions.h"
#include "parser/text_format.h"
#include "parser/variables.h"

#include "server/output.h"

#include <array>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

namespace {

int wrap(std::uint32_t bits) {
    return static_cast<int>(bits);
}
std::uint32_t bits(int value) {
    return static_cast<std::uint32_t>(value);
}

bool fits_int(double value) {
    return value > INT_MIN - 1.0 && value < INT_MAX + 1.0;
}

PE_Value type_error(int cn, const char *what, const PE_Value &a, const PE_Value &b) {
    sv_printf(cn, "! Cannot %s type %d and %d\n", what, a.type, b.type);
    return {};
}

template <class T> bool compare(op code, const T &x, const T &y) {
    switch (code) {
    case op::lt:
        return x < y;
    case op::gt:
        return x > y;
    case op::le:
        return x <= y;
    case op::ge:
        return x >= y;
    case op::eq:
        return x == y;
    default:
        return x != y;
    }
}

bool divide(int cn, int a, int b, int &out) {
    if (b == 0) {
        sv_printf(cn, "! Integer division by zero\n");
        return false;
    }
    if (a == INT_MIN && b == -1) {
        sv_printf(cn, "! Integer quotient does not fit in 32 bits\n");
        return false;
    }
    out = a / b;
    return true;
}

bool shift(int cn, op code, int a, int count, int &out) {
    if (count < 0 || count > 31) {
        sv_printf(cn, "! Shift count should be 0..31 not %d\n", count);
        return false;
    }
    out = code == op::shl ? wrap(bits(a) << count) : a >> count;
    return true;
}

bool can_fail(op code) {
    return code == op::div || code == op::shl || code == op::shr;
}

// An operator on two integers that cannot fail.
int safe_integers(op code, int a, int b) {
    switch (code) {
    case op::add:
        return wrap(bits(a) + bits(b));
    case op::sub:
        return wrap(bits(a) - bits(b));
    case op::mult:
        return wrap(bits(a) * bits(b));
    case op::bit_and:
        return a & b;
    case op::bit_xor:
        return a ^ b;
    case op::bit_or:
        return a | b;
    case op::log_and:
        return a != 0 && b != 0;
    case op::log_or:
        return a != 0 || b != 0;
    default:
        return compare(code, a, b);
    }
}

// Any operator on two integers; false after a line to the session.
bool integers(int cn, op code, int a, int b, int &out) {
    if (code == op::div)
        return divide(cn, a, b, out);
    if (can_fail(code))
        return shift(cn, code, a, b, out);
    out = safe_integers(code, a, b);
    return true;
}

PE_Value add_strings(int cn, PE_Value &a, const PE_Value &b) {
    if (a.StringValue.size() + b.StringValue.size() > string_value_max) {
        sv_printf(cn, "! String longer than %zu characters\n", string_value_max);
        return {};
    }
    return PE_Value::of(std::move(a.StringValue) + b.StringValue);
}

PE_Value arithmetic(int cn, op code, PE_Value &a, const PE_Value &b) {
    static constexpr const char *names[] = {"add", "sub", "mult", "div"};
    const int which = static_cast<int>(code) - static_cast<int>(op::add);
    if (code == op::add && a.type == pe_string && b.type == pe_string)
        return add_strings(cn, a, b);
    if (!a.is_number() || !b.is_number())
        return type_error(cn, names[which], a, b);
    const double x = a.number(), y = b.number();
    switch (code) {
    case op::add:
        return PE_Value::of(x + y);
    case op::sub:
        return PE_Value::of(x - y);
    case op::mult:
        return PE_Value::of(x * y);
    default:
        return PE_Value::of(x / y);
    }
}

PE_Value comparison(int cn, op code, const PE_Value &a, const PE_Value &b) {
    if (a.is_number() && b.is_number())
        return PE_Value::of(static_cast<int>(compare(code, a.number(), b.number())));
    if (a.type == pe_string && b.type == pe_string && (code == op::eq || code == op::ne))
        return PE_Value::of(static_cast<int>(compare(code, a.StringValue, b.StringValue)));
    return type_error(cn, "compare", a, b);
}

PE_Value not_integer(int cn, const PE_Value &a, const PE_Value &b) {
    sv_printf(cn, "! Cannot perfrom integer only operation on type %d and %d\n", a.type, b.type);
    return {};
}

int unary_integer(op code, int a) {
    switch (code) {
    case op::negate:
        return wrap(0U - bits(a));
    case op::complement:
        return ~a;
    default:
        return a == 0;
    }
}

PE_Value unary(int cn, op code, const PE_Value &a) {
    if (a.type == pe_int)
        return PE_Value::of(unary_integer(code, a.IntValue));
    if (code == op::negate) {
        if (a.type == pe_double)
            return PE_Value::of(-a.DoubleValue);
        sv_printf(cn, "! Cannot negate type %d\n", a.type);
        return {};
    }
    return not_integer(cn, a, a);
}

// The number that the whole text spells, blanks around it allowed.
std::optional<double> number_of_text(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    if (text.starts_with('+') && !text.starts_with("+-"))
        text.remove_prefix(1);
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<double> number_of(const PE_Value &v) {
    if (v.is_number())
        return v.number();
    return v.type == pe_string ? number_of_text(v.StringValue) : std::nullopt;
}

std::string text_of(const PE_Value &v) {
    char text[32];
    if (v.type == pe_int)
        std::snprintf(text, sizeof text, "%d", v.IntValue);
    else
        std::snprintf(text, sizeof text, "%g", v.DoubleValue);
    return text;
}

PE_Value cast_with_format(int cn, const PE_Value &v, std::string_view format) {
    static constexpr const char *start = "! ERROR in cast to string with format string";
    if (format.empty() || std::string_view("diouxXeEfFgGs").find(format.back()) == std::string_view::npos) {
        sv_print(cn, "! ERROR in cast to string with format string. Expected last character of format string "
                     "to be diouxX eEfFgG or s not '" +
                         (format.empty() ? std::string() : std::string(1, format.back())) + "'\n");
        return {};
    }
    if (v.is_number() && format.back() == 's')
        return cast_with_format(cn, PE_Value::of(text_of(v)), format);
    if (!v.is_number() && format.back() != 's') {
        sv_printf(cn, "! ERROR in cast to string with format string: Cannot convert string to string via a "
                      "double format\n");
        return {};
    }
    std::string error;
    std::optional<std::string> text = format_text(format, {&v, 1}, string_value_max, error);
    if (!text) {
        sv_printf(cn, "%s: %s\n", start, error.c_str());
        return {};
    }
    return PE_Value::of(std::move(*text));
}

PE_Value not_a_string(int cn, const PE_Value &v) {
    sv_printf(cn, "! Cannot convert type %d to string\n", v.type);
    return {};
}

PE_Value cast(int cn, const PE_Value &v, value_type to) {
    switch (to) {
    case pe_int:
        if (v.type == pe_int)
            return v;
        if (const std::optional<double> value = number_of(v); value && fits_int(*value))
            return PE_Value::of(static_cast<int>(*value));
        sv_printf(cn, "! Cannot convert type %d to int\n", v.type);
        return {};
    case pe_double:
        if (const std::optional<double> value = number_of(v))
            return PE_Value::of(*value);
        sv_printf(cn, "! Cannot convert type %d to double\n", v.type);
        return {};
    case pe_string:
        if (v.type == pe_error)
            return not_a_string(cn, v);
        return PE_Value::of(v.is_number() ? text_of(v) : v.StringValue);
    default:
        if (v.type == pe_string || v.type == pe_qualifier)
            return PE_Value::of(v.StringValue, pe_qualifier);
        sv_printf(cn, "! Cannot convert type %d to qualifier\n", v.type);
        return {};
    }
}

PE_Value bad_cast(int cn, std::string_view word) {
    sv_print(cn, "! Cannot recognise cast (" + std::string(word) + "), expect (int), (double) or (string)\n");
    return {};
}

void load(int cn, std::string_view name, bool like_a_cast, PE_Value &out) {
    const Variable *v = get_variable(name);
    if (!v && like_a_cast) {
        out = bad_cast(cn, name);
        return;
    }
    if (!v) {
        sv_print(cn, "! Cannot find variable " + std::string(name) + "\n");
        return;
    }
    switch (v->type) {
    case vt_int:
        out.type = pe_int;
        out.IntValue = v->IntVar;
        return;
    case vt_double:
        out.type = pe_double;
        out.DoubleValue = v->DoubleVar;
        return;
    default:
        out.type = v->type == vt_qualifier ? pe_qualifier : pe_string;
        out.StringValue = v->StringVar;
    }
}

// Sets the variable that a read would find, else a new global. An error value changes none.
bool store(int cn, std::string_view name, const PE_Value &value) {
    if (value.type == pe_error)
        return false;
    Variable *v = get_variable(name);
    if (!v)
        v = make_variable(cn, name, true);
    if (!v) {
        sv_print(cn, "! Cannot make variable " + std::string(name) + "\n");
        return false;
    }
    v->StringVar = value.StringValue;
    v->IntVar = value.IntValue;
    v->DoubleVar = value.DoubleValue;
    v->type = value.type == pe_int         ? vt_int
              : value.type == pe_double    ? vt_double
              : value.type == pe_qualifier ? vt_qualifier
                                           : vt_string;
    return true;
}

// Any operator on a pair that is not two integers.
PE_Value binary(int cn, op code, PE_Value &a, const PE_Value &b) {
    if (code >= op::add && code <= op::div)
        return arithmetic(cn, code, a, b);
    if (code >= op::lt && code <= op::ne)
        return comparison(cn, code, a, b);
    return not_integer(cn, a, b);
}

bool is_binary(op code) {
    return code >= op::add && code <= op::log_or;
}
bool is_unary(op code) {
    return code >= op::negate && code <= op::invert;
}

} // namespace

std::optional<int> expression_run_integers(const program &p) {
    std::array<int, 16> stack;
    std::size_t depth = 0;
    for (std::size_t next = 0; next < p.code.size();) {
        const instruction &i = p.code[next++];
        if (depth == stack.size())
            return std::nullopt;
        if (is_binary(i.code)) {
            if (can_fail(i.code))
                return std::nullopt;
            --depth;
            stack[depth - 1] = safe_integers(i.code, stack[depth - 1], stack[depth]);
        } else if (is_unary(i.code)) {
            stack[depth - 1] = unary_integer(i.code, stack[depth - 1]);
        } else if (i.code == op::push_int) {
            stack[depth++] = i.a;
        } else if (i.code == op::load) {
            const Variable *v = get_variable(p.text(i));
            if (!v || v->type != vt_int)
                return std::nullopt;
            stack[depth++] = v->IntVar;
        } else if (i.code == op::jump || (i.code == op::jump_if_zero && stack[--depth] == 0)) {
            next = static_cast<std::size_t>(i.a);
        } else if (i.code != op::jump_if_zero) {
            return std::nullopt;
        }
    }
    return stack[0];
}

PE_Value expression_run(int cn, const program &p) {
    static std::vector<PE_Value> stack; // nothing that runs below evaluates another expression
    stack.clear();
    for (std::size_t next = 0; next < p.code.size();) {
        const instruction &i = p.code[next++];
        if (is_binary(i.code)) {
            PE_Value &left = stack[stack.size() - 2];
            const PE_Value &right = stack.back();
            if (left.type != pe_int || right.type != pe_int)
                left = binary(cn, i.code, left, right);
            else if (!integers(cn, i.code, left.IntValue, right.IntValue, left.IntValue))
                left = {};
            stack.pop_back();
        } else {
            switch (i.code) {
            case op::push_int:
                stack.push_back(PE_Value::of(i.a));
                break;
            case op::push_double:
                stack.push_back(PE_Value::of(i.d));
                break;
            case op::push_string:
                stack.push_back(PE_Value::of(std::string(p.text(i))));
                break;
            case op::load:
            case op::load_or_cast:
                load(cn, p.text(i), i.code == op::load_or_cast, stack.emplace_back());
                break;
            case op::store:
                if (!store(cn, p.text(i), stack.back()))
                    stack.back() = {};
                break;
            case op::cast:
                stack.back() = cast(cn, stack.back(), static_cast<value_type>(i.a));
                break;
            case op::cast_format:
                stack.back() = stack.back().type == pe_error ? not_a_string(cn, stack.back())
                                                             : cast_with_format(cn, stack.back(), p.text(i));
                break;
            case op::bad_cast:
                stack.back() = bad_cast(cn, p.text(i));
                break;
            case op::call:
                stack.back() = function_call(cn, p.text(i), stack.back());
                break;
            case op::jump:
                next = static_cast<std::size_t>(i.a);
                continue;
            case op::jump_if_zero: {
                const PE_Value control = std::move(stack.back());
                stack.pop_back();
                const std::size_t otherwise = static_cast<std::size_t>(i.a);
                if (control.type != pe_int) {
                    sv_printf(cn, "! Control type for ternay must be integer, not %d\n", control.type);
                    stack.emplace_back();
                    next = static_cast<std::size_t>(p.code[otherwise - 1].a); // behind both branches
                } else if (control.IntValue == 0) {
                    next = otherwise;
                }
                continue;
            }
            default:
                stack.back() = unary(cn, i.code, stack.back());
            }
        }
    }
    return std::move(stack.back());
}

} // namespace kestrel
