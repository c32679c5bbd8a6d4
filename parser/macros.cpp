#include "parser/macros.h"

#include "parser/builtins.h"
#include "server/output.h"

#include <new>
#include <vector>

namespace kestrel {

namespace {

struct macro {
    std::string name; // compared case-sensitively
    std::string text;
};

std::vector<macro> macros;

macro *find(std::string_view name) {
    for (macro &m : macros)
        if (m.name == name)
            return &m;
    return nullptr;
}

} // namespace

const std::string *macro_text(std::string_view name) {
    const macro *m = find(name);
    return m ? &m->text : nullptr;
}

namespace {

int simple_macro_command(int, int cn, const char *name, const char *text) {
    macro *m = find(name);
    try {
        if (!m)
            m = &macros.emplace_back(macro{name, {}});
        else
            sv_print(cn, std::string("# Overwriting macro ") + name + " with value " + text + "\n");
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! Insufficient memory to allocate macro\n");
        return -1;
    }
    try {
        m->text = text;
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! Insufficient memory to store string\n");
        m->text = "Invalid Macro"; // short enough to need no memory
        return -1;
    }
    return 0;
}

int simple_macro_list(int, int cn) {
    for (const macro &m : macros)
        sv_print(cn, "# '" + m.name + "'\t'" + m.text + "'\n");
    return 0;
}

} // namespace

constinit const PARSE_TREE row_macro = pt_command<simple_macro_command>(
    "macro", "%s %s = %d", "define a macro to be inserted using @macro_name", "Macro name/Text");
constinit const PARSE_TREE row_macro_list =
    pt_command<simple_macro_list>("macro-list", "= %d", "list macros", "");

} // namespace kestrel
