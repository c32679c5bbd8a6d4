// pulsar3/lib/registers: what the tables of fields and block memories say, at run time.
#pragma once

#include "pulsar3/lib/registers/register_fields.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

std::span<const register_field> plr3_register_fields();

// The field of that register and name. Both must be in the table: a name that is not ends the process.
const register_field &plr3_register_field(std::string_view reg, std::string_view field);

// The command of that name, which must be in the table; its fields, in the order of its arguments.
const register_command &plr3_register_command(std::string_view name);
std::vector<const register_field *> plr3_fields_of(std::string_view command);

struct field_value {
    const register_field &field;
    int value;
};
// 0, or plr3_out_of_range with a text that names the function, the field, its value and its limits.
int plr3_check_field(const char *function, const field_value &value);
// One word of these fields, all of one register, the rest of it zero: 0, or what the check says.
int plr3_pack_fields(const char *function, std::span<const field_value> values, std::uint32_t &word);

// A field's bits in a word, in place; and its value in a word, with its sign if it has one.
std::uint32_t plr3_field_mask(const register_field &field);
std::uint32_t plr3_field_bits(const field_value &value);
std::int64_t plr3_field_value(const register_field &field, std::uint32_t word);

// "chan-cont: source 3, invert 1": the register at that offset of generation 3, by its fields.
// Empty where no row stands.
std::string plr3_describe_word(register_scope scope, int offset, std::uint32_t word);

// The block memories of a channel: regions that are tables, not registers.
struct block_memory {
    int region;
    const char *name;
    int words;
    const char *what;
};
std::span<const block_memory> plr3_block_memories();

} // namespace kestrel
