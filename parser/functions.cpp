#include "parser/functions.h"

#include "server/output.h"

#include <chrono>
#include <climits>
#include <cmath>
#include <string>

namespace kestrel {

namespace {

// A null form is one that the function does not have: an integer argument is then converted to double.
struct function {
    std::string_view name;
    bool (*int_to_int)(int argument, int &result); // false for an argument outside the function's domain
    double (*double_to_double)(double argument);
};

// The logarithm rounded to the nearest integer.
bool log2_of_int(int argument, int &result) {
    if (argument < 1)
        return false;
    result = static_cast<int>(std::floor(std::log2(argument) + 0.5));
    return true;
}

double time_of_day(double) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(std::chrono::floor<std::chrono::microseconds>(now)).count();
}

constexpr function functions[] = {
    {"sin", nullptr, std::sin},       {"cos", nullptr, std::cos},     {"tan", nullptr, std::tan},
    {"log", nullptr, std::log},       {"log10", nullptr, std::log10}, {"exp", nullptr, std::exp},
    {"log2", log2_of_int, std::log2}, {"time", nullptr, time_of_day},
};

const function *find(std::string_view name) {
    for (const function &f : functions)
        if (f.name == name)
            return &f;
    return nullptr;
}

} // namespace

PE_Value function_call(int cn, std::string_view name, const PE_Value &argument) {
    const std::string text(name);
    const function *f = find(name);
    if (!f) {
        sv_printf(cn, "! Cannot find function %s\n", text.c_str());
        return {};
    }
    if (!argument.is_number()) {
        sv_printf(cn, "! Illegal Function argument type %d passed to function '%s'\n", argument.type,
                  text.c_str());
        return {};
    }
    if (argument.type == pe_int && f->int_to_int) {
        int result = 0;
        if (f->int_to_int(argument.IntValue, result))
            return PE_Value::of(result);
        sv_printf(cn, "! Illegal Function argument %d passed to function '%s'\n", argument.IntValue,
                  text.c_str());
        return {};
    }
    return PE_Value::of(f->double_to_double(argument.number()));
}

} // namespace kestrel
