#include "maths/progress.h"

#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"

#include <limits>

namespace kestrel {

namespace {

constexpr auto poll_every = std::chrono::milliseconds(5);
constexpr auto show_after = std::chrono::seconds(1);
constexpr auto show_every = std::chrono::milliseconds(500);

} // namespace

bool umaths_progress::go_on(int cn, long long done, long long total) {
    const auto now = clock::now();
    if (now - polled_ < poll_every)
        return true;
    polled_ = now;
    if (sv_poll_quit(cn) > 0) {
        sv_printf(cn, "! Terminated by ^C\n");
        return false;
    }
    if (now - started_ > show_after && now - shown_ > show_every) {
        for (; total > std::numeric_limits<int>::max(); total /= 2)
            done /= 2;
        sv_timebar(cn, static_cast<int>(done), static_cast<int>(total), "Maths");
        shown_ = now;
    }
    return true;
}

} // namespace kestrel
