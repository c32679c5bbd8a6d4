#include "parser/script.h"

#include "parser/builtins.h"
#include "parser/interpreter.h"
#include "parser/loops.h"
#include "parser/preprocess.h"
#include "parser/qualifiers.h"
#include "parser/search_path.h"
#include "parser/variables.h"
#include "server/include_level.h"
#include "server/interrupt.h"
#include "server/logs.h"
#include "server/output.h"
#include "server/session.h"

#include <cstdio>
#include <memory>
#include <string>
#include <unordered_map>

namespace kestrel {

namespace {

int return_value = 0;
bool sv_break_include = false; // set by `return`: the current file ends after this line

// Drops the loops that a script leaves open, however it ends.
class open_loops {
  public:
    explicit open_loops(int cn)
        : cn_(cn), depth_(sv_get_include_lvl(cn)) {} // asked now: the session may end in it
    ~open_loops() { loopstack_finish_script(cn_, depth_); }
    open_loops(const open_loops &) = delete;
    open_loops &operator=(const open_loops &) = delete;

  private:
    int cn_;
    int depth_;
};

// A script's level of local variables. What `return` sets is cleared at its start and at its end, so that neither
// script of a nested pair sees the other's.
class script_level {
  public:
    explicit script_level(int cn) : raised_(variables_enter_level()) {
        return_value = 0;
        sv_break_include = false;
        if (!raised_)
            sv_printf(cn, "! Script nesting too deep, not allocating new variables\n");
    }
    ~script_level() {
        if (raised_)
            variables_leave_level();
        return_value = 0;
        sv_break_include = false;
    }
    script_level(const script_level &) = delete;
    script_level &operator=(const script_level &) = delete;
    bool raised() const { return raised_; }

  private:
    bool raised_;
};

bool interrupted(int cn, const include_options &options) {
    if (sv_poll_quit(cn) == 0 || options.mask_interrupt)
        return false;
    if (sv_get_include_lvl(cn) == 1)
        sv_printf(cn, "! Include file aborted with ^C\n");
    else
        sv_printf(cn, "! Inner Include file aborted with ^C \n");
    return true;
}

// The lines of open loops, kept as they were scanned, by their offset in the file. What is kept serves only
// while the file still holds the same bytes there.
class scanned_lines {
  public:
    // The line in scanned form; null for one that is not kept (a macro's text may change from pass to pass).
    scanned_line *find(int cn, off_t offset, std::string_view line) {
        if (lines_.empty() && !loops_are_open())
            return nullptr;
        const auto known = lines_.find(offset);
        if (known != lines_.end() && known->second.bytes == line)
            return known->second.scanned.get();
        if (!loops_are_open() || lines_.size() >= lines_max || is_macro(line))
            return nullptr;
        entry &made = lines_[offset];
        made.bytes = line;
        std::string expanded;
        preprocess(cn, line, expanded);
        made.scanned = std::make_unique<scanned_line>(expanded);
        return made.scanned.get();
    }

  private:
    static constexpr std::size_t lines_max = 4096;
    struct entry {
        std::string bytes;
        std::unique_ptr<scanned_line> scanned;
    };

    static bool is_macro(std::string_view line) {
        const std::size_t first = line.find_first_not_of(" \t");
        return first != std::string_view::npos && line[first] == '@';
    }

    std::unordered_map<off_t, entry> lines_;
};

void show_line(int cn, std::string_view line, const include_options &options) {
    if (options.echo)
        sv_print(cn, "# " + sv_masked(line) + "\n");
    if (vlog_file)
        sv_log(vlog_file, std::to_string(cn) + ".File" + std::to_string(sv_get_include_lvl(cn)) +
                              ":Cmd:" + sv_masked(line) + "\n");
}

// Runs one line; false when the file is to stop after it.
bool run_line(int cn, std::string_view line, scanned_line *scanned, const include_options &options) {
    show_line(cn, line, options);
    int was_value = 0;
    const int print = options.show_returns;
    const int result = scanned ? service_line(cn, *scanned, nullptr, print, nullptr, vlog_file, &was_value)
                               : user_service_script(cn, line, print, nullptr, vlog_file, &was_value);
    return result != -1 || was_value || !options.exit_on_error;
}

bool is_comment(std::string_view line) {
    return line.starts_with('#') || line.starts_with('*');
}

include_end cannot_read_on(int cn, int error) {
    sv_printf(cn, "! Cannot read on in the include file, errno=%d\n", error);
    return include_end::refused;
}

include_end run_lines(int cn, script_file &file, const include_options &options) {
    scanned_lines kept;
    for (;;) {
        const off_t offset = file.tell();
        std::string_view line; // good until the file's next read, so nothing uses it once the line runs
        if (!file.read_line(line, sv_line_max)) { // the end, or ^C during the read
            if (interrupted(cn, options))
                return include_end::interrupted;
            return file.error() == 0 ? include_end::finished : cannot_read_on(cn, file.error());
        }
        if (is_comment(line))
            continue;
        const bool go_on = run_line(cn, line, kept.find(cn, offset, line), options);
        if (sv_is_ended(cn))
            return include_end::finished;
        if (interrupted(cn, options))
            return include_end::interrupted;
        if (!go_on || sv_break_include)
            break;
    }
    return include_end::finished;
}

// The arguments become the locals "1", "2", ... of the new level, and their number "nargs".
void start_script(int cn, std::span<const pt_value> args) {
    int count = 0;
    for (const pt_value &arg : args) {
        if (!arg.type)
            break;
        const std::string name = std::to_string(++count);
        switch (arg.type) {
        case 'd':
            set_int_variable(cn, name, arg.i, false);
            break;
        case 'f':
            set_double_variable(cn, name, arg.d, false);
            break;
        case 's':
            set_string_variable(cn, name, arg.s, false);
            break;
        default:
            sv_printf(cn, "! Unexpected argument type in start_script '%c'\n", arg.type);
        }
    }
    set_int_variable(cn, "nargs", count, false);
}

} // namespace

include_end sv_include_file(int cn, script_file &file, const include_options &options) {
    if (sv_get_include_lvl(cn) >= include_depth_max) {
        std::fprintf(stderr, "server: Current maximum include depth (%d) exceeded\n", include_depth_max);
        return include_end::refused;
    }
    include_end end;
    {
        const include_level level(cn, file);
        const open_loops loops(cn);
        end = run_lines(cn, file, options);
    }
    const bool outermost = sv_is_valid(cn) && sv_get_include_lvl(cn) == 0;
    if (outermost && sv_quit == 1)
        sv_quit = 0;
    return end;
}

void include_startup(int cn, const char *, int fd) {
    script_file file{unique_fd(fd)};
    sv_include_file(cn, file, {});
}

namespace {

constexpr pt_format include_format(
    "%s + %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v "
    "echo no-exit-error show-returns mask-cntrl-c cntrl-c-ret-neg = %d");

int simple_do_include(int quals, int cn, const char *includefile, std::span<const pt_value> args) {
    const pt_qualifiers<include_format> q(quals);
    unique_fd fd = search_path_open(cn, includefile);
    if (!fd) {
        sv_print(cn, std::string("! Can't open file ") + includefile + ".\n");
        return -1;
    }
    const include_options options{.echo = q.given("echo"),
                                  .exit_on_error = !q.given("no-exit-error"),
                                  .show_returns = q.given("show-returns"),
                                  .mask_interrupt = q.given("mask-cntrl-c"),
                                  .negative_interrupt = q.given("cntrl-c-ret-neg")};
    script_file file(std::move(fd));
    const script_level level(cn);
    if (level.raised())
        start_script(cn, args);
    const include_end end = sv_include_file(cn, file, options);
    if (end == include_end::refused || (end == include_end::interrupted && options.negative_interrupt))
        return -1;
    return return_value;
}

int simple_return_command(int, int, int value) {
    return_value = value;
    sv_break_include = true;
    return 0;
}

} // namespace

constinit const PARSE_TREE row_include = pt_command<simple_do_include>(
    "include", include_format, "include a command file at this point",
    "File name/Arguments///////////////////////////////"
    "/Show each line/Go on after errors/Show the result of each command/^C does not end the script/"
    "Return -1 when ended by ^C");
constinit const PARSE_TREE row_return =
    pt_command<simple_return_command>("return", "+%d = %d", "Return integer value from script", "Value");

} // namespace kestrel
