// instruments/links: one connection to another server of our own kind. Waits end with ^C; what the remote
// says on its way goes to callbacks. Used by the command thread.
#pragma once

#include "instruments/links/reply_reader.h"
#include "support/fd.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::links {

inline constexpr int cln_patience_ms = 10'000;             // to connect, and to send its prompt
inline constexpr const char *cln_no_host = "unconfigured"; // no host: connecting fails at once

// What the layer does with the lines that come while a command runs. `link` is the caller's number.
struct cln_handlers {
    void (*information)(int link, const std::string &text) = nullptr;
    void (*error)(int link, const std::string &text) = nullptr;
    void (*progress)(int link, const remote_progress &progress) = nullptr;
    void (*error_code)(int link, const char *text) = nullptr;     // the link failed, and why
    int (*question)(int link, const std::string &text) = nullptr; // 1 yes, 0 no, -1 nobody answers
};

enum class cln_status {
    ok,
    failed,      // closed, reset, silent, or not speaking our language
    interrupted, // ^C, or the session that asked is gone
};

struct cln_link {
    int number = 0;
    int cn = -1; // the session whose replies are sent before anything waits
    unique_fd socket{};
    reply_reader reader{};
    const cln_handlers *handlers = nullptr;
    const char *failure = "";                                        // why the last wait failed
    std::optional<std::chrono::steady_clock::time_point> deadline{}; // of whoever is in a hurry
};

// Connects to host and port: 0, or a system error number.
int cln_connect(cln_link &link, const char *host, int port);
void cln_disconnect(cln_link &link);

// Waits until the remote is ready for a command. The error_code handler is not told of a failure.
cln_status cln_wait_prompt(cln_link &link);

// Sends one command line.
cln_status cln_send(cln_link &link, std::string_view command);
// Sends a line that the command under way reads.
cln_status cln_send_more(cln_link &link, std::string_view text);
cln_status cln_cmd_printf(cln_link &link, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Waits for the end of a command's reply; its result is then link.reader.result().
cln_status cln_wait_reply(cln_link &link);

// Takes in what has come without waiting. True when the reply has ended; `status` tells of a failure.
bool cln_poll_reply(cln_link &link, cln_status &status);

// A listening socket on the address by which the remote reaches us, and its port; an empty guard on failure.
unique_fd cln_listen(const cln_link &link, int &port);
// Accepts one connection that comes from the remote's own address; an empty guard for any other.
unique_fd cln_accept(const cln_link &link, int listener);

// The result as an integer: a number's value, 0 for a string or no result, -1 for null or an unknown one.
int cln_integer(const remote_result &result);

} // namespace kestrel::links
