#include "pulsar3/server/sources.h"

#include "pulsar3/lib/paths/system.h"

#include <algorithm>
#include <array>
#include <string>

namespace kestrel {

namespace {

std::array<pulsar3_source, unified_max_handles> sources; // path -1: free

void closed(int number, int) {
    sources[static_cast<std::size_t>(number)] = {};
}

} // namespace

int pulsar3_open_source(int cn, const pulsar3_source &source, int nx, int ny, int nt, int data_type,
                        unified_source callbacks) {
    // As many as there are handles: where none is free, neither is a handle, and the line is that of the handles.
    const auto free = std::ranges::find(sources, -1, &pulsar3_source::path);
    const auto number = static_cast<int>(free - sources.begin());
    callbacks.destroy = closed;
    const std::string text = "pulsar3 path " + std::to_string(source.path) + " " + source.kind;
    const int handle = unified_open(cn, number, nx, ny, nt, data_type, text.c_str(), callbacks);
    if (handle >= 0)
        *free = source;
    return handle;
}

const pulsar3_source *pulsar3_source_of(int number) {
    const pulsar3_source &source = sources[static_cast<std::size_t>(number)];
    if (plr3_path(source.path))
        return &source;
    unified_explain("path %d is closed", source.path);
    return nullptr;
}

int pulsar3_source_status(int status) {
    if (status < 0)
        unified_explain("%s", plr3_get_error_message());
    return status;
}

bool plr3_path_has_handles(int path) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return false;
    return std::ranges::any_of(sources, [&](const pulsar3_source &source) {
        if (source.path < 0)
            return false;
        const bool is_card =
            top->type == 1 && std::ranges::find(top->sub_path, source.path) != top->sub_path.end();
        return source.path == path || is_card;
    });
}

} // namespace kestrel
