#include "parser/variables.h"

#include "parser/text.h"
#include "server/output.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <new>
#include <vector>

namespace kestrel {

namespace {

// Variables in the order in which they were made, found by name. A deque keeps their addresses.
class scope {
  public:
    const std::deque<Variable> &list() const { return list_; }

    Variable *find(std::string_view name) const { return list_.empty() ? nullptr : places_[place_of(name)]; }

    Variable *make(std::string_view name) {
        if (Variable *existing = find(name)) {
            existing->StringVar.clear();
            return existing;
        }
        if (places_.size() < 2 * (list_.size() + 1))
            grow();
        Variable &made = list_.emplace_back();
        try {
            made.name = name;
        } catch (const std::bad_alloc &) {
            list_.pop_back();
            throw;
        }
        return places_[place_of(made.name)] = &made;
    }

    void clear() {
        list_.clear();
        places_.clear();
    }

  private:
    // Where a variable of that name is, or would be: never full, and a power of two in size.
    std::size_t place_of(std::string_view name) const {
        std::size_t hash = 0;
        for (const char c : name)
            hash = hash * 31 + static_cast<unsigned char>(c);
        for (;; ++hash) {
            const std::size_t place = hash & (places_.size() - 1);
            const Variable *v = places_[place];
            if (!v || is_same_text(v->name, name))
                return place;
        }
    }

    void grow() {
        places_.assign(std::max<std::size_t>(16, 2 * places_.size()), nullptr);
        for (Variable &v : list_)
            places_[place_of(v.name)] = &v;
    }

    std::deque<Variable> list_;
    std::vector<Variable *> places_;
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
    for (const Variable &v : globals.list())
        print_variable(cn, v);
    sv_printf(cn, "# Current locals:\n");
    for (const Variable &v : variables[current].list())
        print_variable(cn, v);
}

bool variables_enter_level() {
    if (current == max_script_levels)
        return false;
    ++current;
    return true;
}

void variables_leave_level() {
    variables[current].clear();
    if (current > 0)
        --current;
}

} // namespace kestrel
