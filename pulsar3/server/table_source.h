// pulsar3/server: tables of 32-bit words from where users keep them: a file here or on an FTP server, a module.
#pragma once

#include "support/ftp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// How a file holds its words: binary (little-endian, or with the bytes of each word swapped), or as text: whole
// numbers, decimal or 0x..., between blanks; "#" begins a comment. `header`: what stands up to and with the first
// line that begins so is no part of the table.
struct table_form {
    bool binary = false;
    bool swap = false;
    std::string_view header;
};

using table_words = std::vector<std::uint32_t>;

// Each prints its failure to the session and gives nothing.
std::optional<table_words> table_of_file(int cn, const char *name, const table_form &form);
std::optional<table_words> table_of_remote_file(int cn, const ftp_account &account, const char *name,
                                                const table_form &form);
// A module of whole numbers or real ones that are whole, row by row.
std::optional<table_words> table_of_module(int cn, const char *name);

} // namespace kestrel
