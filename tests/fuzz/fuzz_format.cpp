// An argument format: compiled, or refused at a place within it.
#include "parser/format.h"
#include "parser/format_words.h"

#include <cstdint>
#include <cstdlib>

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    format_error error;
    const auto args = format_compile(text, error);
    if (!args) {
        if (error.position > text.size())
            std::abort();
        return 0;
    }
    const auto count = static_cast<std::size_t>(args->nr_args);
    if (args->type.size() != count || args->opt_start > args->nr_args || args->nr_quals > pt_max_qualifiers ||
        args->qtype.size() != args->name.size())
        std::abort();
    return 0;
}
