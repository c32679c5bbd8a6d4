// `pulsar3 start` and what a run is set up with: timing and the channels' formats; and reading scope data back.
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/scope.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <array>
#include <cmath>

namespace kestrel {

namespace {

constexpr pt_format start_format("%d + %d read pause no-set = %d");

// In scope mode the multiplexer is set to the channels' own data, unless it is to stay.
int set_multiplexer(int path, int card, int flags) {
    if ((flags & plr3_run_scope) == 0)
        return 0;
    constexpr std::array<int, 4> own_data{};
    return plr3_set_fields(plr3_register_command("set-adc-mux"), path, card, own_data);
}

int pulsar3_start(int quals, int cn, int path, int card) {
    const pt_qualifiers<start_format> q(quals);
    card = pulsar3_card(card);
    const int flags = plr3_get_run_flags(path);
    if (flags < 0) {
        sv_printf(cn, "! ERROR: Cannot read run flags: %s\n", plr3_get_error_message());
        return flags;
    }
    int status = q.given("no-set") ? 0 : set_multiplexer(path, card, flags);
    if (status == 0)
        status = plr3_histogram_start_count_enb(path, card, q.given("pause") ? 0 : 1);
    if (status == 0 && q.given("read"))
        status = plr3_read_scope_data(path, card);
    return pulsar3_status(cn, status);
}

constexpr pt_format read_scope_data_format("%d + %d = %d");

int pulsar3_read_scope_data(int, int cn, int path, int card) {
    sv_flush_all(cn);
    return pulsar3_status(cn, plr3_read_scope_data(path, pulsar3_card(card)));
}

constexpr pt_format set_timing_format("%d %d %d fixed-time %d frames %d = %d");

int pulsar3_set_timing(int quals, int cn, int path, int card, int source) {
    const pt_qualifiers<set_timing_format> q(quals);
    const int ticks = q.number("fixed-time", 0), frames = q.number("frames", 0);
    if (plr3_path(path))
        for (const field_value &value : {field_value{plr3_register_field("timing-a", "source"), source},
                                         {plr3_register_field("fixed-time", "ticks"), ticks},
                                         {plr3_register_field("internal-frames", "frames"), frames}})
            if (const int status = plr3_check_field("plr3_set_timing", value); status != 0)
                return pulsar3_status(cn, status);
    timing_request request{source, -1, -1};
    if (q.given("fixed-time"))
        request.fixed_ticks = ticks;
    if (q.given("frames"))
        request.frames = frames;
    return pulsar3_status(cn, plr3_set_timing(path, card, request));
}

constexpr pt_format setup_timing_format("%d software pauses external internal time %g frames %d = %d");
constexpr pt_qualifiers<setup_timing_format>::choice<plr3_timing_source> sources[] = {
    {"software", plr3_timing_software},
    {"pauses", plr3_timing_pauses},
    {"external", plr3_timing_external},
    {"internal", plr3_timing_internal}};

int pulsar3_setup_timing(int quals, int cn, int path) {
    const pt_qualifiers<setup_timing_format> q(quals);
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return pulsar3_status(cn, plr3_set_timing(path, -1, {}));
    const auto source = q.only(sources);
    const std::optional<double> seconds = q.real_if_given("time");
    if (q.count({"software", "pauses", "external", "internal"}) > 1 ||
        (seconds && !(*seconds >= 0 && *seconds / top->clock_period < 4294967295.5)) ||
        q.number("frames") < 0) {
        sv_printf(cn, "! ERROR: give one timing source, a time of at most %g s and frames of 0 or more\n",
                  4294967295.0 * top->clock_period);
        return -1;
    }
    timing_request request;
    if (source)
        request.source = *source;
    if (seconds)
        request.fixed_ticks = std::llround(*seconds / top->clock_period);
    if (q.given("frames"))
        request.frames = q.number("frames");
    return pulsar3_status(cn, plr3_set_timing(path, -1, request));
}

constexpr pt_format
    format_run_format("%d %d nbits-eng %d nbits-aux1 %d nbits-aux2 %d aux1-mode %d aux2-mode %d = %d");

int pulsar3_format_run(int quals, int cn, int path, int chan) {
    const pt_qualifiers<format_run_format> q(quals);
    for (const std::optional<int> value :
         {q.number_if_given("nbits-eng"), q.number_if_given("nbits-aux1"), q.number_if_given("nbits-aux2"),
          q.number_if_given("aux1-mode"), q.number_if_given("aux2-mode")})
        if (value && *value < 0) {
            sv_printf(cn, "! ERROR: format-run takes no number below 0, as %d is\n", *value);
            return -1;
        }
    const format_request request{
        q.number_if_given("nbits-eng").value_or(-1), q.number_if_given("nbits-aux1").value_or(-1),
        q.number_if_given("nbits-aux2").value_or(-1), q.number_if_given("aux1-mode").value_or(-1),
        q.number_if_given("aux2-mode").value_or(-1)};
    return pulsar3_status(cn, plr3_format_run(path, chan, request));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_start = pt_command<pulsar3_start>(
    "start", start_format, "Configure and start the system",
    "Path/Card, -1 or omitted for all/Read scope data back on completion/"
    "Start but do not enable counting in software timing mode/Keep the scope multiplexer");
extern constinit const PARSE_TREE row_pulsar3_read_scope_data = pt_command<pulsar3_read_scope_data>(
    "read-scope-data", read_scope_data_format, "Read captured data into the scope module",
    "Path/Card, all if omitted");
extern constinit const PARSE_TREE row_pulsar3_set_timing = pt_command<pulsar3_set_timing>(
    "set-timing", set_timing_format, "Set the timing registers of a card",
    "Path/Card, -1 for all/Source: 0 software, 1 software with frames, 2 external, 3 internal/"
    "Length of an internal time frame in ticks/Internal time frames, 0 until stopped");
extern constinit const PARSE_TREE row_pulsar3_setup_timing = pt_command<pulsar3_setup_timing>(
    "setup-timing", setup_timing_format, "Set up how a run is cut into time frames",
    "Path/One time frame a run/A pause ends a time frame/The timing unit ends time frames/The cards do/"
    "Length of an internal time frame in seconds/Internal time frames, 0 until stopped");
extern constinit const PARSE_TREE row_pulsar3_format_run = pt_command<pulsar3_format_run>(
    "format-run", format_run_format, "Set how events are histogrammed",
    "Path/Channel, -1 for all/Bits of energy/Bits of the first auxiliary coordinate/"
    "Bits of the second auxiliary coordinate/What the first auxiliary coordinate holds/"
    "What the second auxiliary coordinate holds");

} // namespace kestrel
