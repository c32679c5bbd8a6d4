#include "parser/format.h"

#include "parser/format_words.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kestrel {

namespace {

int size_of(char type) {
    switch (type) {
    case 'd':
        return sizeof(int);
    case 's':
        return sizeof(char *);
    default:
        return sizeof(double);
    }
}

void take_arguments(std::string_view arguments, _pt_args &out) {
    bool optional = false;
    for (const char c : arguments) {
        if (c == '+') {
            optional = true;
            out.opt_start = out.nr_args;
        }
        if (c == '+' || c == '%' || c == ' ')
            continue;
        out.type += c;
        out.stack_size += size_of(c);
        out.nr_strings += c == 's';
        ++out.nr_args;
    }
    if (!optional)
        out.opt_start = out.nr_args;
}

// The handler's letter takes an argument of this type.
bool letter_takes(char letter, char type) {
    return letter == type || (letter == 'g' && type == 'f');
}

} // namespace

std::unique_ptr<_pt_args> format_compile(std::string_view format, format_error &error) {
    const format_parts parts = format_reader(format).read();
    if (parts.faulty) {
        error.position = parts.fault;
        return nullptr;
    }
    auto out = std::make_unique<_pt_args>();
    take_arguments(parts.arguments, *out);
    out->nr_quals = parts.nr_words;
    for (int i = 0; i < parts.nr_words; ++i) {
        out->name.emplace_back(parts.words[static_cast<std::size_t>(i)].name);
        out->qtype += parts.words[static_cast<std::size_t>(i)].type;
    }
    out->return_type = parts.return_type;
    return out;
}

bool format_fits(const _pt_args &args, const pt_handler &handler) {
    if (!handler.call)
        return false;
    const char *letter = handler.letters;
    for (const char type : args.type) {
        if (*letter == '*')
            break;
        if (!letter_takes(*letter, type))
            return false;
        ++letter;
    }
    if (*letter != '\0' && std::strcmp(letter, "*") != 0)
        return false;
    switch (args.return_type) {
    case 'g':
    case 'f':
        return handler.returns == 'g';
    case 's':
    case 'q':
        return handler.returns == 's';
    default:
        return handler.returns == 'd';
    }
}

const _pt_args &_xx_parse_args(const PARSE_TREE &entry) {
    if (entry.args)
        return *entry.args;
    try {
        format_error error;
        std::unique_ptr<_pt_args> compiled = format_compile(entry.raw_args, error);
        if (compiled && format_fits(*compiled, entry.fn)) {
            std::atomic_ref(entry.args).store(compiled.release(), std::memory_order_release);
            return *entry.args;
        }
        std::fprintf(stderr, "parser: Programming error in file %s, line %d\n", entry.file, entry.line);
        std::fprintf(stderr, "\"%s\"\n", entry.raw_args);
        if (compiled)
            std::fprintf(stderr, "does not fit its handler, which takes \"%s\" and returns '%c'\n",
                         entry.fn.letters, entry.fn.returns);
        else
            std::fprintf(stderr, "%*s^ unexpected character\n", static_cast<int>(error.position) + 1, "");
        std::exit(1);
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "parser: parse_args: error allocating memory.\n");
        std::exit(ENOMEM);
    }
}

} // namespace kestrel
