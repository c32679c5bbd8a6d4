// An expression: compiled and run, it gives a value or an error line, and never more than a string may hold; run as
// integers alone, the same.
#include "parser/expression.h"
#include "server/client_descriptor.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (!sv_is_valid(0))
        sv_fill_slot(0, ::open("/dev/null", O_RDONLY), ::open("/dev/null", O_WRONLY));
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::vector<instruction> code;
    std::string message;
    std::size_t at = 0;
    if (!expression_compile(text, at, code, message)) {
        if (message.empty() || at > text.size())
            std::abort();
        return 0;
    }
    const program p{text, code};
    if (at == 0 || at > text.size() || expression_dump(p).empty())
        std::abort();
    const std::optional<int> integer = expression_run_integers(p);
    const PE_Value value = expression_run(0, p);
    if (integer && (value.type != pe_int || value.IntValue != *integer))
        std::abort();
    if (value.StringValue.size() > string_value_max)
        std::abort();
    return 0;
}
