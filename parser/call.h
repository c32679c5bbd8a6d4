// parser: what a handler may read about its call. Single global instances, overwritten by the next line that
// is interpreted: a handler reads them before it runs another command line.
#pragma once

#include <cstddef>

namespace kestrel {

inline constexpr std::size_t qualifier_string_max = 256;
inline constexpr std::size_t call_arguments_max = 100;

union _qualtype {
    int IntArg;
    double DoubleArg;
    char StringArg[qualifier_string_max];
};

extern _qualtype Qualifier[32];               // value of qualifier i, when bit i of the mask is set
extern unsigned QualifiersCut;                // bit i: the text given for i lost what StringArg cannot hold
extern int TotalArgumentCount;                // positional arguments given
extern int OptionalArgumentCount;             // of them, optional ones
extern char ArgumentType[call_arguments_max]; // 'd', 'f' or 's' a given argument

// Radix of this call's integer result: 0 is the session's, unless the handler says otherwise at its end.
extern int ResultRadix;

// For qualifiers that name where data go: a name without its end would be another's. 0, or -1 after a line
// when one of those in the mask was cut.
int pt_check_names(int cn, unsigned qualifiers);

} // namespace kestrel
