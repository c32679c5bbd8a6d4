// What another server says: in any pieces, the same events, no line longer than the limit, and no loop
// without end.
#include "instruments/links/reply_reader.h"

#include <cstdint>
#include <cstdlib>

using namespace kestrel::links;

namespace {

std::string read(std::string_view bytes, std::size_t piece) {
    reply_reader reader;
    std::string log;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        reader.feed(bytes.substr(at, piece));
        for (;;) {
            const reply_event event = reader.next();
            if (event == reply_event::more || event == reply_event::prompt)
                break;
            // The question is a text where more was fed behind it.
            const bool asks = event == reply_event::question;
            log += static_cast<char>('0' + static_cast<int>(asks ? reply_event::text : event));
            log += asks ? "~ " + reader.text() : reader.text();
        }
    }
    return log + static_cast<char>('0' + static_cast<int>(reader.result().index()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0 || size > reply_line_max / 2)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    if (read(bytes, 1U + data[0]) != read(bytes, bytes.size() + 1))
        std::abort();
    return 0;
}
