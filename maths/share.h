// maths: a large region's work on all processors. The threads live as long as the command; they touch neither
// session nor source, only rows that are held and places of the result that are their own.
#pragma once

#include "maths/reader.h"

#include <functional>

namespace kestrel {

// At most so many threads; 0: one a processor. Results do not depend on it (a variable for the tests).
extern unsigned umaths_max_threads;

// Calls work(0) to work(parts - 1), each once and in any order, on several threads when the region is large. The
// calling thread works, too, and looks for ^C between parts: false after "! Terminated by ^C". std::bad_alloc of
// a part passes through, once no thread is at work any more.
bool umaths_share(int cn, UMaths &reader, int parts, const std::function<void(int)> &work);

} // namespace kestrel
