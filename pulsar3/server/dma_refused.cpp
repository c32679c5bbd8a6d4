// `pulsar3 dma`: what these cards have no way to: the control link reaches neither the management bus of the network chips
// nor the card's own processor. Each is refused with a line, so that a script learns it at once.
#include "parser/qualifiers.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

namespace kestrel {

namespace {

int no_mdio(int cn, const char *function) {
    sv_printf(cn, "! ERROR %s: the control link of these cards does not reach the MDIO bus\n", function);
    return plr3_failed;
}

constexpr pt_format mdio_set_conn_format("%d %d %d = %d");

int pulsar3_dma_mdio_set_conn(int, int cn, int, int, int) {
    return no_mdio(cn, "plr3_mdio_set_conn");
}

constexpr pt_format read_mdio_format("%d %d %d %d = %d");

int pulsar3_dma_read_mdio(int, int cn, int, int, int, int) {
    return no_mdio(cn, "plr3_read_mdio");
}

constexpr pt_format write_mdio_format("%d %d %d %d %d = %d");

int pulsar3_dma_write_mdio(int, int cn, int, int, int, int, int) {
    return no_mdio(cn, "plr3_write_mdio");
}

constexpr pt_format set_ppc_debuglevel_format("%d %d %d = %d");

int pulsar3_dma_set_ppc_debuglevel(int, int cn, int, int, int) {
    sv_printf(cn, "! ERROR plr3_set_ppc_debuglevel: the control link of these cards does not reach their "
                  "processor's settings\n");
    return plr3_failed;
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_mdio_set_conn = pt_command<pulsar3_dma_mdio_set_conn>(
    "mdio-set-conn", mdio_set_conn_format, "Choose a network chip (refused: these cards have no way to it)",
    "Path/Card/Chip");

extern constinit const PARSE_TREE row_pulsar3_dma_read_mdio = pt_command<pulsar3_dma_read_mdio>(
    "read-mdio", read_mdio_format,
    "Read a register of a network chip (refused: these cards have no way to it)",
    "Path/Card/Device/Register");

extern constinit const PARSE_TREE row_pulsar3_dma_write_mdio = pt_command<pulsar3_dma_write_mdio>(
    "write-mdio", write_mdio_format,
    "Write a register of a network chip (refused: these cards have no way to it)",
    "Path/Card/Device/Register/Value");

extern constinit const PARSE_TREE row_pulsar3_dma_set_ppc_debuglevel =
    pt_command<pulsar3_dma_set_ppc_debuglevel>(
        "set-ppc-debuglevel", set_ppc_debuglevel_format,
        "Set what a card's processor prints (refused: these cards have no way to it)", "Path/Card/Level");

} // namespace kestrel
