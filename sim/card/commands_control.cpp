// sim/card: faults of the control link, and switching cards off and on.
#include "parser/qualifiers.h"
#include "server/output.h"
#include "sim/card/commands.h"
#include "sim/card/control.h"
#include "sim/card/control_faults.h"
#include "sim/card/timing.h"

#include <mutex>

namespace kestrel {

namespace {

constexpr pt_format
    fault_format("%d refuse drop close stall magic sequence command count state size cut split "
                 "stale bus %d after %d times %d argument %d = %d");
using fault_words = pt_qualifiers<fault_format>;
constexpr fault_words::choice<control_fault> faults[] = {
    {"refuse", control_fault::refuse},   {"drop", control_fault::drop},
    {"close", control_fault::close},     {"stall", control_fault::stall},
    {"magic", control_fault::magic},     {"sequence", control_fault::sequence},
    {"command", control_fault::command}, {"count", control_fault::count},
    {"state", control_fault::state},     {"size", control_fault::size},
    {"cut", control_fault::cut},         {"split", control_fault::split},
    {"stale", control_fault::stale},
};

int fault(int quals, int cn, int position) {
    const fault_words q(quals);
    const std::optional<control_fault> kind = q.only(faults);
    if (!kind) {
        sv_printf(cn, "! Please give one fault\n");
        return -1;
    }
    if (position != -1 && !commands_card(cn, position))
        return -1;
    const control_rule rule = {*kind,
                               position,
                               q.number("bus", -1),
                               q.number("after", 0),
                               q.number("times", 1),
                               q.number("argument", control_usual_argument(*kind))};
    std::lock_guard guard(cards.lock);
    control_faults.add(rule);
    return 0;
}

int no_faults(int, int) {
    std::lock_guard guard(cards.lock);
    control_faults.clear();
    return 0;
}

// Faults that wait for their request.
int waiting(int, int) {
    std::lock_guard guard(cards.lock);
    return static_cast<int>(control_faults.size());
}

int die(int, int cn, int position) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    {
        std::lock_guard guard(cards.lock);
        c->alive = false;
        timing_registers_written(*c);
        packets_forget(*c);
    }
    control_update();
    return 0;
}

constexpr pt_format live_format("%d keep = %d");

int live(int quals, int cn, int position) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    {
        std::lock_guard guard(cards.lock);
        if (!pt_qualifiers<live_format>(quals).given("keep"))
            card_power_up(*c);
        c->alive = true;
        timing_registers_written(*c);
    }
    if (control_update())
        return 0;
    sv_printf(cn, "! Card %d cannot have its port\n", position);
    return -1;
}

} // namespace

constinit const PARSE_TREE commands_control[] = {
    pt_command<fault>(
        "fault", fault_format, "spoil answers of the control link",
        "Card, -1 for any/answers no and does nothing/does it and never answers/closes the connection/"
        "answers late/wrong magic/wrong sequence/wrong command/wrong count/wrong state/wrong size/"
        "only the first bytes, then closes/byte by byte/nonsense behind the answer/only of this bus/"
        "requests to leave alone first/how often (1), -1 for ever/"
        "milliseconds, bytes or value, as the fault needs it"),
    pt_command<no_faults>("no-faults", "= %d", "forget the faults that wait", ""),
    pt_command<waiting>("waiting", "= %d", "count the faults that wait", ""),
    pt_command<die>("die", "%d = %d", "switch a card off: its ports close, it sends nothing", "Card"),
    pt_command<live>("live", live_format, "switch a card on, as after power-up",
                     "Card/with all its registers as they were"),
    pt_end(),
};

} // namespace kestrel
