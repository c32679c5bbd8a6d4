#include "parser/help.h"

#include "parser/format.h"
#include "server/output.h"

#include <string>
#include <string_view>

namespace kestrel {

namespace {

const char *type_name(char type) {
    switch (type) {
    case 'd':
        return "<int>    ";
    case 'f':
    case 'g':
        return "<real>   ";
    case 's':
        return "<string> ";
    default:
        return "<?>      ";
    }
}

// The pieces of an argument help, taken one by one; empty when it runs out.
class help_pieces {
  public:
    explicit help_pieces(const char *text) : rest_(text) {}
    std::string next() {
        const std::size_t end = rest_.find('/');
        const std::string piece(rest_.substr(0, end));
        rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
        return piece;
    }

  private:
    std::string_view rest_;
};

void help_arguments(int cn, const _pt_args &args, help_pieces &pieces) {
    if (args.nr_args == 0) {
        sv_printf(cn, "# There are no arguments to this command.\n");
        return;
    }
    sv_printf(cn, "# And expects arguments of the following types:\n");
    for (int i = 0; i < args.nr_args; ++i) {
        if (i == args.opt_start)
            sv_printf(cn, "# Optional arguments\n");
        sv_printf(cn, "# %s %s\n", type_name(args.type[static_cast<std::size_t>(i)]), pieces.next().c_str());
    }
}

void help_qualifiers(int cn, const _pt_args &args, help_pieces &pieces) {
    if (args.nr_quals == 0) {
        sv_printf(cn, "# No qualifiers can be added at the end of this command.\n");
        return;
    }
    sv_printf(cn, "# Zero or more of the following qualifiers may appear after the arguments:\n");
    for (std::size_t i = 0; i < args.name.size(); ++i) {
        const char type = args.qtype[i];
        const std::string value = type ? std::string(type_name(type)) + " " : std::string(10, ' ');
        sv_printf(cn, "# %-10s %s%s\n", args.name[i].c_str(), value.c_str(), pieces.next().c_str());
    }
}

} // namespace

void locate(int cn, std::size_t position) {
    sv_print(cn, "# " + std::string(position, ' ') + "^\n");
}

void list_names(int cn, const PARSE_TREE *table) {
    std::string names;
    for (const PARSE_TREE &row : pt_rows(table))
        names += std::string(row.name) + " ";
    sv_printf(cn, "# Choices at this point are:\n");
    sv_print(cn, "#  " + names + "\n");
    sv_printf(cn, "# Type partial command followed by '?' for more help\n");
}

void list_choices(int cn, const PARSE_TREE *table) {
    sv_printf(cn, "# Choices at this point are:\n");
    for (const PARSE_TREE &row : pt_rows(table))
        sv_printf(cn, "#%16s %s\n", row.name, row.help);
    sv_printf(cn, "# Type partial command and '?' for more help\n");
}

void help(int cn, const PARSE_TREE &entry) {
    const _pt_args &args = _xx_parse_args(entry);
    help_pieces pieces(entry.arghelp);
    sv_printf(cn, "# The %s command function is :\n# %s\n", entry.name, entry.help);
    help_arguments(cn, args, pieces);
    help_qualifiers(cn, args, pieces);
    if (args.return_type)
        sv_printf(cn, "# This command returns %s.\n", type_name(args.return_type));
}

} // namespace kestrel
