// `ke2410 set-limit`, `set`, `enable`: the commands that can put a voltage on a detector. Nothing else sends a level.
#include "instruments/bench/ke2410.h"
#include "instruments/bench/numbers.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kestrel::bench {

namespace {

constexpr double step_volts = 1.0, step_seconds = 1.0;
constexpr double safe_step = 1.0; // an output may be switched on at a set point up to this

// A number as "%g" sends it: limits hold for what is sent.
double as_sent(double value) {
    return std::strtod(text_of("%g", value + 0.0).c_str(), nullptr); // never "-0"
}

bool in_range(int cn, double volts) {
    if (volts >= -ke2410_volts_max && volts <= ke2410_volts_max)
        return true;
    sv_printf(cn, "! ERROR: Expected voltage limit in range -1100 to 1100, not %d\n", shown(volts));
    return false;
}

bool allowed(int cn, double volts) {
    if (!in_range(cn, volts))
        return false;
    if (volts == 0.0)
        return true;
    if (!ke2410.has_limits()) {
        sv_printf(cn, "! ERROR: Please specify the software voltage limits first using ke2410 set-limit\n");
        return false;
    }
    if (ke2410.within_limits(volts))
        return true;
    sv_printf(cn, "! ERROR: Requested voltage %g  not within range %g <= vset <= %g\n", volts,
              ke2410.min_volts, ke2410.max_volts);
    return false;
}

// One level, in a turn of its own so that a logger can measure during a ramp.
bool send_level(int cn, double volts) {
    ke2410_turn t({.cn = cn});
    return t && ke2410_tell(t, text_of(":SOUR:VOLT:LEV %g", volts));
}

// Nobody wants a level any more: after ^C nothing is sent.
bool stopped(int cn, std::optional<double> level) {
    if (!sv_poll_quit(cn))
        return false;
    if (level)
        sv_printf(cn, "! ERROR: Stopped with ^C, the level stays at %g V\n", *level);
    else
        sv_printf(cn, "! ERROR: Stopped with ^C, no level was sent\n");
    return true;
}

// Steps the level towards the target until it is at most one step away; false after a line. Every step lies between
// where the instrument is and the target, so none leaves the limits.
bool slew(int cn, double &level, double target) {
    const int steps = static_cast<int>(std::ceil(std::abs(target - level) / step_volts)) - 1;
    for (int done = 1; std::abs(target - level) > step_volts; ++done) {
        if (stopped(cn, level))
            return false;
        level += std::copysign(step_volts, target - level);
        if (!send_level(cn, level))
            return false;
        sv_timebar(cn, done, std::max(steps, done), "Vbias");
        sv_sleep(cn, step_seconds); // after a ^C the next look at it ends the ramp
    }
    return true;
}

// The present set point unless it is of no interest, after the warning that nothing comes out yet. False after a line.
bool look(int cn, double target, bool at_once, std::optional<double> &level) {
    ke2410_turn t({.cn = cn});
    if (!t)
        return false;
    const std::optional<bool> on = ke2410_output_on(t);
    if (!on)
        return false;
    if (!*on && target != 0.0)
        sv_printf(cn, "WARNING : Setting output, but output not enabled. Is this what you want?\n");
    if (at_once)
        return true;
    level = ke2410_level(t);
    return level.has_value();
}

int set_amperes(int cn, double amperes) {
    if (!std::isfinite(amperes)) {
        sv_printf(cn, "! ERROR: Expected a current limit in A, not %g\n", amperes);
        return -1;
    }
    ke2410_turn t({.cn = cn});
    return t && ke2410_may_unleash(t) && ke2410_tell(t, text_of(":SENS:CURR:PROT:LEV %g ", amperes)) ? 0 : -1;
}

constexpr pt_format set_format("%g v i ramp wait no-slew = %d");

int set(int quals, int cn, double value) {
    const pt_qualifiers<set_format> q(quals);
    if (q.count({"v", "i", "ramp", "wait", "no-slew"}) > 1) {
        sv_printf(cn, "! ERROR: Please specify at most one of v, i, ramp, wait and no-slew\n");
        return -1;
    }
    return q.given("i") ? set_amperes(cn, value) : ke2410_set_volts(cn, value, q.given("no-slew"));
}

constexpr pt_format limit_format("%g + %g = %d");

int set_limit(int, int cn, double one, double other) {
    const bool both = TotalArgumentCount > 1;
    const double low = both ? one : std::min(one, 0.0), high = both ? other : std::max(one, 0.0);
    if (!(low < high)) {
        sv_printf(cn, "! ERROR: Expecting min < max but got min=%g, max=%g\n", low, high);
        return -1;
    }
    if (!in_range(cn, low) || !in_range(cn, high))
        return -1;
    ke2410.min_volts = low;
    ke2410.max_volts = high;
    sv_printf(cn, "# Setting software V limits : %g <= Vset <= %g\n", low, high);
    return 0;
}

// Before an output is switched on its set point must be one that may be stepped to.
bool safe_to_enable(turn &t) {
    const std::optional<double> level = ke2410_level(t);
    if (!level)
        return false;
    if (std::abs(*level) > safe_step)
        say(t.who(),
            "! ERROR: Attempting to step turn on HV supply while output fabs(setpoint) > 1.0. Setting "
            "HV to 0\n");
    else if (*level == 0.0 || (ke2410.has_limits() && ke2410.within_limits(*level)))
        return true;
    else
        say(t.who(), "# Warning : The set point of %g V is not within software limits. Setting HV to 0\n",
            *level);
    return ke2410_tell(t, ":SOUR:VOLT:LEV 0");
}

int enable(int, int cn, int on) {
    if (on != 0 && on != 1) {
        sv_printf(cn, "! ERROR: Expected on flag to be 0 or 1, not %d\n", on);
        return -1;
    }
    ke2410_turn t({.cn = cn});
    if (!t)
        return -1;
    const std::optional<bool> now = ke2410_output_on(t);
    if (!now)
        return -1;
    if (*now == (on == 1)) {
        sv_printf(cn, "# Note Output state is already %d\n", on);
        return 0;
    }
    if (on == 1 && !safe_to_enable(t))
        return -1;
    return ke2410_tell(t, text_of(":OUTP:STAT %d", on)) ? 0 : -1;
}

} // namespace

int ke2410_set_volts(int cn, double volts, bool at_once) {
    const double target = as_sent(volts);
    std::optional<double> level;
    if (!allowed(cn, target) || !look(cn, target, at_once, level) || (level && !slew(cn, *level, target)) ||
        stopped(cn, level))
        return -1;
    return send_level(cn, target) ? 0 : -1;
}

constinit const PARSE_TREE row_ke2410_set_limit =
    pt_command<set_limit>("set-limit", limit_format, "set the software voltage limits",
                          "Limit of a range from 0, or its minimum/Maximum");
constinit const PARSE_TREE row_ke2410_enable =
    pt_command<enable>("enable", "%d = %d", "switch the output on or off", "1 on or 0 off");
constinit const PARSE_TREE row_ke2410_set =
    pt_command<set>("set", set_format, "set the voltage, at 1 V per second, or the current limit",
                    "Volts, or Amperes/Set the voltage (default)/Set the current limit/As default/As default/"
                    "Set the voltage in one step");

} // namespace kestrel::bench
