#include "pulsar3/lib/registers/register_table.h"

#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/lib/wire/error.h"

#include <cstdio>
#include <cstdlib>

namespace kestrel {

namespace {

constexpr block_memory memories[] = {
    {1, "event-lead", 1024, "correction of events by what leads them"},
    {2, "event-tail", 1024, "correction of events by what they follow"},
    {3, "xtk-shape", 512, "shape of cross-talk between channels"},
    {4, "xtk-map", 256, "channels that talk into this one"},
    {5, "width-time", 256, "pile-up: width against time"},
    {6, "servo-tail", 1024, "servo: tail of an event"},
    {7, "roi", 4096, "region-of-interest table"},
};

} // namespace

std::span<const register_field> plr3_register_fields() {
    return register_rows::fields;
}
std::span<const block_memory> plr3_block_memories() {
    return memories;
}

namespace {

[[noreturn]] void not_in_table(std::string_view name, std::string_view of) {
    std::fprintf(stderr, "pulsar3: no %.*s of %.*s in the table of registers\n",
                 static_cast<int>(name.size()), name.data(), static_cast<int>(of.size()), of.data());
    std::abort();
}

} // namespace

const register_field &plr3_register_field(std::string_view reg, std::string_view field) {
    for (const register_field &row : register_rows::fields)
        if (row.reg == reg && row.field == field)
            return row;
    not_in_table(field, reg);
}

const register_command &plr3_register_command(std::string_view name) {
    for (const register_command &row : register_rows::commands)
        if (row.name == name)
            return row;
    not_in_table("command", name);
}

std::vector<const register_field *> plr3_fields_of(std::string_view command) {
    std::vector<const register_field *> fields;
    for (const register_field &row : register_rows::fields)
        if (row.command == command)
            fields.push_back(&row);
    return fields;
}

int plr3_check_field(const char *function, const field_value &value) {
    const auto &[field, number] = value;
    if (number >= field.lowest && number <= field.highest)
        return 0;
    return plr3_fail(plr3_out_of_range, "%s: %s %s=%d is out of range %d..%d", function, field.reg,
                     field.field, number, field.lowest, field.highest);
}

int plr3_pack_fields(const char *function, std::span<const field_value> values, std::uint32_t &word) {
    word = 0;
    for (const field_value &value : values) {
        if (const int status = plr3_check_field(function, value); status != 0)
            return status;
        word |= plr3_field_bits(value);
    }
    return 0;
}

std::uint32_t plr3_field_mask(const register_field &field) {
    return plr3_mask(field.first_bit, field.last_bit);
}

std::uint32_t plr3_field_bits(const field_value &value) {
    return static_cast<std::uint32_t>(value.value) << value.field.first_bit & plr3_field_mask(value.field);
}

std::int64_t plr3_field_value(const register_field &field, std::uint32_t word) {
    const auto bits = static_cast<std::int64_t>(plr3_bits(word, field.first_bit, field.last_bit));
    const std::int64_t values = std::int64_t{1} << (field.last_bit - field.first_bit + 1);
    return field.lowest < 0 && bits >= values / 2 ? bits - values : bits;
}

std::string plr3_describe_word(register_scope scope, int offset, std::uint32_t word) {
    std::string text;
    for (const register_field &row : register_rows::fields) {
        if (row.scope != scope || row.offset != offset)
            continue;
        const std::int64_t value = plr3_field_value(row, word);
        text += text.empty() ? std::string(row.reg) + ":" : ",";
        text += " " + std::string(row.field) + " " + std::to_string(value);
    }
    return text;
}

} // namespace kestrel
