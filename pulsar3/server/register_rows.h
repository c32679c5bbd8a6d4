// pulsar3/server: a command's format and help, made by the compiler from the table of register fields.
//
//   "%d %d" path and channel (or card), "%d" a number field each, then the words of the switches, "= %d".
#pragma once

#include "pulsar3/lib/registers/register_fields.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace kestrel::register_rows {

// A text that grows while the compiler works.
struct row_text {
    std::array<char, 1536> chars{};
    std::size_t length = 0;

    constexpr row_text &add(std::string_view text) {
        for (const char c : text) // too long a text does not compile
            chars[length++] = c;
        return *this;
    }
    constexpr row_text &add(int number) {
        if (number < 0)
            return add("-").add(-number);
        if (number >= 10)
            add(number / 10);
        chars[length++] = static_cast<char>('0' + number % 10);
        return *this;
    }
};

consteval std::size_t command_index(std::string_view name) {
    for (std::size_t i = 0; i < std::size(commands); ++i)
        if (commands[i].name == name)
            return i;
    throw "the table of registers has no such command";
}

// action(field) for the command's fields of that form.
template <class F> constexpr void each_field(std::string_view command, field_form form, F action) {
    for (const register_field &field : fields)
        if (field.command == command && field.form == form)
            action(field);
}

consteval row_text format_of(std::string_view command) {
    row_text text;
    text.add("%d %d");
    each_field(command, field_form::number, [&](const register_field &) { text.add(" %d"); });
    each_field(command, field_form::keyword,
               [&](const register_field &field) { text.add(" ").add(field.field); });
    text.add(" = %d");
    return text;
}

consteval row_text arguments_of(std::string_view command) {
    row_text text;
    bool of_card = false;
    for (const register_field &field : fields) {
        if (std::string_view(field.help).find('/') != std::string_view::npos)
            throw "a slash would end the help text of an argument";
        of_card = of_card || (field.command == command && field.scope == register_scope::card);
    }
    text.add(of_card ? "Path/Card, -1 for all" : "Path/Channel, -1 for all");
    each_field(command, field_form::number, [&](const register_field &field) {
        text.add("/").add(field.field).add(" (").add(field.lowest).add(" to ").add(field.highest).add("): ");
        text.add(field.help);
    });
    each_field(command, field_form::keyword,
               [&](const register_field &field) { text.add("/").add(field.help); });
    return text;
}

} // namespace kestrel::register_rows
