#include "pulsar3/lib/wire/error.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kestrel {

namespace {

thread_local char error_message[plr3_error_max];

} // namespace

void (*plr3_message_hook)(int to, std::string_view text) = nullptr;
bool (*plr3_interrupt_hook)() = nullptr;

int plr3_fail(int status, const char *format, ...) {
    char text[plr3_error_max] = ""; // on the side: a text often wraps the one before
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::memcpy(error_message, text, std::strlen(text) + 1);
    return status;
}

const char *plr3_get_error_message() {
    return error_message;
}

void plr3_message(int to, const char *format, ...) {
    char text[2 * plr3_error_max];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length <= 0)
        return;
    const std::string_view said(text, std::strlen(text));
    if (plr3_message_hook && to >= 0)
        plr3_message_hook(to, said);
    else
        std::fwrite(said.data(), 1, said.size(), stdout);
}

bool plr3_interrupted() {
    return plr3_interrupt_hook && plr3_interrupt_hook();
}

} // namespace kestrel
