// files: rows of numbers as text. Knows a descriptor and nothing of sessions.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

struct ascii_table {
    int nx = 0;
    int ny = 0;
    std::vector<double> values; // nx a row
};

// Takes lines one by one; numbers are separated by blanks, tabs or commas, "#" starts a comment, lines
// without a number are skipped. Rows must be of one length.
class ascii_parser {
  public:
    // With an identification row, words of the first row that are no numbers count as 0, and its length may
    // differ: it is cut or filled with 0 to that of the next.
    explicit ascii_parser(bool id_row) : id_row_(id_row) {}

    bool line(std::string_view text); // false after an error
    bool finish();                    // false when there was no row
    const std::string &error() const { return error_; }
    ascii_table &table() { return table_; }

  private:
    bool fail(std::string cause);
    bool take_id_row(std::string_view text);
    bool take_row(std::string_view text);

    bool id_row_;
    bool first_ = true;
    long lines_ = 0;
    std::string error_;
    ascii_table table_;
    std::vector<double> ids_;
};

inline constexpr std::size_t ascii_line_max = std::size_t{64} * 1024 * 1024; // bytes
inline constexpr std::size_t ascii_values_max = std::size_t{1} << 28;        // 2 GiB of doubles

// Reads the whole file in blocks. `read` gives the count of bytes, 0 at the end, negative on failure.
bool read_ascii(const std::function<long(std::span<char>)> &read, bool id_row, ascii_table &table,
                std::string &error);

} // namespace kestrel
