#include "parser/variables.h"

#include "server/output.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <new>
#include <unordered_map>

namespace kestrel {

namespace {

// Variables in the order in which they were made, found by name. A deque keeps their addresses.
struct scope {
    std::deque<Variable> list;
    std::unordered_map<std::string_view, Variable *> by_name; // keys are views of the variables' own names

    Variable *find(std::string_view name) const {
        const auto found = by_name.find(name);
        return found == by_name.end() ? nullptr : found->second;
    }

    Variable *make(std::string_view name) {
        if (Variable *existing = find(name)) {
            existing->StringVar.clear();
            return existing;
        }
        list.push_back({vt_int, std::string(name), 0, 0.0, {}});
        try {
            by_name.emplace(list.back().name, &list.back());
        } catch (const std::bad_alloc &) {
            list.pop_back();
            throw;
        }
        return &list.back();
    }
};

scope globals;
scope variables[max_script_levels + 1]; // level 0 is the command line
int current = 0;

int failed(int cn) {
    sv_printf(cn, "! Cannot create new variable\n");
    return -1;
}

// The value as a listing shows it, with its line end.
std::string shown(const Variable &v) {
    char number[40];
    switch (v.type) {
    case vt_int:
        std::snprintf(number, sizeof number, "%d\n", v.IntVar);
        return number;
    case vt_double:
        std::snprintf(number, sizeof number, "%g\n", v.DoubleVar);
        return number;
    case vt_string:
        return "'" + v.StringVar + "'\n";
    case vt_qualifier:
        return "# Qual   :'" + v.StringVar + "'\n";
    default:
        return "! UNKNOWN TYPE\n";
    }
}

// Printed in one call: a log masks the value after the word `password`, and must see both at once.
void print_variable(int cn, const Variable &v) {
    std::string line = "# " + v.name;
    line.resize(std::max(line.size(), std::size_t{17}), ' ');
    sv_print(cn, line + "  " + shown(v));
}

} // namespace

Variable *get_variable(std::string_view name) {
    if (Variable *local = variables[current].find(name))
        return local;
    return globals.find(name);
}

Variable *get_global_variable(std::string_view name) {
    return globals.find(name);
}

Variable *make_variable(int cn, std::string_view name, bool global) {
    try {
        return (global ? globals : variables[current]).make(name);
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! Cannot malloc space for Variable\n");
        return nullptr;
    }
}

int set_int_variable(int cn, std::string_view name, int value, bool global) {
    Variable *v = make_variable(cn, name, global);
    if (!v)
        return failed(cn);
    v->type = vt_int;
    v->IntVar = value;
    return 0;
}

int set_double_variable(int cn, std::string_view name, double value, bool global) {
    Variable *v = make_variable(cn, name, global);
    if (!v)
        return failed(cn);
    v->type = vt_double;
    v->DoubleVar = value;
    return 0;
}

int set_string_variable(int cn, std::string_view name, std::string_view value, bool global,
                        variable_type type) {
    std::string copy(value); // before the old value goes: `value` may be a view of it
    Variable *v = make_variable(cn, name, global);
    if (!v)
        return failed(cn);
    v->type = type;
    v->StringVar = std::move(copy);
    return 0;
}

int set_variable(int cn, std::string_view name, const Variable &value, bool global) {
    switch (value.type) {
    case vt_int:
        return set_int_variable(cn, name, value.IntVar, global);
    case vt_double:
        return set_double_variable(cn, name, value.DoubleVar, global);
    default:
        return set_string_variable(cn, name, value.StringVar, global, value.type);
    }
}

void list_variables(int cn) {
    sv_printf(cn, "# Globals:\n");
    for (const Variable &v : globals.list)
        print_variable(cn, v);
    sv_printf(cn, "# Current locals:\n");
    for (const Variable &v : variables[current].list)
        print_variable(cn, v);
}

bool variables_enter_level() {
    if (current == max_script_levels)
        return false;
    ++current;
    return true;
}

void variables_leave_level() {
    variables[current].by_name.clear();
    variables[current].list.clear();
    if (current > 0)
        --current;
}

} // namespace kestrel
