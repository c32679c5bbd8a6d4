// Recursive descent over the operands, precedence climbing over the binary operators:
//
//   expression  = binary [ "?" expression ":" expression ]
//   binary      = operand { operator operand }            by the table below
//   operand     = ("-" | "~" | "!") expression            unary operators bind loosest
//               | "(" castword [ string ] ")" operand     casts, parentheses and calls bind tightest
//               | "(" expression ")" | name "(" expression ")" | name "=" expression
//               | [ "%" ] name | number | string
#include "parser/expression.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <iterator>

namespace kestrel {

namespace {

struct binary_operator {
    std::string_view text;
    int precedence; // higher binds tighter
    op code;
};

// By their first characters; longer texts before their own beginnings.
constexpr binary_operator binary_operators[] = {
    {"!=", 6, op::ne},    {"&&", 2, op::log_and}, {"&", 5, op::bit_and}, {"*", 10, op::mult},
    {"+", 9, op::add},    {"-", 9, op::sub},      {"/", 10, op::div},    {"<<", 8, op::shl},
    {"<=", 7, op::le},    {"<", 7, op::lt},       {"==", 6, op::eq},     {">>", 8, op::shr},
    {">=", 7, op::ge},    {">", 7, op::gt},       {"^", 4, op::bit_xor}, {"||", 1, op::log_or},
    {"|", 3, op::bit_or},
};

// The first operator that begins with a character, or the end of them.
constexpr auto first_operator = [] {
    std::array<unsigned char, 256> first{};
    first.fill(static_cast<unsigned char>(std::size(binary_operators)));
    for (std::size_t i = std::size(binary_operators); i-- > 0;)
        first[static_cast<unsigned char>(binary_operators[i].text[0])] = static_cast<unsigned char>(i);
    return first;
}();

struct cast_word {
    std::string_view text;
    value_type type;
};
constexpr cast_word cast_words[] = {
    {"int", pe_int}, {"double", pe_double}, {"string", pe_string}, {"qualifier", pe_qualifier}};

struct compiler {
    std::string_view line;
    std::size_t at;
    std::vector<instruction> &out;
    std::string &message;
    std::size_t start = out.size(); // targets count from here
    const binary_operator *follows = nullptr;
    int depth = 0;

    char peek(std::size_t ahead = 0) const { return at + ahead < line.size() ? line[at + ahead] : '\0'; }

    bool fail(std::string text) {
        message = std::move(text);
        return false;
    }

    instruction &emit(op code, std::int32_t a = 0) {
        instruction &made = out.emplace_back();
        made.code = code;
        made.a = a;
        return made;
    }

    // An instruction that names a part of the line.
    void emit(op code, std::string_view part) { tell_place(emit(code), part); }

    void tell_place(instruction &of, std::string_view part) const {
        of.at = static_cast<std::int32_t>(part.data() - line.data());
        of.length = static_cast<std::int32_t>(part.size());
    }

    std::int32_t here() const { return static_cast<std::int32_t>(out.size() - start); }

    std::string_view take_name() {
        std::size_t end = at;
        while (end < line.size() && is_name_char(line[end]))
            ++end;
        const std::string_view name = line.substr(at, end - at);
        at = end;
        return name;
    }

    const binary_operator *peek_operator() const {
        const char first = peek();
        const binary_operator *o = binary_operators + first_operator[static_cast<unsigned char>(first)];
        for (; o != std::end(binary_operators) && o->text[0] == first; ++o)
            if (o->text.size() == 1 || o->text[1] == peek(1))
                return o;
        return nullptr;
    }

    bool expression() {
        if (++depth > expression_depth_max)
            return fail("Expression nested too deep");
        if (!binary(1))
            return false;
        if (peek() == '?' && !ternary())
            return false;
        --depth;
        return true;
    }

    // Leaves in `follows` the operator behind it, which binds less.
    bool binary(int lowest) {
        if (!operand())
            return false;
        follows = peek_operator();
        while (follows && follows->precedence >= lowest) {
            const binary_operator &o = *follows;
            at += o.text.size();
            if (!binary(o.precedence + 1))
                return false;
            emit(o.code);
        }
        return true;
    }

    bool ternary() {
        ++at;
        const std::size_t control = out.size();
        emit(op::jump_if_zero);
        if (!expression())
            return false;
        if (peek() != ':')
            return fail("Expected ':' in conditional expression");
        ++at;
        const std::size_t taken = out.size();
        emit(op::jump);
        out[control].a = here();
        if (!expression())
            return false;
        out[taken].a = here();
        return true;
    }

    bool operand() {
        const char c = peek();
        switch (c) {
        case '-':
            return unary(op::negate);
        case '~':
            return unary(op::complement);
        case '!':
            return unary(op::invert);
        case '(':
            return bracket();
        case '"':
        case '\'': {
            std::string_view text;
            if (!string_constant(text))
                return false;
            emit(op::push_string, text);
            return true;
        }
        case '$':
            return radix_constant(16);
        case '#':
            return radix_constant(2);
        case '%':
            ++at;
            if (!is_name_char(peek()))
                return fail("Expected a variable name after '%'");
            return name();
        default:
            break;
        }
        if (is_digit(c) || (c == '.' && is_digit(peek(1))))
            return decimal_constant();
        if (is_name_start(c))
            return name();
        if (c == '\0')
            return fail("Unexpected end of expression");
        return fail("Syntax error in expression");
    }

    bool unary(op code) {
        ++at;
        if (!expression())
            return false;
        emit(code);
        return true;
    }

    bool name() {
        const std::string_view text = take_name();
        if (peek() == '(') {
            ++at;
            if (!expression())
                return false;
            if (peek() != ')')
                return fail("Expected ')'");
            ++at;
            emit(op::call, text);
            return true;
        }
        if (peek() == '=' && peek(1) != '=') {
            ++at;
            if (!expression())
                return false;
            emit(op::store, text);
            return true;
        }
        emit(op::load, text);
        return true;
    }

    bool bracket() {
        std::string_view word, format;
        bool formatted = false;
        const std::size_t inside = at + 1;
        if (take_cast(word, format, formatted))
            return cast(word, format, formatted);
        if (!message.empty())
            return false;
        at = inside;
        if (!expression())
            return false;
        if (peek() != ')')
            return fail("Expected ')'");
        ++at;
        if (peek() == '-' && out.back().code == op::load && line.substr(inside, at - inside - 1) == word)
            out.back().code = op::load_or_cast;
        return true;
    }

    // "(word)" or "(word'format')" is a cast when the word is known or has a format, or when an operand
    // follows at once; otherwise it is a variable in parentheses.
    bool take_cast(std::string_view &word, std::string_view &format, bool &formatted) {
        ++at;
        if (!is_name_start(peek()))
            return false;
        word = take_name();
        if (peek() == '\'' || peek() == '"') {
            formatted = true;
            if (!string_constant(format))
                return false;
        }
        if (peek() != ')')
            return formatted && fail("Expected ')'");
        ++at;
        if (formatted)
            return true;
        for (const cast_word &w : cast_words)
            if (w.text == word)
                return true;
        const char next = peek();
        const std::string_view begins_operand = "(%$#'\"~";
        return is_name_char(next) || (next != '\0' && begins_operand.find(next) != std::string_view::npos) ||
               (next == '!' && peek(1) != '=');
    }

    bool cast(std::string_view word, std::string_view format, bool formatted) {
        if (++depth > expression_depth_max)
            return fail("Expression nested too deep");
        if (!operand())
            return false;
        --depth;
        for (const cast_word &w : cast_words) {
            if (w.text != word)
                continue;
            if (formatted && w.type != pe_string)
                return fail("Only a cast to string takes a format");
            if (formatted)
                emit(op::cast_format, format);
            else
                emit(op::cast, w.type);
            return true;
        }
        emit(op::bad_cast, word);
        return true;
    }

    bool string_constant(std::string_view &text) {
        const std::size_t end = line.find(line[at], at + 1);
        if (end == std::string_view::npos)
            return fail("Unterminated string");
        text = line.substr(at + 1, end - at - 1);
        at = end + 1;
        return true;
    }

    bool push_unsigned(std::string_view digits, int radix) {
        std::uint32_t value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, radix);
        if (error != std::errc{} || end != digits.data() + digits.size())
            return fail("Integer constant '" + std::string(digits) + "' does not fit in 32 bits");
        emit(op::push_int, static_cast<std::int32_t>(value));
        return true;
    }

    bool radix_constant(int radix) {
        const std::size_t first = ++at;
        while (radix == 2 ? peek() == '0' || peek() == '1'
                          : std::isxdigit(static_cast<unsigned char>(peek())))
            ++at;
        if (at == first)
            return fail(radix == 2 ? "Expected binary digits after '#'"
                                   : "Expected hexadecimal digits after '$'");
        return push_unsigned(line.substr(first, at - first), radix);
    }

    bool decimal_constant() {
        const std::size_t first = at;
        bool real = false;
        std::uint64_t digits = 0; // stays above all limits once it is
        std::size_t end = at;
        for (; end < line.size() && is_digit(line[end]); ++end)
            digits =
                std::min(digits * 10 + static_cast<std::uint64_t>(line[end] - '0'), std::uint64_t{1} << 33);
        at = end;
        if (peek() == '.') {
            real = true;
            ++at;
            while (is_digit(peek()))
                ++at;
        }
        if (peek() == 'e' || peek() == 'E') {
            const std::size_t sign = peek(1) == '+' || peek(1) == '-' ? 1 : 0;
            if (is_digit(peek(1 + sign))) {
                real = true;
                at += 1 + sign;
                while (is_digit(peek()))
                    ++at;
            }
        }
        const std::string_view text = line.substr(first, at - first);
        if (!real) {
            const std::uint64_t most = first > 0 && line[first - 1] == '-' ? 1U << 31 : INT_MAX; // it wraps
            if (digits > most)
                return fail("Integer constant '" + std::string(text) + "' does not fit in 32 bits");
            instruction &made =
                emit(op::push_int, static_cast<std::int32_t>(static_cast<std::uint32_t>(digits)));
            if (text.size() <= short_integer_max)
                tell_place(made, text);
            return true;
        }
        const double value = std::strtod(std::string(text).c_str(), nullptr); // a tiny one is 0
        if (!std::isfinite(value))
            return fail("Real constant '" + std::string(text) + "' is out of range");
        emit(op::push_double).d = value;
        return true;
    }
};

} // namespace

bool program::is_constant() const {
    for (const instruction &i : code)
        if (i.code == op::load || i.code == op::load_or_cast || i.code == op::store || i.code == op::call)
            return false;
    return true;
}

bool expression_compile(std::string_view line, std::size_t &at, std::vector<instruction> &out,
                        std::string &message) {
    message.clear();
    compiler c{line, at, out, message};
    const bool good = c.expression();
    at = c.at;
    return good;
}

std::string expression_dump(const program &p) {
    static constexpr const char *names[] = {
        "int", "double", "string", "load", "loadcast", "store",      "add",     "sub",  "mult", "div", "shl",
        "shr", "lt",     "gt",     "le",   "ge",       "eq",         "ne",      "and",  "xor",  "or",  "land",
        "lor", "neg",    "compl",  "not",  "cast",     "castformat", "badcast", "call", "jump", "jz"};
    std::string text;
    for (const instruction &i : p.code) {
        text += text.empty() ? "" : " ";
        text += names[static_cast<std::size_t>(i.code)];
        switch (i.code) {
        case op::push_double:
            text += ":" + std::to_string(i.d);
            break;
        case op::push_string:
        case op::load:
        case op::load_or_cast:
        case op::store:
        case op::cast_format:
        case op::bad_cast:
        case op::call:
            text += ":" + std::string(p.text(i));
            break;
        case op::push_int:
        case op::cast:
        case op::jump:
        case op::jump_if_zero:
            text += ":" + std::to_string(i.a);
            break;
        default:
            break;
        }
    }
    return text;
}

} // namespace kestrel
