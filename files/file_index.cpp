#include "files/file_index.h"

#include "files/commands.h"
#include "files/lock_file.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/include_level.h"
#include "server/output.h"
#include "support/fd.h"
#include "support/file_io.h"
#include "support/replace_file.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrel {

std::optional<int> parse_index(std::string_view text) {
    if (text.ends_with('\n'))
        text.remove_suffix(1);
    int number = 0;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || code != std::errc() || end != text.data() + text.size() || number < 0)
        return std::nullopt;
    return number;
}

namespace {

struct index_request {
    int cn = 0;
    std::string folder;
    std::vector<std::string> notes; // lines for the log
    std::string suffix;
    std::string variable;
    std::string script;      // the calling script's path, empty outside scripts
    std::string save_folder; // where a copy of it goes
    bool append = false;
};

int fault(const index_request &r, const std::string &path, const char *what) {
    sv_print(r.cn,
             "! ERROR: cannot " + std::string(what) + " '" + path + "': " + std::strerror(errno) + "\n");
    return -1;
}

// ---- the index

// 0 with the number last given (-1 where none was), or -1 after a message.
int read_index(const index_request &r, int &last) {
    const std::string path = r.folder + "/" + index_file;
    const unique_fd fd = open_regular(path.c_str(), O_RDONLY);
    last = -1;
    if (!fd)
        return errno == ENOENT ? 0 : fault(r, path, "open index file");
    char text[64];
    const ssize_t got = read_full(fd.get(), text, sizeof text);
    if (got < 0)
        return fault(r, path, "read index file");
    const auto number = parse_index({text, static_cast<std::size_t>(got)});
    if (!number) {
        sv_print(r.cn, "! ERROR: index file '" + path + "' does not hold a number\n");
        return -1;
    }
    last = *number;
    return 0;
}

int write_index(const index_request &r, int number) {
    const std::string path = r.folder + "/" + index_file;
    if (replace_file(path, std::to_string(number) + "\n", 0666) == replace_step::none)
        return 0;
    return fault(r, path, "write index file");
}

// ---- the calling script

// The path of the script that the session's line comes from; empty outside scripts.
std::string calling_script(int cn) {
    const script_file *const script = sv_get_include(cn);
    if (!script)
        return {};
    const std::string link = "/proc/self/fd/" + std::to_string(script->fd());
    char path[4096];
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

std::string last_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

int save_script(const index_request &r, int number) {
    if (r.script.empty()) {
        sv_printf(r.cn, "# Warning: not called from a script, no script is saved\n");
        return 0;
    }
    const std::string path = r.save_folder + "/" + std::to_string(number) + "_" + last_name(r.script);
    const unique_fd from = open_regular(r.script.c_str(), O_RDONLY);
    if (!from)
        return fault(r, r.script, "read script");
    unique_fd to = open_regular(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    if (!to)
        return fault(r, path, "save script to");
    char block[65536];
    for (;;) {
        const ssize_t got = read_some(from.get(), block, sizeof block);
        if (got == 0)
            break;
        if (got < 0 || !write_all(to.get(), {block, static_cast<std::size_t>(got)})) {
            fault(r, path, "save script to");
            ::unlink(path.c_str());
            return -1;
        }
    }
    return ::close(to.release()) == 0 ? 0 : fault(r, path, "save script to");
}

// ---- the log

std::string local_time() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::localtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

// One call, so that entries of several servers do not mix.
int write_log(const index_request &r, const std::string &file) {
    const std::string path = r.folder + "/" + index_log;
    std::string entry = local_time() + (r.append ? "  append to " : "  ") + file + "\n";
    for (const std::string &note : r.notes)
        entry += "    " + note + "\n";
    const unique_fd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666));
    return fd && write_all(fd.get(), entry) ? 0 : fault(r, path, "write log file");
}

// ---- the command

constexpr pt_format
    index_format("%s + %s %s xh %s file-suffix %s get-fname %s script-name save-script %s append = %d");

index_request index_asked(int quals, int cn, const char *folder, const char *comment1, const char *comment2) {
    const pt_qualifiers<index_format> q(quals);
    index_request r;
    r.cn = cn;
    r.folder = *folder == '\0' ? "." : folder;
    for (const char *comment : {comment1, comment2})
        if (comment != nullptr)
            r.notes.emplace_back(comment);
    if (q.given("xh"))
        r.notes.push_back("XH: " + std::string(q.text("xh")));
    if (q.given("file-suffix"))
        r.suffix = "_" + std::string(q.text("file-suffix"));
    r.variable = q.text("get-fname");
    if (q.count({"script-name", "save-script"}) > 0)
        r.script = calling_script(cn);
    if (q.given("script-name") && !r.script.empty())
        r.notes.push_back("script: " + r.script);
    r.save_folder = q.text("save-script");
    r.append = q.given("append");
    return r;
}

// With the lock held: the number, or -1 after a message.
int draw(const index_request &r) {
    int number = 0;
    if (read_index(r, number) != 0)
        return -1;
    if (r.append && number < 0) {
        sv_print(r.cn, "! ERROR: no file was numbered in folder '" + r.folder + "' yet\n");
        return -1;
    }
    if (r.append)
        return number;
    if (number == INT_MAX) {
        sv_print(r.cn, "! ERROR: no number is left in folder '" + r.folder + "'\n");
        return -1;
    }
    number = number < 0 ? 1 : number + 1;
    return write_index(r, number) == 0 ? number : -1;
}

int draw_locked(const index_request &r) {
    const std::string path = r.folder + "/" + index_lock;
    lock_file lock;
    if (lock.open(path) != 0)
        return fault(r, path, "open lock file");
    return lock.take(r.cn) == 0 ? draw(r) : fault(r, path, "lock");
}

int file_get_next_index(int quals, int cn, const char *folder, const char *comment1, const char *comment2) {
    const index_request r = index_asked(quals, cn, folder, comment1, comment2);
    if (r.suffix.find('/') != std::string::npos) {
        sv_printf(cn, "! ERROR: a file suffix cannot have a '/' in it\n");
        return -1;
    }
    const int number = draw_locked(r);
    if (number < 0)
        return -1;
    const std::string file = r.folder + "/" + std::to_string(number) + r.suffix;
    if (!r.save_folder.empty() && save_script(r, number) != 0)
        return -1;
    if (write_log(r, file) != 0)
        return -1;
    if (!r.variable.empty() && set_string_variable(cn, r.variable, file, true) != 0)
        return -1;
    return number;
}

} // namespace

constinit const PARSE_TREE row_file_get_next_index = pt_command<file_get_next_index>(
    "get-next-index", index_format, "Number the next data file of a folder and note it in the folder's log",
    "Folder/First comment for the log/Second comment for the log/Name of an XH system for the log/"
    "What follows the number in the file name/Variable to set to the file name/"
    "Name the calling script in the log/Folder to keep a copy of the calling script in/"
    "Use the number that was last given");

} // namespace kestrel
