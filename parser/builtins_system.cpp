// The operating system's side: directories and commands of the host.
#include "parser/builtins.h"
#include "server/os_command.h"
#include "server/output.h"

#include <string>
#include <unistd.h>

namespace kestrel {

namespace {

// For the whole process: every session and every relative file name sees the change.
int simple_do_chd(int, int, const char *directory) {
    return ::chdir(directory);
}

int simple_do_chx(int, int cn, const char *) {
    sv_printf(cn, "! chx has no meaning on linux\n");
    return -1;
}

int list_directory(int cn, const char *command, const char *argument) {
    const std::string line = argument ? std::string(command) + " " + argument : command;
    return sv_fork_command(cn, line.c_str());
}

int simple_do_dir(int, int cn, const char *argument) {
    return list_directory(cn, "ls -l", argument);
}
int simple_do_ls(int, int cn, const char *argument) {
    return list_directory(cn, "ls", argument);
}
int simple_do_system(int, int cn, const char *command) {
    return sv_fork_command(cn, command);
}

} // namespace

constinit const PARSE_TREE row_chd =
    pt_command<simple_do_chd>("chd", "%s = %d", "change current working directory", "directory");
constinit const PARSE_TREE row_cd =
    pt_command<simple_do_chd>("cd", "%s = %d", "change current working directory", "directory");
constinit const PARSE_TREE row_chx =
    pt_command<simple_do_chx>("chx", "%s = %d", "change current execution directory", "directory");
constinit const PARSE_TREE row_dir =
    pt_command<simple_do_dir>("dir", "+%s = %d", "list current working directory", "directory");
constinit const PARSE_TREE row_ls =
    pt_command<simple_do_ls>("ls", "+%s = %d", "list current working directory", "directory");
constinit const PARSE_TREE row_system = pt_command<simple_do_system>(
    "system", "%s = %d", "execute an OS command on the local machine", "full OS-9 command and arguments");

} // namespace kestrel
