// parser: the value of an expression.
#pragma once

#include <cstddef>
#include <string>

namespace kestrel {

enum value_type : int { pe_error, pe_int, pe_double, pe_qualifier, pe_string };

struct PE_Value {
    value_type type = pe_error;
    int IntValue = 0;
    double DoubleValue = 0.0;
    std::string StringValue; // of a string or qualifier

    static PE_Value of(int value) { return {pe_int, value, 0.0, {}}; }
    static PE_Value of(double value) { return {pe_double, 0, value, {}}; }
    static PE_Value of(std::string value, value_type type = pe_string) {
        return {type, 0, 0.0, std::move(value)};
    }
    bool is_number() const { return type == pe_int || type == pe_double; }
    double number() const { return type == pe_int ? IntValue : DoubleValue; }
};

// A string value may hold this much; concatenating beyond it is an error, so that a script that doubles a
// string in a loop cannot take the machine's memory.
inline constexpr std::size_t string_value_max = std::size_t{1} << 20;

} // namespace kestrel
