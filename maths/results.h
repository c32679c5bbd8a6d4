// maths: results kept in script variables.
#pragma once

namespace kestrel {

// Stores a double in the variable named prefix + suffix (at most 135 characters), global or local; 0, or -1.
// A null prefix stores nothing and gives -1.
int set_var(int cn, const char *prefix, const char *suffix, double value);
int set_local_var(int cn, const char *prefix, const char *suffix, double value);

} // namespace kestrel
