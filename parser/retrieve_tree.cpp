#include "parser/builtins.h"
#include "parser/format.h"
#include "parser/help.h"
#include "server/output.h"

#include <string>

namespace kestrel {

namespace {

constexpr int retrieve_code = 510; // guards the dump against accidental use

void item(int cn, const char *tag, const std::string &value) {
    sv_print(cn, std::string("* \"") + tag + " " + value + "\"\n");
}

void stuff_command(int cn, const PARSE_TREE &entry) {
    const _pt_args &args = _xx_parse_args(entry);
    item(cn, "COMM", entry.name);
    item(cn, "HELP", entry.help);
    item(cn, "AHLP", entry.arghelp);
    item(cn, "ARGC", std::to_string(args.nr_args));
    for (const char type : args.type)
        item(cn, "ARGT", std::to_string(type));
    item(cn, "QUAC", std::to_string(args.nr_quals));
    for (std::size_t i = 0; i < args.name.size(); ++i) {
        item(cn, "QUAL", args.name[i]);
        item(cn, "QUAT", std::to_string(args.qtype[i]));
    }
    item(cn, "RETN", std::to_string(args.return_type));
    item(cn, "OPTS", std::to_string(args.opt_start));
}

} // namespace

void stuff(int cn, const PARSE_TREE *table) {
    item(cn, "SIZE", std::to_string(pt_size(table)));
    for (const PARSE_TREE &row : pt_rows(table)) {
        if (row.type == PT_TYPE_COMMAND) {
            stuff_command(cn, row);
            continue;
        }
        item(cn, "SUBT", row.name);
        item(cn, "HELP", row.help);
        stuff(cn, row.subtree);
    }
}

namespace {

int simple_do_retrieve_tree(int, int cn, int code) {
    if (code == retrieve_code)
        stuff(cn, pt_root());
    return 0;
}

} // namespace

constinit const PARSE_TREE row_retrieve_tree = pt_command<simple_do_retrieve_tree>(
    "retrieve-tree", "%d = %d", "retrieve the command tree (used only by 'orb' program)", "code");

} // namespace kestrel
