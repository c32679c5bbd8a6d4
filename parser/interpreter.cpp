// The road of a line: expand short forms, walk the tree, convert the arguments by the command's format, call
// the handler, print, log or store its result.
#include "parser/interpreter.h"

#include "parser/call.h"
#include "parser/command_counts.h"
#include "parser/format.h"
#include "parser/help.h"
#include "parser/preprocess.h"
#include "parser/result.h"
#include "parser/text.h"
#include "server/output.h"
#include "server/session.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <vector>

namespace kestrel {

_qualtype Qualifier[32];
int TotalArgumentCount = 0;
int OptionalArgumentCount = 0;
char ArgumentType[call_arguments_max];
int ResultRadix = 0;
bool ResultIsPrinted = false;
bool (*user_command_spoiled)(int cn, bool begins) = nullptr;

namespace {

int nesting = 0; // lines being interpreted, one inside the other

// What a line needs on its way; kept from line to line, one for each level of nesting.
struct scratch {
    std::string expanded;
    std::array<scanned_line, 16> lines; // a client or a script repeats a few lines, or all but their numbers
    token next;
    std::vector<pt_value> values;     // a command's arguments, behind them what an earlier line left
    std::vector<std::string> strings; // of the values of type 's', in their order; the same

    std::size_t latest = 0;

    // The line in scanned form, known already if it ran lately.
    scanned_line &line(std::string_view text) {
        if (lines[latest].becomes(text))
            return lines[latest];
        const bool is_long = text.size() > sv_line_max; // one of these is enough to keep
        latest = is_long ? 0 : place_of(text);
        lines[latest].assign(text);
        return lines[latest];
    }

  private:
    // By the length and the characters, all digits alike.
    std::size_t place_of(std::string_view text) const {
        std::uint64_t hash = text.size();
        std::uint64_t eight = 0;
        for (std::size_t at = 0; at + sizeof eight < text.size(); at += sizeof eight) {
            std::memcpy(&eight, text.data() + at, sizeof eight);
            hash = mixed(hash, eight);
        }
        eight = 0;
        if (text.size() >= sizeof eight)
            std::memcpy(&eight, text.data() + text.size() - sizeof eight, sizeof eight);
        else
            text.copy(reinterpret_cast<char *>(&eight), text.size());
        return mixed(hash, eight) >> 32 & (lines.size() - 1);
    }

    static std::uint64_t mixed(std::uint64_t hash, std::uint64_t eight) {
        const std::uint64_t digits =
            eight >> 4 & 0x0101010101010101; // and others: these lose their lower half
        return (hash ^ (eight & ~(digits * 15))) * 0x9e3779b97f4a7c15;
    }
};

class nested_scratch {
  public:
    nested_scratch() : level_(nesting) {
        if (level_ < line_nesting_max && !kept_[level_])
            kept_[level_] = std::make_unique<scratch>();
        ++nesting; // last: when the allocation above throws, the destructor does not run
    }
    ~nested_scratch() {
        --nesting;
        if (level_ >= line_nesting_max || !kept_[level_])
            return;
        scratch &kept = *kept_[level_];
        give_back(kept.expanded);
        give_back(kept.next.ScannedString);
        for (std::string &text : kept.strings)
            give_back(text);
    }
    nested_scratch(const nested_scratch &) = delete;
    nested_scratch &operator=(const nested_scratch &) = delete;

    scratch *get() const { return level_ < line_nesting_max ? kept_[level_].get() : nullptr; }

  private:
    static void give_back(std::string &text) {
        constexpr std::size_t kept_string_max = 4096;
        if (text.capacity() > kept_string_max)
            text = {};
    }

    static inline std::unique_ptr<scratch> kept_[line_nesting_max];
    int level_;
};

// One line on its way: where the scanner stands and what has been converted so far.
struct line_state {
    line_state(int cn, scanned_line &line, scratch &kept)
        : cn(cn), line(line), next(kept.next), values(kept.values), strings(kept.strings) {}

    void scan() { line.scan(cn, index++, next); }

    int cn;
    scanned_line &line;
    std::size_t index = 0; // the next item
    int quals = 0;
    std::size_t given = 0; // values
    std::size_t texts = 0; // strings
    unsigned too_long = 0; // bit i: the last text of qualifier i is longer than its place
    std::size_t too_long_at = 0;
    token &next;
    std::vector<pt_value> &values;
    std::vector<std::string> &strings;
};

int finish_error(int cn) {
    sv_printf(cn, "* -1\n");
    return -1;
}

int refuse(line_state &state, const char *message) {
    locate(state.cn, state.next.ScannerInputPosn);
    sv_printf(state.cn, "%s", message);
    return finish_error(state.cn);
}

int refuse_undefined(line_state &state) {
    locate(state.cn, state.next.ScannerInputPosn);
    sv_print(state.cn, "! Undefined Variable '" + state.next.ScannedString + "'\n");
    return finish_error(state.cn);
}

// ---------------------------------------------------------------- walking the tree

enum class walk_result { command, empty, value, refused };

walk_result no_such_command(line_state &state, const PARSE_TREE *table) {
    locate(state.cn, state.next.ScannerInputPosn);
    sv_printf(state.cn, "! Unexpected identifier, or non-existent command\n");
    list_names(state.cn, table);
    finish_error(state.cn);
    return walk_result::refused;
}

walk_result walk_stops(line_state &state, const PARSE_TREE *table) {
    const bool at_root = table == pt_root();
    switch (state.next.kind) {
    case token_kind::help:
        list_choices(state.cn, table);
        finish_error(state.cn);
        return walk_result::refused;
    case token_kind::end_of_line:
    case token_kind::end_of_input:
        if (at_root)
            return walk_result::empty;
        refuse(state, "! Line of input finished unexpectedly\n");
        return walk_result::refused;
    case token_kind::undefined_variable:
        refuse_undefined(state);
        return walk_result::refused;
    case token_kind::unexpected:
        refuse(state, "! Unexpected character in input\n");
        return walk_result::refused;
    default:
        if (at_root)
            return walk_result::value;
        refuse(state, "! Expected a command name here\n");
        return walk_result::refused;
    }
}

// Follows the line's words from the root; a line that has run before knows its command.
walk_result walk(line_state &state) {
    scanned_line &line = state.line;
    if (line.command) {
        state.index = line.first_argument;
        return walk_result::command;
    }
    const PARSE_TREE *table = pt_root();
    for (;;) {
        state.scan();
        if (state.next.kind != token_kind::identifier || state.next.qualifier_value)
            return walk_stops(state, table);
        const PARSE_TREE *entry = pt_find(table, state.next.ScannedId);
        if (!entry)
            return no_such_command(state, table);
        if (entry->type == PT_TYPE_COMMAND) {
            line.command = entry;
            line.first_argument = state.index;
            return walk_result::command;
        }
        table = entry->subtree;
    }
}

// ---------------------------------------------------------------- converting arguments

int refuse_type(line_state &state, int number, char type) {
    locate(state.cn, state.next.ScannerInputPosn);
    sv_printf(state.cn, "! Argument %d should be of type '%%%c'\n", number, type);
    return finish_error(state.cn);
}

// Keeps the string just scanned. A value points at it when all are there.
void take_string(line_state &state) {
    if (state.texts == state.strings.size())
        state.strings.emplace_back();
    state.strings[state.texts++].swap(state.next.ScannedString);
}

// Stores the value just scanned if an argument of this type takes it.
bool take_value(line_state &state, char type, pt_value &out) {
    const token &t = state.next;
    switch (t.kind) {
    case token_kind::integer:
        if (type == 's')
            return false;
        out.type = type == 'd' || type == 'v' ? 'd' : 'f';
        if (out.type == 'd')
            out.i = t.ScannedInt;
        else
            out.d = t.ScannedInt;
        return true;
    case token_kind::real:
        if (type == 'd' || type == 's')
            return false;
        out.type = 'f';
        out.d = t.ScannedDouble;
        return true;
    default:
        if (type != 's' && type != 'v')
            return false;
        out.type = 's';
        take_string(state);
        return true;
    }
}

int take_arguments(line_state &state, const PARSE_TREE &command, const _pt_args &args) {
    const std::size_t wanted = static_cast<std::size_t>(args.nr_args);
    if (state.values.size() < wanted)
        state.values.resize(wanted);
    std::fill_n(state.values.begin(), wanted, pt_value{}); // those not given are zero and null
    for (; state.given < wanted; ++state.given) {
        const int taken = static_cast<int>(state.given);
        state.scan();
        switch (state.next.kind) {
        case token_kind::end_of_line:
        case token_kind::end_of_input:
        case token_kind::identifier:
            if (taken >= args.opt_start) {
                --state.index; // read again as a qualifier
                return 0;
            }
            return refuse(state, state.next.kind == token_kind::identifier
                                     ? "! Found an identifier when we were expecting arguments\n"
                                     : "! Unexpected end of line in input\n");
        case token_kind::help:
            help(state.cn, command);
            return finish_error(state.cn);
        case token_kind::unexpected:
            return refuse(state, "! Unknown character found in the arguments\n");
        case token_kind::undefined_variable:
            return refuse_undefined(state);
        default: {
            const char type = args.type[state.given];
            if (!take_value(state, type, state.values[state.given]))
                return refuse_type(state, taken + 1, type);
        }
        }
    }
    return 0;
}

int take_qualifier_value(line_state &state, char type, int number) {
    _qualtype &out = Qualifier[number];
    state.scan();
    const token &t = state.next;
    if (type == 'd' && t.kind == token_kind::integer) {
        out.IntArg = t.ScannedInt;
    } else if ((type == 'g' || type == 'f') && t.kind == token_kind::real) {
        out.DoubleArg = t.ScannedDouble; // an integer is not converted here
    } else if (type == 's' && t.kind == token_kind::string) {
        const std::size_t length = t.ScannedString.copy(out.StringArg, qualifier_string_max - 1);
        out.StringArg[length] = '\0';
        const bool whole = length == t.ScannedString.size();
        state.too_long = (state.too_long & ~(1U << number)) | (whole ? 0U : 1U << number);
        if (!whole)
            state.too_long_at = t.ScannerInputPosn;
    } else {
        locate(state.cn, t.ScannerInputPosn);
        sv_printf(state.cn, "! This qualifier takes an argument of type '%%%c'\n", type);
        return finish_error(state.cn);
    }
    return 0;
}

int find_qualifier(const _pt_args &args, std::string_view word) {
    for (int i = 0; i < args.nr_quals; ++i)
        if (same_word(args.name[static_cast<std::size_t>(i)], word))
            return i;
    return -1;
}

// A text that lost its end would be another's name. Asked at the end: of a qualifier's texts the last counts.
int check_texts(const line_state &state) {
    if (state.too_long == 0)
        return 0;
    locate(state.cn, state.too_long_at);
    sv_printf(state.cn, "! The text of a qualifier can have %d characters at most\n",
              static_cast<int>(qualifier_string_max) - 1);
    return finish_error(state.cn);
}

int take_qualifiers(line_state &state, const PARSE_TREE &command, const _pt_args &args) {
    for (;;) {
        state.scan();
        switch (state.next.kind) {
        case token_kind::end_of_line:
        case token_kind::end_of_input:
            return check_texts(state);
        case token_kind::help:
            help(state.cn, command);
            return finish_error(state.cn);
        case token_kind::identifier:
            break;
        default:
            return refuse(state, "! Unexpected character when reading qualifiers\n");
        }
        const int i = find_qualifier(args, state.next.ScannedId);
        if (i < 0) {
            locate(state.cn, state.next.ScannerInputPosn);
            sv_print(state.cn, "! Qualifier " + std::string(state.next.ScannedId) + " not found.\n");
            return finish_error(state.cn);
        }
        state.quals |= static_cast<int>(1U << i);
        const char type = args.qtype[static_cast<std::size_t>(i)];
        if (type && take_qualifier_value(state, type, i) != 0)
            return -1;
    }
}

// ---------------------------------------------------------------- calling

void set_call_globals(const line_state &state, const _pt_args &args) {
    TotalArgumentCount = static_cast<int>(state.given);
    OptionalArgumentCount = std::max(0, TotalArgumentCount - args.opt_start);
    const std::size_t kept = std::min(state.given, call_arguments_max - 1);
    for (std::size_t i = 0; i < kept; ++i)
        ArgumentType[i] = state.values[i].type;
    ArgumentType[kept] = '\0';
    ResultRadix = 0;
}

int integer_result(char type, const pt_result &result) {
    switch (type) {
    case 'd':
        return result.i;
    case 's':
    case 'q':
        return result.s ? 0 : -1;
    default:
        return 0;
    }
}

void point_at_strings(line_state &state) {
    std::size_t next = 0;
    for (pt_value &v : std::span(state.values).first(state.given))
        if (v.type == 's')
            v.s = state.strings[next++].c_str();
}

struct delivery {
    Variable *result_out;
    int print_result;
    std::FILE *log;
    std::FILE *vlog;
};

// Prints, logs or stores a result; nothing more is said to a session that ended inside its command.
int deliver(int cn, char type, pt_result &result, int radix, const delivery &to) {
    const int value = integer_result(type, result);
    result_log(cn, type, result, radix, to.log, to.vlog);
    if (to.result_out)
        result_store(type, result, *to.result_out);
    else if (to.print_result && sv_is_valid(cn))
        result_print(cn, type, result, radix);
    return value;
}

int run_command(line_state &state, const delivery &to) {
    const PARSE_TREE &command = *state.line.command;
    counted_command counted(command);
    const _pt_args &args = _xx_parse_args(command);
    if (take_arguments(state, command, args) != 0 || take_qualifiers(state, command, args) != 0)
        return -1;
    set_call_globals(state, args);
    ResultIsPrinted = to.print_result && !to.result_out;
    point_at_strings(state);
    pt_result result;
    if (user_command_spoiled && nesting == 1)
        user_command_spoiled(state.cn, true);
    const std::size_t all = static_cast<std::size_t>(args.nr_args);
    command.fn.call(state.quals, state.cn, std::span(state.values).first(all), result);
    if (user_command_spoiled && user_command_spoiled(state.cn, false))
        result = {-1, -1.0, {}};
    const int radix = ResultRadix ? ResultRadix : sv_get_radix(state.cn);
    ResultRadix = 0; // an outer command does not inherit it
    const int value = deliver(state.cn, args.return_type, result, radix, to);
    if (value != -1)
        counted.succeeded();
    return value;
}

// A line that is a value only: the value is its result.
int run_value(line_state &state, const delivery &to, int *status_out) {
    pt_result result;
    char type = 0;
    switch (state.next.kind) {
    case token_kind::integer:
        type = 'd';
        result.i = state.next.ScannedInt;
        break;
    case token_kind::real:
        type = 'g';
        result.d = state.next.ScannedDouble;
        break;
    default:
        type = state.next.qualifier_value ? 'q' : 's';
        result.s = std::move(state.next.ScannedString);
    }
    state.scan();
    if (state.next.kind != token_kind::end_of_line)
        return refuse(state, "! Unexpected character in input\n");
    if (status_out)
        *status_out = 1;
    return deliver(state.cn, type, result, sv_get_radix(state.cn), to);
}

int run_line(line_state &state, const delivery &to, int *status_out) {
    switch (walk(state)) {
    case walk_result::command:
        return run_command(state, to);
    case walk_result::value:
        return run_value(state, to, status_out);
    case walk_result::empty:
        return 0;
    default:
        return -1;
    }
}

int out_of_memory(int cn) {
    std::fprintf(stderr, "parser: Error allocating memory.\n");
    sv_printf(cn, "! Error allocating memory in parser\n");
    return finish_error(cn);
}

// Runs a line on a level of its own: `scanned`, or what `text` expands to.
int service(int cn, scanned_line *scanned, std::string_view text, const delivery &to, int *status_out) {
    if (status_out)
        *status_out = 0;
    try {
        const nested_scratch nested;
        scratch *const kept = nested.get();
        if (!kept) {
            sv_printf(cn, "! Commands nested deeper than %d levels\n", line_nesting_max);
            return finish_error(cn);
        }
        if (!scanned) {
            const bool is_short = has_short_form(text);
            if (is_short && !preprocess(cn, text, kept->expanded))
                return finish_error(cn);
            scanned = &kept->line(is_short ? kept->expanded : text);
        }
        line_state state(cn, *scanned, *kept);
        return run_line(state, to, status_out);
    } catch (const std::bad_alloc &) {
        return out_of_memory(cn);
    }
}

} // namespace

int service_line(int cn, scanned_line &line, Variable *result_out, int print_result, std::FILE *log,
                 std::FILE *vlog, int *status_out) {
    return service(cn, &line, {}, {result_out, print_result, log, vlog}, status_out);
}

int user_service(int cn, std::string_view line, int print_result, std::FILE *log, std::FILE *vlog) {
    return service(cn, nullptr, line, {nullptr, print_result, log, vlog}, nullptr);
}

int user_service_script(int cn, std::string_view line, int print_result, std::FILE *log, std::FILE *vlog,
                        int *status_out) {
    return service(cn, nullptr, line, {nullptr, print_result, log, vlog}, status_out);
}

int user_service_result(int cn, const char *line, Variable *result_out, int *status_out) {
    return service(cn, nullptr, line, {result_out, 0, nullptr, nullptr}, status_out);
}

std::string pt_quoted(std::string_view text) {
    const char quote = text.find('\'') == std::string_view::npos ? '\'' : '"';
    return quote + std::string(text) + quote;
}

} // namespace kestrel
