// instruments/links: the thirteen links to other servers. A link belongs to the process; the session that
// runs a command over it owns it for that exchange, and sees what the remote prints meanwhile.
#pragma once

#include "instruments/links/link_protocol.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::links {

enum link_number : int {
    link_lux,
    link_luy,
    link_corr,
    link_adcx,
    link_adcy,
    link_motors,
    link_pgen,
    link_imgd,
    link_emberw0,
    link_emberw1,
    link_user1,
    link_user2,
    link_kairo,
    link_count
};

struct link_config {
    const char *key;  // in the configuration file, and as a keyword of commands
    const char *name; // in messages
    std::string host;
    int port;
};

extern link_config clientconfig[link_count];

// Reads the configuration; a malformed file ends the process with status 1. Called once at start-up.
void clients_init();

// Runs one command line on the link and returns its integer result, or -1 after lines to the session. A link
// that failed is opened again and the command sent once more; what the remote answered is never asked twice.
int send_wait(int cn, int link, const std::string &command);
// 0 with the number stored, or -1; an integer -1 behind an error line is no number.
int send_wait_double(int cn, int link, double &value, const std::string &command);
// Nothing on failure and for a null result.
std::optional<std::string> send_wait_string(int cn, int link, const std::string &command);

// The whole result of one exchange; nothing when the link failed or ^C came.
std::optional<remote_result> send_exchange(int cn, int link, const std::string &command);
// The same without a second try.
std::optional<remote_result> send_once(int cn, int link, const std::string &command);

// While it lives the link waits for nothing beyond that time.
class link_deadline {
  public:
    link_deadline(int link, std::chrono::steady_clock::time_point end);
    ~link_deadline();
    link_deadline(const link_deadline &) = delete;
    link_deadline &operator=(const link_deadline &) = delete;

  private:
    int link_;
};

// A command about a handle of the remote's, which is good for the connection of that generation only: its
// integer result, or -1 when that connection is gone or the exchange failed.
int send_same_connection(int cn, int link, unsigned long generation, const std::string &command);

// Send a command without waiting (0 or -1), send lines that it reads, and collect its integer result later.
int send_nowait(int cn, int link, const std::string &command);
int wait_for(int cn, int link);

// One more line for the command under way: sent; not sent, because its reply has ended and only wait_for is left; or -1
// after the link failed.
enum class line_sent { sent, too_late, failed };
line_sent send_string(int cn, int link, const std::string &text);

// Opens the link if it is not open: 0, or -1 after the "Can't connect" lines.
int client_connect(int cn, int link);
bool connected_to(int link);
void disconnect_from(int cn, int link);
void client_redefine(int cn, int link, const char *host, int port);
// The links that are open as lines of a status, all of them as samples of metrics. Any thread.
void clients_status(std::string &out);
void clients_metrics(std::string &out);
// How often the link has been opened: a remote handle is good for one count.
unsigned long client_generation(int link);

// Bulk data: tells the remote a data port of ours (0 or -1), runs the command and reads exactly nbytes of
// what it sends there: the command's result, or -1 after a line. The command is about a handle, so it goes
// over the connection of that generation only. The port is closed on every path.
int clients_get_data(int cn, int link, unsigned long generation, const std::string &command, void *buffer,
                     std::size_t nbytes);

} // namespace kestrel::links
