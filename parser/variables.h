// parser: the variable store: one global scope, and one local scope a script level. Shared by all sessions;
// used by the command thread only.
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

enum variable_type : int { vt_none = -1, vt_int, vt_double, vt_string, vt_qualifier };

struct Variable {
    variable_type type = vt_int;
    std::string name; // compared case-sensitively
    int IntVar = 0;
    double DoubleVar = 0.0;
    std::string StringVar; // of a vt_string or vt_qualifier
};

// Looks in the locals of the current level, then in the globals; null when there is none. The pointer holds
// until its scope ends.
Variable *get_variable(std::string_view name);

// The same among the globals only.
Variable *get_global_variable(std::string_view name);

// The variable of that name in the chosen scope, made if missing; null after
// "! Cannot malloc space for Variable".
Variable *make_variable(int cn, std::string_view name, bool global);

// Set a variable from C++ (make it if need be); 0, or -1 after "! Cannot create new variable".
int set_int_variable(int cn, std::string_view name, int value, bool global);
int set_double_variable(int cn, std::string_view name, double value, bool global);
int set_string_variable(int cn, std::string_view name, std::string_view value, bool global,
                        variable_type type = vt_string);
// Takes over the typed value of `value`.
int set_variable(int cn, std::string_view name, const Variable &value, bool global);

inline constexpr int max_script_levels = 32;

// Prints every global and the locals of the current level.
void list_variables(int cn);

// Script levels: raise (false at the limit) and drop with its locals.
bool variables_enter_level();
void variables_leave_level();

} // namespace kestrel
