#include "sim/options.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kestrel {

namespace {

const sim_option *find(std::string_view argument, std::span<const sim_option> options) {
    for (const sim_option &o : options)
        if (argument.starts_with(o.word) && argument.substr(o.word.size()).starts_with('='))
            return &o;
    return nullptr;
}

} // namespace

void sim_usage(const char *program, std::string_view wrong, std::span<const sim_option> options) {
    std::fprintf(stderr, "Cannot understand %.*s\n", static_cast<int>(wrong.size()), wrong.data());
    std::fprintf(stderr, "Usage: %s, with any of\n", program);
    for (const sim_option &o : options) {
        const std::string form = std::string(o.word) + "=<" + std::string(o.value) + ">";
        std::fprintf(stderr, "  %-20s %.*s\n", form.c_str(), static_cast<int>(o.help.size()), o.help.data());
    }
    std::fprintf(stderr, "and the options of the server (-server? lists them)\n");
    std::exit(1);
}

void sim_take_options(int &argc, char **argv, std::span<const sim_option> options) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        const sim_option *option = find(argument, options);
        if (!option)
            argv[kept++] = argv[i];
        else if (!option->take(argument.substr(option->word.size() + 1)))
            sim_usage(argv[0], argument, options);
    }
    argc = kept;
    argv[argc] = nullptr;
}

} // namespace kestrel
