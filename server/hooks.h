// server: what the rooms above define. The server knows no command language: it hands on lines and asks.
// A program fills this record once, before sv_main.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <sys/select.h>
#include <vector>

namespace kestrel {

struct server_hooks {
    // Interprets one command line (arguments: session, line, print the result, command log, verbose log).
    int (*service)(int cn, std::string_view line, int print_result, std::FILE *log,
                   std::FILE *vlog) = nullptr;
    // Runs the start-up file on session 0; takes the opened descriptor over.
    void (*include_startup)(int cn, const char *name, int fd) = nullptr;
    // Candidates for the word before the end of `line`, each a whole line.
    std::vector<std::string> (*complete)(std::string_view line) = nullptr;
    // Arguments that the server did not take; ends the process if it does not know one.
    void (*user_main)(int argc, char **argv) = nullptr;
    void (*user_connect)(int cn) = nullptr;
    void (*user_disconnect)(int cn) = nullptr;
    void (*user_exit)() = nullptr;
    // What the rooms above add to the control socket's answers. Called on its thread while commands run: they read counts
    // and take no lock that a command holds while it works.
    void (*status)(std::string &out) = nullptr;
    void (*metrics)(std::string &out) = nullptr;
};

extern server_hooks sv_hooks;

// Descriptors that other rooms watch in the network loop, as if it were a select: the first adds to the set and
// returns the new highest descriptor; the second is called with what is ready. Either may be null. They are
// asked every turn, but the kernel is told of changes only: a descriptor that is to be closed is left out for
// a turn before its number may stand for another.
extern int (*user_select_add)(fd_set *set, int highest);
extern void (*user_select_test)(const fd_set *set);

// Options, set-up, one of the two loops. Returns the process's exit status.
int sv_main(int argc, char **argv);

} // namespace kestrel
