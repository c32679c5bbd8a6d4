// pulsar3/lib/registers: the fields of the cards' registers. One row a field: from it come the checks of the commands
// that set it, and whoever prints or explains a register. A new field is one row.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace kestrel {

enum class register_scope { channel, card };

// Which generations have it; bits.
enum register_generation : unsigned {
    on_gen3 = 1,
    on_gen3v7 = 2,
    on_gen3mini = 4,
    on_gen4 = 8,
    on_every = on_gen3 | on_gen3v7 | on_gen3mini | on_gen4,
};

struct register_field {
    register_scope scope;
    const char *reg; // the register's name
    int offset;      // words; of a card's register on generation 3
    const char *field;
    int first_bit, last_bit;
    int lowest, highest; // what may be written
    const char *unit;
    const char *command; // that sets it
    unsigned generations;
};

std::span<const register_field> plr3_register_fields();

// The field of that register and name. Both must be in the table: a name that is not ends the process.
const register_field &plr3_register_field(std::string_view reg, std::string_view field);

struct field_value {
    const register_field &field;
    int value;
};
// One word of these fields, all of one register, the rest of it zero: 0, or plr3_out_of_range with a text that names
// the function, the field, its value and its limits.
int plr3_pack_fields(const char *function, std::span<const field_value> values, std::uint32_t &word);

// The block memories of a channel: regions that are tables, not registers.
struct block_memory {
    int region;
    const char *name;
    int words;
    const char *what;
};
std::span<const block_memory> plr3_block_memories();

} // namespace kestrel
