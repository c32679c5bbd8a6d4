#include "maths/results.h"

#include "parser/variables.h"

#include <string>

namespace kestrel {

namespace {

constexpr std::size_t name_max = 135;

int set(int cn, const char *prefix, const char *suffix, double value, bool global) {
    if (!prefix)
        return -1;
    return set_double_variable(cn, (std::string(prefix) + suffix).substr(0, name_max), value, global);
}

} // namespace

int set_var(int cn, const char *prefix, const char *suffix, double value) {
    return set(cn, prefix, suffix, value, true);
}

int set_local_var(int cn, const char *prefix, const char *suffix, double value) {
    return set(cn, prefix, suffix, value, false);
}

} // namespace kestrel
