// `kairo setup-trig` and its like: inputs and outputs, which no simulated wire has. What is set is taken and checked as
// to its form only.
#include "parser/qualifiers.h"
#include "sim/timing_unit/commands.h"

namespace kestrel {

namespace {

constexpr const char *trig_format =
    " +%d help start pause pause-dead falling debounce %g threshold %g now raw alternate %d enb-level %d beam-circ adc0 "
    "adc1 adc2 adc3 adc4 adc5 ttl0 ttl1 ttl2 ttl3 lvds ctf1 ctf2 ctf3 vthres = %d";
constexpr const char *tfout_format =
    "mask-width %d enb-ext-veto %d ext-veto-high %d ttl-drive1 %d ttl-drive2 %d ttl-drive3 %d veto2-inv %d xfer2-inv %d "
    "veto3-inv %d xfer3-inv %d s1-mux %d s2-mux %d enb-tf3 %d lvds1-emberw %d lvds2-emberw %d = %d";
constexpr const char *veto_format =
    "veto0-inv %d veto1-inv %d veto2-inv %d fzero0-inv %d fzero1-inv %d xfer0-inv %d xfer1-inv %d veto0-drive %d "
    "veto1-drive %d veto2-drive %d fzero0-drive %d fzero1-drive %d xfer0-drive %d xfer1-drive %d lvds-veto-inv %d "
    "lvds-fzero-inv %d lvds-xfer-inv %d leds-on-lemos %d = %d";
constexpr const char *alternate_format =
    "veto0-normal veto0-dc veto0-mem veto1-normal veto1-dc veto1-mem veto2-normal veto2-dc veto2-mem fzero0-normal "
    "fzero0-dc fzero0-mem fzero1-normal fzero1-dc fzero1-mem xfer0-normal xfer0-dc xfer0-mem xfer1-normal xfer1-dc "
    "xfer1-mem = %d";

int take(int, int cn) {
    return unit_ready(cn) ? 0 : -1;
}
int take_trigger(int, int cn, int) {
    return take(0, cn);
}
int take_ports(int, int cn, int, int) {
    return take(0, cn);
}

} // namespace

constinit const PARSE_TREE row_setup_trig =
    pt_command<take_trigger>("setup-trig", trig_format, "trigger inputs", "");
constinit const PARSE_TREE row_setup_tfout =
    pt_command<take>("setup-tfout", tfout_format, "frame outputs", "");
constinit const PARSE_TREE row_setup_veto =
    pt_command<take>("setup-veto", veto_format, "polarity and drive", "");
constinit const PARSE_TREE row_alternate_veto =
    pt_command<take>("alternate-veto", alternate_format, "what drives the outputs", "");
constinit const PARSE_TREE row_setup_port =
    pt_command<take_ports>("setup-port", "%d %d = %d", "port data", "");

} // namespace kestrel
