// `kairo setup-trig`, `setup-veto` and their like: the inputs and outputs of the unit.
#include "instruments/timing/commands.h"
#include "instruments/timing/forward.h"
#include "instruments/timing/kairo.h"
#include "server/output.h"
#include "support/text_join.h"

namespace kestrel {

namespace {

constexpr pt_format trig_format(
    " +%d help start pause pause-dead falling debounce %g threshold %g now raw alternate %d enb-level %d beam-circ adc0 "
    "adc1 adc2 adc3 adc4 adc5 ttl0 ttl1 ttl2 ttl3 lvds ctf1 ctf2 ctf3 vthres  = %d");
constexpr pt_format tfout_format(
    "mask-width %d enb-ext-veto %d ext-veto-high %d ttl-drive1 %d ttl-drive2 %d ttl-drive3 %d veto2-inv %d xfer2-inv %d "
    "veto3-inv %d xfer3-inv %d s1-mux %d s2-mux %d enb-tf3 %d lvds1-emberw %d lvds2-emberw %d = %d");
constexpr pt_format veto_format(
    "veto0-inv %d veto1-inv %d veto2-inv %d fzero0-inv %d fzero1-inv %d xfer0-inv %d xfer1-inv %d veto0-drive %d "
    "veto1-drive %d veto2-drive %d fzero0-drive %d fzero1-drive %d xfer0-drive %d xfer1-drive %d lvds-veto-inv %d "
    "lvds-fzero-inv %d lvds-xfer-inv %d leds-on-lemos %d = %d");
constexpr pt_format port_format("%d %d silent = %d");

int setup_trig(int quals, int cn, int trigger) {
    std::string text = "kairo setup-trig";
    if (OptionalArgumentCount > 0)
        text += kairo_number(trigger);
    return kairo_forward<trig_format>(quals, cn, std::move(text));
}
int setup_tfout(int quals, int cn) {
    return kairo_forward<tfout_format>(quals, cn, "kairo setup-tfout");
}
int setup_veto(int quals, int cn) {
    return kairo_forward<veto_format>(quals, cn, "kairo setup-veto");
}
int setup_port(int quals, int cn, int dead, int live) {
    return kairo_forward<port_format>(quals, cn, "kairo setup-port" + kairo_number(dead) + kairo_number(live),
                                      {"silent"});
}

// ---------------------------------------------------------------- alternate sources of the outputs

constexpr fixed_text veto0_words("veto0-normal veto0-dc veto0-mem ");
constexpr fixed_text veto1_words("veto1-normal veto1-dc veto1-mem ");
constexpr fixed_text veto2_words("veto2-normal veto2-dc veto2-mem ");
constexpr fixed_text fzero0_words("fzero0-normal fzero0-dc fzero0-mem ");
constexpr fixed_text fzero1_words("fzero1-normal fzero1-dc fzero1-mem ");
constexpr fixed_text xfer0_words("xfer0-normal xfer0-dc xfer0-mem ");
constexpr fixed_text xfer1_words("xfer1-normal xfer1-dc xfer1-mem ");
constexpr pt_format alternate_format(text_join<veto0_words, veto1_words, veto2_words, fzero0_words,
                                               fzero1_words, xfer0_words, xfer1_words, "= %d">);
constexpr const char *signals[] = {"veto0", "veto1", "veto2", "fzero0", "fzero1", "xfer0", "xfer1"};
constexpr unsigned sources_of_one = 7; // normal, dc, mem: a bit each

int alternate_veto(int quals, int cn) {
    if (!kairo_ready(cn))
        return -1;
    unsigned chosen = static_cast<unsigned>(quals);
    for (const char *signal : signals) {
        const unsigned sources = chosen & sources_of_one;
        chosen >>= 3;
        if ((sources & (sources - 1)) == 0)
            continue;
        sv_printf(cn, "! Please specify only one of DC or port for output %s\n", signal);
        return -1;
    }
    return kairo_forward<alternate_format>(quals, cn, "kairo alternate-veto");
}

} // namespace

constinit const PARSE_TREE row_kairo_setup_trig = pt_command<setup_trig>(
    "setup-trig", trig_format, "set-up the trigger inputs of the KAIRO2",
    "Trigger input 1..16/Display help/Use for start/Use for pause in live frames/Use for pause in dead frames/"
    "Falling edge/Debounce time (s)/Threshold (V)/Show the present level/Raw input/Alternate input 1..6(7)/"
    "Enabled by level/Beam circulating/ADC 0/ADC 1/ADC 2/ADC 3/ADC 4/ADC 5/TTL 0/TTL 1/TTL 2/TTL 3/LVDS/"
    "CTF 1/CTF 2/CTF 3/Variable threshold");
constinit const PARSE_TREE row_kairo_setup_tfout = pt_command<setup_tfout>(
    "setup-tfout", tfout_format, "set-up the time frame outputs of the KAIRO",
    "Width of the mask/Enable external veto/External veto active high/Drive TTL 1/Drive TTL 2/Drive TTL 3/"
    "Invert veto 2/Invert transfer 2/Invert veto 3/Invert transfer 3/Multiplexer S1/Multiplexer S2/Enable TF 3/"
    "LVDS 1 drives EMBERW/LVDS 2 drives EMBERW");
constinit const PARSE_TREE row_kairo_setup_veto = pt_command<setup_veto>(
    "setup-veto", veto_format, "set-up the polarity and drive of the outputs of the KAIRO2",
    "Invert veto 0/Invert veto 1/Invert veto 2/Invert frame zero 0/Invert frame zero 1/Invert transfer 0/"
    "Invert transfer 1/Drive of veto 0/Drive of veto 1/Drive of veto 2/Drive of frame zero 0/Drive of frame zero 1/"
    "Drive of transfer 0/Drive of transfer 1/Invert LVDS veto/Invert LVDS frame zero/Invert LVDS transfer/"
    "LEDs show the LEMO outputs");
constinit const PARSE_TREE row_kairo_alternate_veto = pt_command<alternate_veto>(
    "alternate-veto", alternate_format, "choose what drives the outputs of the KAIRO2",
    "Veto 0 from the live frame/Veto 0 as DC level from -inv/Veto 0 from memory bit 32/"
    "Veto 1 from the live frame/Veto 1 as DC level from -inv/Veto 1 from memory bit 33/"
    "Veto 2 from the live frame/Veto 2 as DC level from -inv/Veto 2 from memory bit 34/"
    "Frame zero 0 from frame 0/Frame zero 0 as DC level from -inv/Frame zero 0 from memory bit 35/"
    "Frame zero 1 from frame 0/Frame zero 1 as DC level from -inv/Frame zero 1 from memory bit 36/"
    "Transfer 0 from not-live/Transfer 0 as DC level from -inv/Transfer 0 from memory bit 37/"
    "Transfer 1 from not-live/Transfer 1 as DC level from -inv/Transfer 1 from memory bit 38");
constinit const PARSE_TREE row_kairo_setup_port =
    pt_command<setup_port>("setup-port", port_format, "set the port data of dead and live frames",
                           "Port data of dead frames/Port data of live frames/Disable messages");

} // namespace kestrel
