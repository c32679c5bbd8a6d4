// What other rooms open data files and number them with. The keywords are a user's text, so the commands
// themselves read them.
#include "files/commands.h"
#include "parser/interpreter.h"

#include <string>

namespace kestrel {

namespace {

int run(int cn, const char *command, const char *name, const char *rest) {
    const std::string line = std::string(command) + " " + pt_quoted(name) + " " + rest;
    return user_service(cn, line.c_str(), 0, nullptr, nullptr);
}

int open_line(int cn, const char *name, const char *keywords) {
    return run(cn, "file open", name, keywords);
}

int next_index_line(int cn, const char *folder, const char *arguments) {
    return run(cn, "file get-next-index", folder, arguments);
}

} // namespace

file_hooks files_hooks() {
    return {.open = open_line, .next_index = next_index_line};
}

} // namespace kestrel
