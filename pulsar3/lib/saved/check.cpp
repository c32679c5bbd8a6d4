#include "pulsar3/lib/paths/system.h"
#include "pulsar3/lib/saved/item_access.h"
#include "pulsar3/lib/saved/load.h"
#include "pulsar3/lib/saved/saved.h"

#include <cstdio>

namespace kestrel {

namespace {

using say_line = std::function<void(std::string_view)>;

constexpr std::size_t record_values = sizeof(ChannelDTC) / sizeof(double); // flags and eight doubles

// Words as they are saved: most have 32 bits.
std::size_t width_of(const saved_item &item) {
    switch (item.kind) {
    case saved_kind::gain:
    case saved_kind::offset:
        return sizeof(std::uint16_t);
    case saved_kind::dead_times:
        return sizeof(double);
    default:
        return sizeof(std::uint32_t);
    }
}

std::string text_of(const saved_item &item, std::span<const std::byte> bytes, std::size_t index) {
    const std::size_t at = index * width_of(item);
    char text[40];
    if (item.kind != saved_kind::dead_times)
        std::snprintf(text, sizeof text, "0x%X",
                      width_of(item) == sizeof(std::uint16_t) ? saved_value<std::uint16_t>(bytes, at)
                                                              : saved_value<std::uint32_t>(bytes, at));
    else if (index % record_values == 0)
        std::snprintf(text, sizeof text, "%d", saved_value<int>(bytes, at));
    else
        std::snprintf(text, sizeof text, "%.17g", saved_value<double>(bytes, at));
    return text;
}

int compare(const saved_item &item, std::span<const std::byte> saved, std::span<const std::byte> own,
            const say_line &say) {
    const std::size_t width = width_of(item);
    int differences = 0;
    for (std::size_t index = 0; index < saved.size() / width && !plr3_interrupted(); ++index) {
        if (std::memcmp(&saved[index * width], &own[index * width], width) == 0)
            continue;
        ++differences;
        say(item.file + " word " + std::to_string(index) + " is " + text_of(item, own, index) + ", saved " +
            text_of(item, saved, index));
    }
    return differences;
}

} // namespace

int plr3_check_settings(int path, const std::string &directory, bool clock, const say_line &say) {
    constexpr const char *name = "plr3_check_settings";
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", name, path);
    std::vector<loaded_item> items;
    if (const int status = plr3_load_items(name, path, directory, clock, items); status != 0)
        return status;
    int differences = 0;
    for (loaded_item &saved : items) {
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "%s: interrupted", name);
        saved_bytes own;
        if (const int status = plr3_read_item(path, saved.item, own); status != 0)
            return plr3_fail(status, "%s: %s", name, plr3_get_error_message());
        plr3_keep_restored(saved.item, saved.bytes);
        plr3_keep_restored(saved.item, own);
        differences += compare(saved.item, saved.bytes, own, say);
    }
    return differences;
}

} // namespace kestrel
