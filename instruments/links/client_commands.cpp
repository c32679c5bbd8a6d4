// `client`: the links as connections.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"
#include "parser/qualifiers.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"
#include "server/wait.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

namespace kestrel::links {

namespace {

using std::chrono::steady_clock;

constexpr int first_probe = 1234;                 // the number that a healthy remote sends back
constexpr std::chrono::seconds least_patience{1}; // with a remote, however short the command's time is

// 0 when the link is open and answers with the number, else 1. A connection just made is asked, too: one that
// is out of step stays so when it is opened again.
int try_connection(int cn, int link, int number, steady_clock::time_point end) {
    const link_deadline deadline(link, std::max(end, steady_clock::now() + least_patience));
    if (client_connect(cn, link) != 0)
        return 1;
    const std::optional<remote_result> reply = send_once(cn, link, std::to_string(number));
    const int answer = reply ? cln_integer(*reply) : -1;
    if (answer == number)
        return 0;
    if (answer < 0) {
        sv_printf(cn, "# Connection to client '%s' seems broken, retrying\n", clientconfig[link].name);
        return 1;
    }
    sv_printf(cn, "# Connection to client '%s' seems out of step, disconnecting\n", clientconfig[link].name);
    disconnect_from(cn, link);
    return 1;
}

constexpr pt_format connect_format("%d lux luy corr adcx adcy motor emberw0 emberw1 = %d");
using connect_quals = pt_qualifiers<connect_format>;
constexpr connect_quals::choice<int> connect_links[] = {
    {"lux", link_lux},   {"luy", link_luy},      {"corr", link_corr},       {"adcx", link_adcx},
    {"adcy", link_adcy}, {"motor", link_motors}, {"emberw0", link_emberw0}, {"emberw1", link_emberw1},
};

int try_all(int cn, const connect_quals &q, int number, steady_clock::time_point end) {
    int failures = 0;
    for (const auto &[word, link] : connect_links)
        if (q.given(word))
            failures += try_connection(cn, link, number, end);
    return failures;
}

int connect_many(int quals, int cn, int seconds) {
    const connect_quals q(quals);
    const auto start = steady_clock::now();
    const auto end = start + std::chrono::seconds(seconds);
    sv_quit = 0;
    for (int number = first_probe;; ++number) {
        const int failures = try_all(cn, q, number, end);
        const double elapsed = std::chrono::duration<double>(steady_clock::now() - start).count();
        if (elapsed > seconds) {
            sv_printf(cn, "! Abbandoned\tconnection attempts due time out after %g seconds\n", elapsed);
            return -1;
        }
        if (sv_quit == 0 && failures == 0)
            return 0;
        if (sv_quit == 0) {
            sv_timebar(cn, static_cast<int>(elapsed), seconds, "Connecting");
            sv_sleep(cn, 1.0);
        }
        if (sv_quit) {
            sv_printf(cn, "! Abbandoned\tconnection attempts due to ^C\n");
            return -1;
        }
    }
}

int disconnect_all(int, int cn) {
    for (int link = 0; link < link_count; ++link)
        disconnect_from(cn, link);
    return 0;
}

int status(int, int cn) {
    for (int link = 0; link < link_count; ++link)
        sv_printf(cn, "# %2d %-20s %s port %d: %s\n", link, clientconfig[link].name,
                  clientconfig[link].host.c_str(), clientconfig[link].port,
                  connected_to(link) ? "connected" : "not connected");
    return 0;
}

constexpr pt_format up_format("lux luy corr adcx adcy = %d");
using up_quals = pt_qualifiers<up_format>;
constexpr up_quals::choice<int> up_links[] = {
    {"lux", link_lux}, {"luy", link_luy}, {"corr", link_corr}, {"adcx", link_adcx}, {"adcy", link_adcy}};

int up(int quals, int cn) {
    const up_quals q(quals);
    if (const std::optional<int> link = q.only(up_links))
        return client_connect(cn, *link) == 0 ? 1 : -1;
    sv_printf(cn, "! You must specify one qualifier from lux, luy, corr, adcx or adcy.\n");
    return -1;
}

constexpr pt_format define_format("%s %d motor imgd user1 user2 kairo = %d");
using define_quals = pt_qualifiers<define_format>;
constexpr define_quals::choice<int> define_links[] = {{"motor", link_motors},
                                                      {"imgd", link_imgd},
                                                      {"user1", link_user1},
                                                      {"user2", link_user2},
                                                      {"kairo", link_kairo}};

int define(int quals, int cn, const char *host, int port) {
    constexpr int port_max = 65535;
    const define_quals q(quals);
    const std::optional<int> link = q.first(define_links);
    if (link && (port < 1 || port > port_max)) {
        sv_printf(cn, "! Port should be 1..%d not %d\n", port_max, port);
        return -1;
    }
    if (!link)
        return -1;
    client_redefine(cn, *link, host, port);
    return 0;
}

} // namespace

constinit const PARSE_TREE client_tree[] = {
    pt_command<connect_many>("connect", connect_format, "connect to other servers, retrying until all answer",
                             "Time-out in seconds/Look-up X/Look-up Y/Correlator/ADC X/ADC Y/Motor server/"
                             "EMBERW 0/EMBERW 1"),
    pt_command<disconnect_all>("disconnect", "= %d", "disconnect from all other servers (they keep running)",
                               ""),
    pt_command<status>("status", "= %d", "display the status of the connections to other servers", ""),
    pt_command<up>("up", up_format, "test whether a server is or can be connected",
                   "Look-up X/Look-up Y/Correlator/ADC X/ADC Y"),
    pt_command<define>("define", define_format, "define host and port of another server",
                       "Host/Port/Motor server/Image displayer/User server 1/User server 2/KAIRO"),
    pt_end(),
};

} // namespace kestrel::links
