// Modules from and to files. Both run command lines of the same session: `file open`, `read`, `module open`
// and `file get-next-index` do the work.
#include "modules/commands.h"
#include "modules/store/result_module.h"
#include "parser/call.h"
#include "parser/interpreter.h"
#include "parser/variables.h"
#include "server/output.h"
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

// A text as an argument of a command line that is run here: between single quotes, or double ones when it has
// a single one itself.
std::string quoted(std::string_view text) {
    const char quote = text.find('\'') == std::string_view::npos ? '\'' : '"';
    return quote + std::string(text) + quote;
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

struct load_request {
    std::string open_quals = "ascii-id";
    mod_element element = mod_element::float32;
    std::optional<int> num_t; // the file's, unless it is given
    bool skip_first = true;   // the file's first row is an identification row
    bool type_from_file = false;
};

load_request load_asked(int quals) {
    enum { q_open_quals, q_long, q_double, q_num_t, q_tessera };
    const auto has = [quals](int q) { return (quals >> q & 1) != 0; };
    load_request r;
    if (has(q_tessera))
        r.open_quals = "tessera";
    else if (has(q_open_quals))
        r.open_quals = Qualifier[q_open_quals].StringArg;
    r.skip_first = !has(q_tessera) && !has(q_open_quals);
    if (has(q_double))
        r.element = mod_element::float64;
    else if (has(q_long))
        r.element = mod_element::u_int32;
    r.type_from_file = has(q_tessera) && !has(q_double) && !has(q_long);
    if (has(q_num_t))
        r.num_t = Qualifier[q_num_t].IntArg;
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
        run(cn, formatted("read %d %d %d %d %d %d from %d to-module %s %s", 0, first, 0, nx, rows, nt,
                          file.get(), quoted(name).c_str(), element_names[mod_handle_type_of(r.element)])) !=
            0)
        return -1;
    module.keep();
    return 0;
}

} // namespace

int module_load(int quals, int cn, const char *file, const char *name) {
    const load_request request = load_asked(quals);
    const std::string target = name;
    if (check_quotes(cn, {file, target}) != 0)
        return -1;
    const std::string command =
        formatted("file open %s %s", quoted(file).c_str(), request.open_quals.c_str());
    const int handle = run(cn, command);
    if (handle < 0 || !unified_info_of(handle)) {
        sv_print(cn, "! ERROR: Cannot open file using command '" + command + "'\n");
        return -1;
    }
    const open_handle opened(cn, handle);
    if (load_from(cn, opened, target, request) != 0)
        return -1;
    module_announce(cn, target.c_str());
    return 0;
}

// ---- save

namespace {

enum save_qualifier {
    q_read_quals = 8,
    q_next_file,
    q_comment1,
    q_comment2,
    q_xh,
    q_save_script,
    q_current_file
};

int check_index_texts(int quals, int cn) {
    for (const int q : {q_next_file, q_comment1, q_comment2, q_xh, q_save_script, q_current_file})
        if ((quals >> q & 1) != 0 && check_quotes(cn, {Qualifier[q].StringArg}) != 0)
            return -1;
    return 0;
}

struct save_request {
    std::string format_words;
    std::string file;
    bool indexed = false;
    std::string index_tail; // what follows the path in the index command
};

// A command's word for each form; anything else is ASCII rows.
std::string form_word(int quals) {
    switch (quals & 0xFF) {
    case 1 << 2:
        return " asc-col";
    case 1 << 3:
        return " det";
    case 1 << 4:
        return " raw";
    case 1 << 5:
        return " long";
    case 1 << 6:
        return " float";
    case 1 << 7:
        return " double";
    default:
        return "";
    }
}

save_request save_asked(int quals, const char *name, const char *file) {
    const auto has = [quals](int q) { return (quals >> q & 1) != 0; };
    const auto text = [](int q) -> const char * { return Qualifier[q].StringArg; };
    save_request r;
    r.format_words = form_word(quals);
    if (has(q_read_quals))
        r.format_words += formatted(" %s", text(q_read_quals));
    r.file = file != nullptr ? file : name;
    r.indexed = has(q_next_file) || has(q_current_file);
    if (!r.indexed)
        return r;
    for (const int q : {q_comment1, q_comment2})
        if (has(q))
            r.index_tail += " " + quoted(text(q));
    if (has(q_xh))
        r.index_tail += " xh " + quoted(text(q_xh));
    if (!has(q_next_file)) {
        r.index_tail +=
            "  append file-suffix " + quoted(text(q_current_file)) + " get-fname 'module_save_fname' ";
        return r;
    }
    r.index_tail +=
        " file-suffix " + quoted(text(q_next_file)) + " get-fname 'module_save_fname' script-name ";
    if (has(q_save_script))
        r.index_tail += " save-script " + quoted(text(q_save_script));
    return r;
}

// Draws the file's name from the index of the folder.
int take_indexed_name(int cn, save_request &r) {
    const std::string command = "file get-next-index " + quoted(r.file) + " " + r.index_tail;
    if (run(cn, command) < 0) {
        sv_print(cn, "! ERROR getting sequence number using command '" + command + "'\n");
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

} // namespace

int module_save(int quals, int cn, const char *name, const char *file) {
    if ((quals & 1) != 0) {
        sv_printf(cn, "! OS9 module save not supported on Linux\n");
        return -1;
    }
    const unsigned names = 1U << q_next_file | 1U << q_current_file | 1U << q_save_script;
    if (pt_check_names(cn, names) != 0)
        return -1;
    save_request request = save_asked(quals, name, file);
    const std::string module = name;
    if (check_quotes(cn, {module, request.file}) != 0 || check_index_texts(quals, cn) != 0)
        return -1;
    const int handle = run(cn, "module open " + quoted(name) + " header");
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
                  quoted(request.file).c_str(), request.format_words.c_str());
    sv_print(cn, "# Saving '" + module + "' using '" + command + "'\n");
    return run(cn, command);
}

} // namespace kestrel
