// The links' configuration: "key host port" lines, "#" or ";" comments.
#include "instruments/links/clients.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kestrel::links {

link_config clientconfig[link_count] = {
    {"lux", "Look-Up Board for X", cln_no_host, 1974},
    {"luy", "Look-Up Board for Y", cln_no_host, 1974},
    {"corr", "Correlator", cln_no_host, 1976},
    {"adcx", "ADC Boards for X", cln_no_host, 1978},
    {"adcy", "ADC Boards for Y", cln_no_host, 1978},
    {"motors", "Stepper Motors", cln_no_host, 1980},
    {"pgen", "Pulse Generator", cln_no_host, 1982},
    {"imgd", "Image Display", "127.0.0.1", 1970},
    {"emberw0", "EMBERW 0", cln_no_host, 1978},
    {"emberw1", "EMBERW 1", cln_no_host, 1978},
    {"user1", "User 1", cln_no_host, 1972},
    {"user2", "User 2", cln_no_host, 1972},
    {"kairo", "KAIRO", cln_no_host, 1972},
};

namespace {

constexpr const char *ini_paths[] = {"kestrel.clients.ini", "/etc/kestrel.clients.ini"};
constexpr std::size_t ini_line_max = 256;
constexpr int port_max = 65535;

link_config *find_key(const std::string &key) {
    for (link_config &c : clientconfig)
        if (key == c.key)
            return &c;
    return nullptr;
}

// The line without its comment, which begins at a "#" or ";" that begins a word.
std::string without_comment(const std::string &line) {
    for (std::size_t at = line.find_first_of("#;"); at != std::string::npos;
         at = line.find_first_of("#;", at + 1)) {
        if (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\t' || line[at - 1] == '=')
            return line.substr(0, at);
    }
    return line;
}

// One line "key host port", also "key = host port". False when it is malformed.
bool take_line(const std::string &line) {
    std::string text = without_comment(line);
    if (text.size() > ini_line_max)
        return false;
    if (const std::size_t equals = text.find('='); equals != std::string::npos)
        text[equals] = ' ';
    std::istringstream words(text);
    std::string key, host, port_text, rest;
    if (!(words >> key))
        return true;
    words >> host;
    words >> port_text;
    int port = 0;
    const auto [end, error] = std::from_chars(port_text.data(), port_text.data() + port_text.size(), port);
    link_config *config = find_key(key);
    if (!config || port_text.empty() || error != std::errc{} || end != port_text.data() + port_text.size() ||
        port < 1 || port > port_max || words >> rest)
        return false;
    config->host = host;
    config->port = port;
    return true;
}

void read_ini(const char *path, std::ifstream &file) {
    std::printf("Configuring sub-servers from file %s.\n", path);
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (take_line(line))
            continue;
        std::printf("Error in ini-file %s at line %d.\n", path, number);
        std::fflush(stdout);
        std::exit(1);
    }
    std::fflush(stdout);
}

} // namespace

void clients_init() {
    for (const char *path : ini_paths) {
        std::error_code unreadable;
        if (!std::filesystem::is_regular_file(path, unreadable)) // a pipe would hold up the start
            continue;
        std::ifstream file(path);
        if (!file)
            continue;
        read_ini(path, file);
        return;
    }
    std::printf("Sub-server configuration file not in:\n");
    for (const char *path : ini_paths)
        std::printf("    %s\n", path);
    std::printf("Loading default configuration instead.\n");
    std::fflush(stdout);
}

} // namespace kestrel::links
