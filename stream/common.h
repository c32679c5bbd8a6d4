// stream: what the programs of this room have in common: their options beside a server's, and their text port.
#pragma once

#include "parser/tree.h"
#include "stream/broker.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kestrel::stream {

struct program_option {
    std::string_view word; // "-name=", or "-name" for one without a value
    const char *value, *help;
    bool (*take)(std::string_view value); // false: it cannot be that
};

// "-site=": where the broker is.
bool take_site(std::string_view text);
extern const program_option site_option;
// The site that was named, or ends the program with a line that none was.
const broker_site &chosen_site();

// Takes the options of argv, or ends the program with a list of them.
void take_options(int argc, char **argv, std::span<const program_option> options);

std::optional<long long> whole_number(std::string_view text);

struct server_program {
    int port; // its own, where nobody names another
    const PARSE_TREE *root;
    void (*begin)(int argc, char **argv);
    void (*end)();
    void (*status)(std::string &out);
    void (*metrics)(std::string &out);
};
// Runs a server of our kind; returns the process's exit status.
int run_server(const server_program &program, int argc, char **argv);

} // namespace kestrel::stream
