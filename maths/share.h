// maths: a large region's work on all processors. The threads live as long as the command; they touch neither
// session nor source, only rows that are held and places of the result that are their own.
#pragma once

#include "maths/reader.h"

namespace kestrel {

// Calls work(0) to work(parts - 1), each once and in any order, on all processors when the region is large; what the parts
// are does not depend on how many there are, and so neither does the result. The
// calling thread works, too, and looks for ^C between parts: false after "! Terminated by ^C". std::bad_alloc of
// a part passes through, once no thread is at work any more.
bool umaths_share(int cn, UMaths &reader, int parts, void (*call)(const void *work, int part),
                  const void *work);

template <class F> bool umaths_share(int cn, UMaths &reader, int parts, const F &work) {
    const auto call = [](const void *f, int part) { (*static_cast<const F *>(f))(part); };
    return umaths_share(cn, reader, parts, call, &work);
}

} // namespace kestrel
