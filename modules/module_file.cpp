// Modules from and to files. Data files and their numbering are the file room's, which fills in
// unified_file_hooks; `read` and `module open` are run as command lines of the same session.
#include "modules/commands.h"
#include "modules/store/result_module.h"
#include "parser/interpreter.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"
#include "unified/file_hooks.h"
#include "unified/handles/handles.h"

#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

namespace {

int run(int cn, const std::string &line) {
    return user_service(cn, line.c_str(), 0, nullptr, nullptr);
}

std::string formatted(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted(const char *format, ...) {
    char line[2048]; // a line's arguments are shorter
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    return line;
}

// The language has no way to write a text with both.
int check_quotes(int cn, std::initializer_list<std::string_view> names) {
    for (const std::string_view name : names)
        if (name.find('\'') != std::string_view::npos && name.find('"') != std::string_view::npos) {
            sv_print(cn, "! ERROR: there cannot be both ' and \" in " + std::string(name) + "\n");
            return -1;
        }
    return 0;
}

// A handle that is closed and destroyed with its scope.
class open_handle {
  public:
    open_handle(int cn, int handle) : cn_(cn), handle_(handle) {}
    open_handle(const open_handle &) = delete;
    open_handle &operator=(const open_handle &) = delete;
    ~open_handle() {
        if (unified_info_of(handle_))
            unified_close_and_destroy(cn_, handle_);
    }
    int get() const { return handle_; }

  private:
    int cn_;
    int handle_;
};

// ---- load

constexpr pt_format load_format("%s %s open-quals %s long double num-t %d tessera = %d");

struct load_request {
    std::string open_quals = "ascii-id";
    mod_element element = mod_element::float32;
    std::optional<int> num_t; // the file's, unless it is given
    bool skip_first = true;   // the file's first row is an identification row
    bool type_from_file = false;
};

load_request load_asked(int quals) {
    const pt_qualifiers<load_format> q(quals);
    load_request r;
    r.open_quals = q.given("tessera") ? "tessera" : q.text("open-quals", "ascii-id");
    r.skip_first = q.count({"tessera", "open-quals"}) == 0;
    if (q.given("double"))
        r.element = mod_element::float64;
    else if (q.given("long"))
        r.element = mod_element::u_int32;
    r.type_from_file = q.given("tessera") && q.count({"double", "long"}) == 0;
    if (q.given("num-t"))
        r.num_t = q.number("num-t");
    return r;
}

int load_from(int cn, const open_handle &file, const std::string &name, load_request r) {
    const unified_info entry = *unified_info_of(file.get());
    const int nx = entry.nx;
    const int ny = entry.ny;
    const int nt = entry.nt;
    sv_printf(cn, "# Determined file size = (%d, %d, %d)\n", nx, ny, nt);
    if (r.type_from_file) {
        sv_printf(cn, "# Determined utype=%d from tessera header\n", entry.data_type);
        r.element = mod_element_of_handle_type(entry.data_type).value_or(mod_element::float32);
    }
    const int module_nt = r.num_t.value_or(nt);
    if (module_nt < nt) {
        sv_printf(cn, "! ERROR: Specified num-t (%d) is less than file num-t (%d)\n", module_nt, nt);
        return -1;
    }
    const int first = r.skip_first ? 1 : 0;
    const int rows = ny - first;
    module_plan plan{r.element, nx, rows};
    if (module_nt > 1)
        plan = {r.element, nx, ny, module_nt, true};
    result_module module;
    if (module.make(cn, name.c_str(), plan) != 0 ||
        run(cn,
            formatted("read %d %d %d %d %d %d from %d to-module %s %s", 0, first, 0, nx, rows, nt, file.get(),
                      pt_quoted(name).c_str(), element_names[mod_handle_type_of(r.element)])) != 0)
        return -1;
    module.keep();
    return 0;
}

int module_load(int quals, int cn, const char *file, const char *name) {
    const load_request request = load_asked(quals);
    const std::string target = name;
    if (check_quotes(cn, {file, target}) != 0)
        return -1;
    const file_hooks &files = unified_file_hooks;
    const std::string opened_as = file;
    const int handle =
        files.open != nullptr ? files.open(cn, opened_as.c_str(), request.open_quals.c_str()) : -1;
    if (handle < 0 || !unified_info_of(handle)) {
        sv_print(cn, "! ERROR: Cannot open file using command 'file open " + pt_quoted(opened_as) + " " +
                         request.open_quals + "'\n");
        return -1;
    }
    const open_handle opened(cn, handle);
    if (load_from(cn, opened, target, request) != 0)
        return -1;
    module_announce(cn, target.c_str());
    return 0;
}

// ---- save

constexpr pt_format save_format(
    "%s + %s os9 ascii asc-col det raw long float double read-quals %s next-file %s comment1 %s comment2 %s "
    "xh %s save-script %s current-file %s = %d");
using save_quals = pt_qualifiers<save_format>;

int check_index_texts(const save_quals &q, int cn) {
    return check_quotes(cn, {q.text("next-file"), q.text("comment1"), q.text("comment2"), q.text("xh"),
                             q.text("save-script"), q.text("current-file")});
}

struct save_request {
    std::string format_words;
    std::string file;
    bool indexed = false;
    std::string index_tail; // what follows the path in the index command
};

// The read command's word for the form; nothing for ASCII rows.
const char *form_word(const save_quals &q) {
    constexpr save_quals::choice<const char *> words[] = {
        {"ascii", ""},     {"asc-col", " asc-col"}, {"det", " det"},      {"raw", " raw"},
        {"long", " long"}, {"float", " float"},     {"double", " double"}};
    return q.only(words).value_or("");
}

save_request save_asked(const save_quals &q, const char *name, const char *file) {
    save_request r;
    r.format_words = form_word(q);
    if (q.given("read-quals"))
        r.format_words += formatted(" %s", q.text("read-quals"));
    r.file = file != nullptr ? file : name;
    r.indexed = q.count({"next-file", "current-file"}) > 0;
    if (!r.indexed)
        return r;
    if (q.given("comment1"))
        r.index_tail += " " + pt_quoted(q.text("comment1"));
    if (q.given("comment2"))
        r.index_tail += " " + pt_quoted(q.text("comment2"));
    if (q.given("xh"))
        r.index_tail += " xh " + pt_quoted(q.text("xh"));
    if (!q.given("next-file")) {
        r.index_tail +=
            "  append file-suffix " + pt_quoted(q.text("current-file")) + " get-fname 'module_save_fname' ";
        return r;
    }
    r.index_tail +=
        " file-suffix " + pt_quoted(q.text("next-file")) + " get-fname 'module_save_fname' script-name ";
    if (q.given("save-script"))
        r.index_tail += " save-script " + pt_quoted(q.text("save-script"));
    return r;
}

// Draws the file's name from the index of the folder.
int take_indexed_name(int cn, save_request &r) {
    const file_hooks &files = unified_file_hooks;
    if (files.next_index == nullptr || files.next_index(cn, r.file.c_str(), r.index_tail.c_str()) < 0) {
        sv_print(cn, "! ERROR getting sequence number using command 'file get-next-index " +
                         pt_quoted(r.file) + " " + r.index_tail + "'\n");
        return -1;
    }
    const Variable *variable = get_global_variable("module_save_fname");
    if (variable == nullptr || variable->type != vt_string) {
        sv_printf(cn, "! ERROR : Somehow did not create file name variable\n");
        return -1;
    }
    r.file = variable->StringVar;
    return 0;
}

int module_save(int quals, int cn, const char *name, const char *file) {
    const save_quals q(quals);
    if (q.given("os9")) {
        sv_printf(cn, "! OS9 module save not supported on Linux\n");
        return -1;
    }
    save_request request = save_asked(q, name, file);
    const std::string module = name;
    if (check_quotes(cn, {module, request.file}) != 0 || check_index_texts(q, cn) != 0)
        return -1;
    const int handle = run(cn, "module open " + pt_quoted(name) + " header");
    if (handle < 0)
        return -1;
    const open_handle opened(cn, handle);
    if (request.indexed && take_indexed_name(cn, request) != 0)
        return -1;
    const auto entry = unified_info_of(handle);
    if (!entry)
        return -1;
    if (check_quotes(cn, {request.file}) != 0)
        return -1;
    const std::string command =
        formatted("read 0 0 0 %d %d %d from %d to-local-file %s %s", entry->nx, entry->ny, entry->nt, handle,
                  pt_quoted(request.file).c_str(), request.format_words.c_str());
    sv_print(cn, "# Saving '" + module + "' using '" + command + "'\n");
    return run(cn, command);
}

} // namespace

constinit const PARSE_TREE row_module_load =
    pt_command<module_load>("load", load_format, "Load data module from file using the file open command",
                            "File name/Module name/Overried qualifier to file open (default ascii-id)/"
                            "Force data u_int32 (default float)/Force data double/Specifeid module num-t/"
                            "Open tessera and try to determine data type from the file");
constinit const PARSE_TREE row_module_save = pt_command<module_save>(
    "save", save_format, "save a data module into a local file (see also ftp functions)",
    "module name/file name on server (or path name using index numbered files/OS9 module save/"
    "ASCII rows format (default)/ASCII columns format/Tessera/Raw binary data/Raw 32 bit longs/"
    "Raw 32 bit floats/Raw 64 bit doubles/read command qualifiers/"
    "Use Next file index with this filename suffix to make <path_name>/<next_index>_<suffix>/"
    "First comment to add to log file/Second comment to add to log file/"
    "Add automatic comments from XH of given sys name/"
    "Specify the directory to save the calling script into. <save_dir>/<seq_num>_<script_name>/"
    "Use current file index to make name <path_name>/<current_index>_<suffix>");

} // namespace kestrel
