// server: progress lines. In network mode each is a line of its own for the client to draw; the terminal has
// one that stays open and is drawn over, and what is written next begins below it.
#pragma once

#include "server/session.h"

namespace kestrel {

// 1 while a progress line is open on the terminal; the lock of the terminal's outbox guards it.
extern int timebar_on;

// Shows progress; label may be null.
void sv_timebar(int cn, int done, int total, const char *label);

// For outbox_form::open_line of whatever is written in whole lines.
inline int *timebar_line() {
    return use_network ? nullptr : &timebar_on;
}

} // namespace kestrel
