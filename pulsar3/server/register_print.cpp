// `pulsar3 dma print-regs` and `list-fields`: what registers hold, and what fields they have.
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kestrel {

namespace {

std::vector<int> offsets_of(register_scope scope) {
    std::vector<int> offsets;
    for (const register_field &field : plr3_register_fields())
        if (field.scope == scope)
            offsets.push_back(field.offset);
    std::ranges::sort(offsets);
    const auto rest = std::ranges::unique(offsets);
    offsets.erase(rest.begin(), rest.end());
    return offsets;
}

// read(offset, word) gives a status.
template <class F> int print_registers(int cn, register_scope scope, F read) {
    for (const int offset : offsets_of(scope)) {
        std::uint32_t word = 0;
        if (const int status = read(offset, word); status != 0)
            return pulsar3_status(cn, status);
        sv_printf(cn, "# %3d 0x%08X %s\n", offset, word, plr3_describe_word(scope, offset, word).c_str());
    }
    return 0;
}

constexpr pt_format print_regs_format("%d %d card = %d");

int print_regs(int quals, int cn, int path, int chan_or_card) {
    const pt_qualifiers<print_regs_format> q(quals);
    if (!q.given("card"))
        return print_registers(cn, register_scope::channel, [&](int offset, std::uint32_t &word) {
            return plr3_read_reg(path, chan_or_card, 0, offset, {&word, 1});
        });
    return print_registers(cn, register_scope::card, [&](int offset, std::uint32_t &word) {
        const PLR3Path *p = plr3_path(path);
        const bool generation4 = p && p->features.generation == PulsarGen4;
        return plr3_read_card_reg(path, chan_or_card, plr3_card_offset(offset, generation4), {&word, 1});
    });
}

constexpr pt_format list_fields_format("= %d");

// A line a field, its parts between tabs: others read them.
int list_fields(int, int cn) {
    for (const register_field &f : plr3_register_fields())
        sv_printf(cn, "# %s\t%s\t%d\t%s\t%d\t%d\t%d\t%d\t%s\t%s\t%u\t%s\n",
                  f.scope == register_scope::card ? "card" : "channel", f.reg, f.offset, f.field, f.first_bit,
                  f.last_bit, f.lowest, f.highest, f.command,
                  f.form == field_form::keyword ? "keyword" : "number", f.generations, f.help);
    return static_cast<int>(plr3_register_fields().size());
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_print_regs =
    pt_command<print_regs>("print-regs", print_regs_format, "Print a channel's registers by their fields",
                           "Path/Channel or card/The registers of a card");
extern constinit const PARSE_TREE row_pulsar3_dma_list_fields = pt_command<list_fields>(
    "list-fields", list_fields_format, "List the fields of all registers, and who sets them", "");

} // namespace kestrel
