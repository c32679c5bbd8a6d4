#include "parser/search_path.h"

#include "server/output.h"

#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t search_path_max = 32;

std::vector<std::string> parse(int cn, std::string_view text) {
    std::vector<std::string> list;
    const std::string whole(text);
    while (!text.empty()) {
        std::string_view entry = text.substr(0, text.find(':'));
        text.remove_prefix(std::min(text.size(), entry.size() + 1));
        if (entry.size() > 1 && entry.ends_with('/'))
            entry.remove_suffix(1);
        if (entry.empty())
            continue;
        if (list.size() == search_path_max) {
            sv_print(cn, "! ERROR: Too Many paths parsing kestrel_path '" + whole + "' kestrelpath.\n");
            break;
        }
        try {
            list.emplace_back(entry);
        } catch (const std::bad_alloc &) {
            sv_printf(cn, "! Insufficient memory to store string\n");
            break;
        }
    }
    return list;
}

const std::vector<std::string> &search_path(int cn) {
    static std::optional<std::vector<std::string>> list;
    if (!list) {
        const char *text = std::getenv("KESTRELPATH");
        list = parse(cn, text ? text : "");
    }
    return *list;
}

unique_fd open_file(const char *name) {
    unique_fd fd(::open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)))
        return {}; // a directory or a pipe is no script: loops seek
    return fd;
}

} // namespace

unique_fd search_path_open(int cn, const char *name) {
    const std::vector<std::string> &directories = search_path(cn);
    if (unique_fd fd = open_file(name))
        return fd;
    for (const std::string &directory : directories)
        if (unique_fd fd = open_file((directory + "/" + name).c_str()))
            return fd;
    return {};
}

} // namespace kestrel
