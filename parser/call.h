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
extern int TotalArgumentCount;                // positional arguments given
extern int OptionalArgumentCount;             // of them, optional ones
extern char ArgumentType[call_arguments_max]; // 'd', 'f' or 's' a given argument

// Radix of this call's integer result: 0 is the session's, unless the handler says otherwise at its end.
extern int ResultRadix;

// The result of this call is shown to the session when the handler has ended.
extern bool ResultIsPrinted;

} // namespace kestrel
