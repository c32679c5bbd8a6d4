// `client`: the links as connections.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"
#include "parser/call.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"
#include "server/wait.h"

#include <chrono>
#include <string>

namespace kestrel::links {

namespace {

constexpr int first_probe = 1234; // the number that a healthy remote sends back

// 0 when the link is open and answers with the number, else 1.
int try_connection(int cn, int link, int number) {
    if (!connected_to(link))
        return client_connect(cn, link) == 0 ? 0 : 1;
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

// The link of each keyword.
constexpr int connect_links[] = {link_lux,  link_luy,    link_corr,    link_adcx,
                                 link_adcy, link_motors, link_emberw0, link_emberw1};

int try_all(int cn, int quals, int number) {
    int failures = 0;
    for (std::size_t i = 0; i < std::size(connect_links); ++i)
        if (quals & 1 << i)
            failures += try_connection(cn, connect_links[i], number);
    return failures;
}

int connect_many(int quals, int cn, int seconds) {
    using std::chrono::steady_clock;
    const auto start = steady_clock::now();
    sv_quit = 0;
    for (int number = first_probe;; ++number) {
        const int failures = try_all(cn, quals, number);
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

int up(int quals, int cn) {
    constexpr int up_links[] = {link_lux, link_luy, link_corr, link_adcx, link_adcy};
    for (std::size_t i = 0; i < std::size(up_links); ++i)
        if (quals == 1 << i)
            return client_connect(cn, up_links[i]) == 0 ? 1 : -1;
    sv_printf(cn, "! You must specify one qualifier from lux, luy, corr, adcx or adcy.\n");
    return -1;
}

int define(int quals, int cn, const char *host, int port) {
    constexpr int define_links[] = {link_motors, link_imgd, link_user1, link_user2, link_kairo};
    constexpr int port_max = 65535;
    if (quals != 0 && (port < 1 || port > port_max)) {
        sv_printf(cn, "! Port should be 1..%d not %d\n", port_max, port);
        return -1;
    }
    for (std::size_t i = 0; i < std::size(define_links); ++i) {
        if (!(quals & 1 << i))
            continue;
        client_redefine(cn, define_links[i], host, port);
        return 0;
    }
    return -1;
}

} // namespace

const PARSE_TREE client_tree[] = {
    pt_command<connect_many>("connect", "%d lux luy corr adcx adcy motor emberw0 emberw1 = %d",
                             "connect to other servers, retrying until all answer",
                             "Time-out in seconds/Look-up X/Look-up Y/Correlator/ADC X/ADC Y/Motor server/"
                             "EMBERW 0/EMBERW 1"),
    pt_command<disconnect_all>("disconnect", "= %d", "disconnect from all other servers (they keep running)",
                               ""),
    pt_command<status>("status", "= %d", "display the status of the connections to other servers", ""),
    pt_command<up>("up", "lux luy corr adcx adcy = %d", "test whether a server is or can be connected",
                   "Look-up X/Look-up Y/Correlator/ADC X/ADC Y"),
    pt_command<define>("define", "%s %d motor imgd user1 user2 kairo = %d",
                       "define host and port of another server",
                       "Host/Port/Motor server/Image displayer/User server 1/User server 2/KAIRO"),
    pt_end(),
};

} // namespace kestrel::links
