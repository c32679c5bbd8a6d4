// `remote-open`: another server's data behind a unified handle of ours. Every read is a `read` over there,
// whose bytes come back on a data connection.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "support/element.h"
#include "unified/handles/handles.h"

#include <array>
#include <bit>
#include <cstddef>
#include <optional>
#include <string>

namespace kestrel::links {

namespace {

// A remote handle in use. It dies with the connection on which it was opened.
struct remote_source {
    bool used = false;
    int link = 0;
    int handle = -1; // over there
    unsigned long generation = 0;
    int cn = -1; // the session that opened it hears what the remote prints
    std::size_t elem_size = 0;
};

std::array<remote_source, unified_max_handles> sources;

// The source while its connection still stands.
remote_source *live_source(int path) {
    if (path < 0 || path >= static_cast<int>(sources.size()) || !sources[static_cast<std::size_t>(path)].used)
        return nullptr;
    remote_source &source = sources[static_cast<std::size_t>(path)];
    if (connected_to(source.link) && client_generation(source.link) == source.generation)
        return &source;
    unified_explain("the connection to %s on which it was opened is gone", clientconfig[source.link].name);
    return nullptr;
}

std::string box_text(int x, int y, int t, int dx, int dy, int dt) {
    std::string text;
    for (const int value : {x, y, t, dx, dy, dt})
        text += " " + std::to_string(value);
    return text;
}

// The order of bytes in which this machine keeps its numbers.
constexpr const char *own_order = std::endian::native == std::endian::little ? "intel" : "motorola";

int remote_read(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const remote_source *source = live_source(path);
    if (!source)
        return -1;
    const std::size_t elements =
        static_cast<std::size_t>(dx) * static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    const std::string command = "read" + box_text(x, y, t, dx, dy, dt) + " from " +
                                std::to_string(source->handle) + " raw " + own_order;
    return clients_get_data(source->cn, source->link, source->generation, command, buffer,
                            elements * source->elem_size);
}

int forward(int path, const std::string &verb, const std::string &arguments = "") {
    const remote_source *source = live_source(path);
    if (!source)
        return -1;
    return send_same_connection(source->cn, source->link, source->generation,
                                verb + " " + std::to_string(source->handle) + arguments);
}

int remote_clear(int path, int x, int y, int t, int dx, int dy, int dt) {
    return forward(path, "clear", box_text(x, y, t, dx, dy, dt));
}
int remote_enable(int path) {
    return forward(path, "enable");
}
int remote_disable(int path) {
    return forward(path, "disable");
}

void remote_destroy(int path, int) {
    if (live_source(path))
        forward(path, "close");
    sources[static_cast<std::size_t>(path)].used = false;
}

constexpr unified_source callbacks = {.read = remote_read,
                                      .destroy = remote_destroy,
                                      .clear = remote_clear,
                                      .enable = remote_enable,
                                      .disable = remote_disable};

constexpr pt_format
    remote_open_format("%s adcx adcy corr lux luy motors pgen emberw0 emberw1 imgd user1 user2 kairo = %d");
using remote_open_quals = pt_qualifiers<remote_open_format>;
constexpr remote_open_quals::choice<int> remote_links[] = {
    {"adcx", link_adcx},       {"adcy", link_adcy},     {"corr", link_corr},   {"lux", link_lux},
    {"luy", link_luy},         {"motors", link_motors}, {"pgen", link_pgen},   {"emberw0", link_emberw0},
    {"emberw1", link_emberw1}, {"imgd", link_imgd},     {"user1", link_user1}, {"user2", link_user2},
    {"kairo", link_kairo},
};

int ask(int cn, int link, const char *question, int handle) {
    return send_same_connection(cn, link, client_generation(link),
                                std::string(question) + " " + std::to_string(handle));
}

remote_source *free_source(int &path) {
    for (path = 0; path < static_cast<int>(sources.size()); ++path)
        if (!sources[static_cast<std::size_t>(path)].used)
            return &sources[static_cast<std::size_t>(path)];
    return nullptr;
}

// Opens our handle on the remote's: its number, or -1 after a line.
int open_local(int cn, int link, int handle, const std::string &command) {
    const int nx = ask(cn, link, "unif-get-nx", handle), ny = ask(cn, link, "unif-get-ny", handle);
    const int nt = ask(cn, link, "unif-get-nt", handle), type = ask(cn, link, "unif-get-type", handle);
    if (nx < 0 || ny < 0 || nt < 0 || element_size(type) == 0) {
        sv_printf(cn, "! Error getting info on remote handle %d\n", handle);
        return -1;
    }
    int path = 0;
    remote_source *source = free_source(path);
    if (!source) {
        sv_printf(cn, "! Too many remote handles are open\n");
        return -1;
    }
    *source = {true, link, handle, client_generation(link), cn, static_cast<std::size_t>(element_size(type))};
    const std::string description = std::string(clientconfig[link].name) + ": " + command;
    const int local = unified_open(cn, path, nx, ny, nt, type, description.c_str(), callbacks);
    if (local < 0)
        source->used = false;
    return local;
}

int remote_open(int quals, int cn, const char *command) {
    const remote_open_quals q(quals);
    const std::optional<int> link = q.only(remote_links);
    if (!link) {
        sv_printf(cn, "! Must supply one link to open a remote handle on\n");
        return -1;
    }
    const std::string text = command;
    const std::optional<remote_result> opened = send_exchange(cn, *link, text);
    const int *handle_there = opened ? std::get_if<int>(&*opened) : nullptr;
    if (!handle_there || *handle_there < 0) {
        sv_printf(cn, "! Cannot open remote handle\n");
        return -1;
    }
    const int handle = *handle_there;
    const unsigned long generation = client_generation(*link);
    const int local = open_local(cn, *link, handle, text);
    if (local < 0 && client_generation(*link) == generation)
        ask(cn, *link, "close", handle);
    return local;
}

} // namespace

constinit const PARSE_TREE row_remote_open = pt_command<remote_open>(
    "remote-open", remote_open_format, "Open a unified path on a remote server",
    "Open command of the remote server/ADC boards for X/ADC boards for Y/Correlator/Look-up board for X/"
    "Look-up board for Y/Stepper motors/Pulse generator/EMBERW 0/EMBERW 1/Image displayer/User server 1/"
    "User server 2/KAIRO");

} // namespace kestrel::links
