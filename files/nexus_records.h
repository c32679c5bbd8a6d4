// files: how the server tells kestrel-nexus what to write: records, each a line of words, of which the last is a number
// of bytes, and so many bytes. Groups come before what lies in them.
//
//   group PATH CLASS         text PATH            attribute PATH NAME      names PATH NAME   (a text a line)
//   TYPE PATH NxNx.. UNITS   an array: u8, i32, u32, u64, f64; "-" for no units
//   link PATH TARGET         card PATH COUNTS STATUS CHANNELS AUXILIARIES   (the modules' descriptors)
//   frames N HOW             the first record of the results: the run has so many, and "all" of them are there to be
//                            copied as they are, or "final" ones only, since others may come still
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// Descriptors of kestrel-nexus, as the server starts it.
enum nexus_descriptor : int {
    nexus_job = 0,     // the records at the start
    nexus_answers = 1, // lines: "made", "copied", "whole", or "! " and the cause of a failure
    nexus_control = 3, // bytes as below; its end is the server's
    nexus_results = 4, // the records at the end
    nexus_modules = 5, // the first of the modules that the cards name
};
enum nexus_order : char {
    nexus_end = 'E',    // the results are there: copy what is left
    nexus_rename = 'K', // what was copied is one run's: the file gets its name
};

struct nexus_record {
    std::vector<std::string_view> words;
    std::string_view bytes;
};

// Takes the first record off; nothing where there is none that is whole.
inline std::optional<nexus_record> nexus_take_record(std::string_view &text) {
    const std::size_t end = text.find('\n');
    if (end == text.npos)
        return std::nullopt;
    nexus_record record;
    for (std::string_view line = text.substr(0, end); !line.empty();) {
        const std::size_t stop = std::min(line.find(' '), line.size());
        record.words.push_back(line.substr(0, stop));
        line.remove_prefix(std::min(stop + 1, line.size()));
    }
    text.remove_prefix(end + 1);
    std::size_t size = 0;
    if (record.words.empty())
        return std::nullopt;
    const std::string_view last = record.words.back();
    if (std::from_chars(last.data(), last.data() + last.size(), size).ec != std::errc() || size > text.size())
        return std::nullopt;
    record.words.pop_back();
    record.bytes = text.substr(0, size);
    text.remove_prefix(size);
    return record;
}

class nexus_records {
  public:
    void add(std::initializer_list<std::string_view> words, std::string_view bytes = {}) {
        for (const std::string_view word : words)
            text_.append(word) += ' ';
        text_ += std::to_string(bytes.size()) + "\n";
        text_ += bytes;
    }
    template <class T>
    void array(const std::string &path, std::span<const T> values, std::initializer_list<std::size_t> sizes,
               std::string_view units = "") {
        std::string extent;
        for (const std::size_t size : sizes)
            extent += (extent.empty() ? "" : "x") + std::to_string(size);
        add({type_name(T()), path, extent, units.empty() ? "-" : units},
            {reinterpret_cast<const char *>(values.data()), values.size_bytes()});
    }
    const std::string &text() const { return text_; }

  private:
    static const char *type_name(std::int32_t) { return "i32"; }
    static const char *type_name(std::uint32_t) { return "u32"; }
    static const char *type_name(std::uint64_t) { return "u64"; }
    static const char *type_name(double) { return "f64"; }

    std::string text_;
};

} // namespace kestrel
