#include "pulsar3/server/table_source.h"

#include "modules/store/element.h"
#include "modules/store/result_module.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "support/file_io.h"

#include <bit>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <span>

namespace kestrel {

namespace {

constexpr std::size_t file_max = std::size_t{4} << 20; // bytes; no table needs more

std::nullopt_t refuse(int cn, const char *name, const char *why) {
    sv_printf(cn, "! ERROR: Cannot use table '%s': %s\n", name, why);
    return std::nullopt;
}

// What follows the line that begins with the header; nothing where there is no such line.
std::optional<std::string_view> after_header(std::string_view text, std::string_view header) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1);
        const bool found = text.starts_with(header);
        text.remove_prefix(end + 1);
        if (found)
            return text;
    }
    return std::nullopt;
}

std::optional<std::uint32_t> word_of(std::string_view text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (hex)
        text.remove_prefix(2);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || value < INT32_MIN || value > UINT32_MAX ||
        (hex && value < 0))
        return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

std::optional<table_words> words_of_text(int cn, const char *name, std::string_view text) {
    constexpr std::string_view blanks = " \t\r\v\f,";
    table_words words;
    for (int line = 1; !text.empty(); ++line) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view row = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        row = row.substr(0, row.find('#'));
        for (std::size_t at = row.find_first_not_of(blanks); at != row.npos;
             at = row.find_first_not_of(blanks, at)) {
            const std::size_t stop = std::min(row.find_first_of(blanks, at), row.size());
            const std::optional<std::uint32_t> word = word_of(row.substr(at, stop - at));
            if (!word) {
                sv_printf(cn,
                          "! ERROR: Cannot use table '%s': line %d has something that is no 32-bit number\n",
                          name, line);
                return std::nullopt;
            }
            words.push_back(*word);
            at = stop;
        }
    }
    return words;
}

std::optional<table_words> words_of_bytes(int cn, const char *name, std::string_view bytes, bool swap) {
    if (bytes.size() % 4 != 0)
        return refuse(cn, name, "a binary table has four bytes a word");
    if (bytes.empty())
        return table_words{};
    table_words words(bytes.size() / 4);
    std::memcpy(words.data(), bytes.data(), bytes.size());
    const bool turn = swap != (std::endian::native == std::endian::big);
    for (std::uint32_t &word : words)
        word = turn ? __builtin_bswap32(word) : word;
    return words;
}

std::optional<table_words> words_of(int cn, const char *name, std::string_view content,
                                    const table_form &form) {
    if (!form.header.empty()) {
        const std::optional<std::string_view> rest = after_header(content, form.header);
        if (!rest)
            return refuse(cn, name, "no line begins with the header");
        content = *rest;
    }
    return form.binary ? words_of_bytes(cn, name, content, form.swap) : words_of_text(cn, name, content);
}

// A module's element as a word; nothing for a real number that is none.
std::optional<std::uint32_t> word_of(double value) {
    if (!(value >= INT32_MIN && value <= UINT32_MAX) ||
        value != static_cast<double>(static_cast<std::int64_t>(value)))
        return std::nullopt;
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(value));
}

} // namespace

std::optional<table_words> table_of_file(int cn, const char *name, const table_form &form) {
    const unique_fd file = open_regular(name, O_RDONLY);
    if (!file)
        return refuse(cn, name, std::strerror(errno));
    std::string content(file_max + 1, '\0');
    std::size_t length = 0;
    while (length < content.size()) {
        const ssize_t n = read_some(file.get(), content.data() + length, content.size() - length);
        if (n < 0)
            return refuse(cn, name, std::strerror(errno));
        if (n == 0)
            break;
        length += static_cast<std::size_t>(n);
    }
    if (length > file_max)
        return refuse(cn, name, "it is larger than any table");
    content.resize(length);
    return words_of(cn, name, content, form);
}

std::optional<table_words> table_of_remote_file(int cn, const ftp_account &account, const char *name,
                                                const table_form &form) {
    sv_flush_all(cn); // the far end may let us wait
    std::string content;
    const auto sink = [&content](std::span<const std::byte> bytes) {
        content.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        return content.size() <= file_max;
    };
    ftp_options options;
    options.stop = [] { return sv_quit != 0; };
    const ftp_result result = ftp_get(account, name, sink, options);
    if (content.size() > file_max)
        return refuse(cn, name, "it is larger than any table");
    if (!result) {
        sv_printf(cn, "! ERROR: Cannot fetch table '%s' from '%s', user '%s': %s\n", name,
                  account.machine.c_str(), account.user.c_str(),
                  result.failed == ftp_stage::login ? "login refused" : result.text.c_str());
        return std::nullopt;
    }
    return words_of(cn, name, content, form);
}

std::optional<table_words> table_of_module(int cn, const char *name) {
    result_module module;
    if (!module.find(name))
        return refuse(cn, name, "there is no such module");
    if (module.look(cn) != 0)
        return std::nullopt;
    const module_view &view = module.view();
    if (view.elements() > file_max / 4)
        return refuse(cn, name, "it is larger than any table");
    table_words words;
    for (std::size_t i = 0; i < view.elements(); ++i) {
        const std::optional<std::uint32_t> word =
            word_of(mod_get_element(view.data() + i * view.element_size, view.data_type));
        if (!word)
            return refuse(cn, name, "it holds what is no 32-bit number");
        words.push_back(*word);
    }
    return words;
}

} // namespace kestrel
