// server: the process's options and the settings that they change.
#pragma once

#include "server/allowed.h"

#include <string>
#include <vector>

namespace kestrel {

struct server_options {
    int port = 0; // 0 is direct mode
    std::string startup_file;
    bool startup = false;
    int detach = 0;
    in_addr listen{INADDR_ANY};      // -listen: the address of this machine that sessions come to
    std::vector<ip_network> allowed; // -allow: whose sessions are taken; empty: everybody's
    std::string control;             // -control: the control socket's path; empty: the usual place
    std::string control_group;       // -control-group: who may use it besides its owner
};

extern int user_default_port;                 // 1972
extern const char *user_default_startup_file; // ".kestrel.inc"
extern server_options sv_options;

// Takes the server's own options out of argv, opens the logs. Ends the process for "-server?".
void sv_parse_options(int &argc, char **argv);

// One line below the program's name in banners and usages.
extern const char *const sv_credit;

} // namespace kestrel
