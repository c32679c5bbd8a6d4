// display: the web server: the page's files, /metrics, and the WebSocket /live. One thread serves all browsers; nothing
// that a browser sends can change anything here.
#pragma once

#include <netinet/in.h>
#include <string>
#include <vector>

namespace kestrel::display {

struct web_options {
    in_addr address{};
    int port = 8970;
    std::vector<std::string>
        names{}; // of this machine that pages may be asked for by, besides addresses and localhost
    std::string server_path; // the control socket of the server that is watched
};

// Listens and starts the thread: false after a line on standard error.
bool web_start(const web_options &options);
void web_stop();

} // namespace kestrel::display
