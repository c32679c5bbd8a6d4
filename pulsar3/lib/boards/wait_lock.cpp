#include "pulsar3/lib/boards/wait_lock.h"

#include "pulsar3/lib/paths/access.h"

#include <chrono>
#include <thread>

namespace kestrel {

namespace {

constexpr std::chrono::seconds lock_time{1};
constexpr std::chrono::milliseconds between_looks{5};

} // namespace

int plr3_wait_lock(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                   bool unchecked) {
    const int leaf = plr3_card_path(function, path, card);
    if (leaf < 0)
        return leaf;
    if (unchecked || !plr3_path(leaf)->femHandle)
        return 0;
    const auto end = std::chrono::steady_clock::now() + lock_time;
    for (;;) {
        std::uint32_t state = 0;
        if (const int status = plr3_board_read(function, path, card, bus, address, {&state, 1}); status != 0)
            return status;
        if ((state & 1) != 0)
            return 0;
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "%s: interrupted", function);
        if (std::chrono::steady_clock::now() > end)
            return plr3_fail(plr3_failed, "%s: the clock of card %d does not lock", function, card);
        std::this_thread::sleep_for(between_looks);
    }
}

} // namespace kestrel
