#include "parser/format.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kestrel {

namespace {

struct reader {
    std::string_view format;
    std::size_t at = 0;

    void skip_blanks() {
        while (at < format.size() && format[at] == ' ')
            ++at;
    }
    bool ended() const { return at == format.size(); }
    char peek() const { return ended() ? '\0' : format[at]; }

    // "%x" with x one of the letters; 0, with nothing taken, when something else stands here.
    char take_type(std::string_view letters) {
        if (peek() != '%' || at + 1 >= format.size())
            return 0;
        const char letter = format[at + 1];
        if (letters.find(letter) == std::string_view::npos) {
            ++at;
            return 0;
        }
        at += 2;
        return letter;
    }
};

bool is_word_start(char c) {
    return std::isalpha(static_cast<unsigned char>(c));
}
bool is_word_char(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
}

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

bool read_arguments(reader &r, _pt_args &out) {
    bool optional = false;
    for (r.skip_blanks(); r.peek() == '%' || r.peek() == '+'; r.skip_blanks()) {
        if (r.peek() == '+') {
            if (optional)
                return false;
            optional = true;
            out.opt_start = out.nr_args;
            ++r.at;
            continue;
        }
        const char type = r.take_type("dgfsv");
        if (!type)
            return false;
        out.type += type;
        out.stack_size += size_of(type);
        out.nr_strings += type == 's';
        ++out.nr_args;
    }
    if (!optional)
        out.opt_start = out.nr_args;
    return true;
}

bool read_qualifiers(reader &r, _pt_args &out) {
    for (r.skip_blanks(); is_word_start(r.peek()); r.skip_blanks()) {
        const std::size_t start = r.at;
        while (is_word_char(r.peek()))
            ++r.at;
        if (out.nr_quals == pt_max_qualifiers)
            return false;
        out.name.emplace_back(r.format.substr(start, r.at - start));
        ++out.nr_quals;
        r.skip_blanks();
        char type = 0;
        if (r.peek() == '%' && !(type = r.take_type("dgfs")))
            return false;
        out.qtype += type;
    }
    return true;
}

bool read_return(reader &r, _pt_args &out) {
    if (r.ended())
        return true;
    if (r.peek() != '=')
        return false;
    ++r.at;
    r.skip_blanks();
    out.return_type = r.take_type("dgfsq");
    r.skip_blanks();
    return out.return_type && r.ended();
}

// The handler's letter takes an argument of this type.
bool letter_takes(char letter, char type) {
    return letter == type || (letter == 'g' && type == 'f');
}

} // namespace

std::unique_ptr<_pt_args> format_compile(std::string_view format, format_error &error) {
    auto out = std::make_unique<_pt_args>();
    reader r{format};
    if (read_arguments(r, *out) && read_qualifiers(r, *out) && read_return(r, *out))
        return out;
    error.position = r.at;
    return nullptr;
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
            entry.args = compiled.release();
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
        std::fprintf(stderr, "parser: parse_args: out of memory\n");
        std::exit(ENOMEM);
    }
}

} // namespace kestrel
