#include "parser/loops.h"

#include "parser/builtins.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/include_level.h"
#include "server/output.h"

#include <cstdint>
#include <new>
#include <string>
#include <vector>

namespace kestrel {

namespace {

enum class loop_type : int { for_loop, for_each, do_loop };

struct loop {
    loop_type type;
    off_t position; // just after the head line
    int include_level;
    Variable *variable = nullptr; // for, for-each; lives at least as long as its script level
    int value = 0;                // for
    int last = 0;
    int step = 0;
    std::vector<std::string> strings{}; // for-each
    std::size_t index = 0;              // of the string in use
};

std::vector<loop> stack;

// The running include file; null after two lines to the session when there is none.
script_file *include_file(int cn) {
    script_file *file = sv_get_include(cn);
    if (file)
        return file;
    sv_printf(cn, "! Not include file, Cannot lsek\n");
    sv_printf(cn, "! Cannot seek on input path\n");
    return nullptr;
}

// Pushes a record for a loop whose head was just read; null after a line to the session.
loop *open_loop(int cn, loop_type type) {
    if (static_cast<int>(stack.size()) >= loop_stack_max) {
        sv_printf(cn, "! Loop stack Full\n");
        return nullptr;
    }
    const script_file *file = include_file(cn);
    if (!file)
        return nullptr;
    try {
        return &stack.emplace_back(loop{type, file->tell(), sv_get_include_lvl(cn)});
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! Cannot malloc space for for stack\n");
        return nullptr;
    }
}

int drop_loop() {
    stack.pop_back();
    return -1;
}

int repeat(int cn, const loop &l) {
    script_file *file = include_file(cn);
    if (!file)
        return -1;
    if (!file->seek(l.position)) {
        sv_printf(cn, "! Cannot seek on input path\n");
        return -1;
    }
    return 0;
}

// The innermost loop, if this include level opened it.
loop *top_loop(int cn, const char *empty_message) {
    if (stack.empty()) {
        sv_printf(cn, "%s", empty_message);
        return nullptr;
    }
    if (stack.back().include_level != sv_get_include_lvl(cn)) {
        sv_printf(cn, "! Loop was opened at include level %d, not at this level %d\n",
                  stack.back().include_level, sv_get_include_lvl(cn));
        return nullptr;
    }
    return &stack.back();
}

int unexpected_type(int cn, const loop &l) {
    sv_printf(cn, "! Unexpected loop type %d at next command\n", static_cast<int>(l.type));
    return -1;
}

// One more pass of a "for": its variable stepped; false when it is past the last value. A variable that the
// body made something else than an integer gets the value that comes after the loop's own last one.
bool step_for(loop &l) {
    const int before = l.variable->type == vt_int ? l.variable->IntVar : l.value;
    const std::int64_t value = static_cast<std::int64_t>(before) + l.step;
    l.variable->type = vt_int;
    l.variable->IntVar = l.value = static_cast<int>(value);
    if (value != l.value)
        return false;
    return l.step >= 1 ? value <= l.last : value >= l.last;
}

bool step_foreach(loop &l) {
    if (++l.index == l.strings.size())
        return false;
    l.variable->type = vt_string;
    l.variable->StringVar = l.strings[l.index];
    return true;
}

// ---- the commands

constexpr pt_format for_format("%s %d %d + %d local global");

int for_command(int quals, int cn, const char *name, int first, int last, int step) {
    const pt_qualifiers<for_format> q(quals);
    if (OptionalArgumentCount == 0)
        step = last > first ? 1 : -1;
    loop *l = open_loop(cn, loop_type::for_loop);
    if (!l)
        return -1;
    l->variable = make_variable(cn, name, q.given("global"));
    if (!l->variable)
        return drop_loop();
    l->variable->type = vt_int;
    l->variable->IntVar = l->value = first;
    l->last = last;
    l->step = step;
    return 0;
}

constexpr pt_format foreach_format(
    "%s %s + %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s "
    "%s %s %s %s %s %s local global = %d");

int foreach_command(int quals, int cn, const char *name, std::span<const pt_value> strings) {
    const pt_qualifiers<foreach_format> q(quals);
    std::vector<std::string> values; // all there before the loop opens: it never stands half made
    for (const pt_value &s : strings)
        if (s.type)
            values.emplace_back(s.s);
    loop *l = open_loop(cn, loop_type::for_each);
    if (!l)
        return -1;
    l->variable = make_variable(cn, name, q.given("global"));
    if (!l->variable)
        return drop_loop();
    l->variable->type = vt_string;
    l->strings = std::move(values);
    l->variable->StringVar = std::move(l->strings.front()); // the first is not asked for again
    return 0;
}

int next_command(int, int cn) {
    loop *l = top_loop(cn, "! Loop stack is empty, next without for error\n");
    if (!l)
        return -1;
    if (l->type == loop_type::do_loop)
        return unexpected_type(cn, *l);
    if (l->type == loop_type::for_loop ? step_for(*l) : step_foreach(*l))
        return repeat(cn, *l);
    stack.pop_back();
    return 0;
}

int do_command(int, int cn) {
    return open_loop(cn, loop_type::do_loop) ? 0 : -1;
}

int while_command(int, int cn, int value) {
    const loop *l = top_loop(cn, "! Loop stack is empty, while without do error\n");
    if (!l)
        return -1;
    if (l->type != loop_type::do_loop)
        return unexpected_type(cn, *l);
    if (value != 0)
        return repeat(cn, *l);
    stack.pop_back();
    return 0;
}

} // namespace

bool loops_are_open() {
    return !stack.empty();
}

void loopstack_finish_script(int cn, int level) {
    while (!stack.empty() && stack.back().include_level >= level) {
        sv_printf(cn, "# Note tidying incomplete loop type %d\n", static_cast<int>(stack.back().type));
        stack.pop_back();
    }
}

constinit const PARSE_TREE row_for =
    pt_command<for_command>("for", for_format, "Start loop FOR name = first TO last STEP step",
                            "Variable name/First/Last/Step/Set local variable (default)/Set global variable");
constinit const PARSE_TREE row_for_each = pt_command<foreach_command>(
    "for-each", foreach_format, "Start loop FOR name = each string in turn",
    "Variable name/First string/Next strings//////////////////////////////////////"
    "/Set local variable (default)/Set global variable");
constinit const PARSE_TREE row_next =
    pt_command<next_command>("next", "", "Termination of both for command loops", "");
constinit const PARSE_TREE row_do = pt_command<do_command>("do", "= %d", "Start do ... while loop", "");
constinit const PARSE_TREE row_while =
    pt_command<while_command>("while", "%d = %d", "Complete do ... while loop", "Value");

} // namespace kestrel
