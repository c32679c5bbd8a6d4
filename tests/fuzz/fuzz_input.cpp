// Bytes of a client: plain lines, telnet commands, editing keys. Whatever comes, the line stays within its
// bounds, and bytes fed one by one give the same lines as all at once.
#include "server/hooks.h"
#include "server/input_machine.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace kestrel;

namespace {

std::string lines_of(std::string_view bytes, std::size_t piece) {
    static input_machine machine;
    machine = input_machine{};
    const line_edit &edit = machine.edit;
    std::string reply, notice, lines;
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t used = 0;
        const input_event event = sv_input_feed(machine, bytes.substr(at, piece), used, {reply, notice});
        at += used;
        if (edit.len > sv_line_max || edit.pos > edit.len || edit.input[edit.len] != '\0' ||
            (used == 0 && event == input_event::more))
            std::abort();
        if (event == input_event::overlong || event == input_event::disconnect)
            return lines + "!";
        if (event != input_event::line)
            continue;
        lines.append(edit.input, edit.len).append("\n");
        sv_ln_start(machine.edit);
    }
    return lines;
}

std::vector<std::string> complete(std::string_view line) {
    if (line.size() % 3 == 0)
        return {};
    return {std::string(line) + "one", std::string(line) + std::string(line.size() % 7 * 200, 'x')};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    sv_hooks.complete = complete;
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    if (lines_of(bytes, bytes.size()) != lines_of(bytes, 1))
        std::abort();
    return 0;
}
