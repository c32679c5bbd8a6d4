#include "display/modules_seen.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <sys/types.h>
#include <unistd.h>

namespace kestrel::display {

namespace {

constexpr std::size_t modules_max = 1000; // more are not listed
constexpr std::size_t labels_max = 512;   // of a module
constexpr std::size_t samples = 64;       // blocks looked at for changes

ssize_t read_at(int fd, void *to, std::size_t bytes, std::size_t offset) {
    return ::pread(fd, to, bytes, static_cast<off_t>(offset));
}

// A text that somebody else wrote: bounded, without control characters, and not what is no UTF-8.
std::string shown(const char *text, std::size_t size) {
    std::string out(text, ::strnlen(text, size));
    std::replace_if(
        out.begin(), out.end(), [](char c) { return static_cast<signed char>(c) < ' ' || c == 127; }, '?');
    return out;
}

void read_texts(const open_module &module, seen_module &seen) {
    if (module.shape.is_3d) {
        mod_header3d head{};
        if (read_at(module.fd.get(), &head, sizeof head, 0) != sizeof head)
            return;
        seen.title = shown(head.title, MOD_LABEL_SIZE);
        seen.x_label = shown(head.x_label, MOD_LABEL_SIZE);
        seen.y_label = shown(head.y_label, MOD_LABEL_SIZE);
        seen.t_label = shown(head.t_label, MOD_LABEL_SIZE);
        seen.z_label = shown(head.z_label, MOD_LABEL_SIZE);
        const auto count =
            static_cast<std::size_t>(std::clamp(head.labels_num, 0, static_cast<int>(labels_max)));
        std::vector<std::int32_t> starts(count);
        if (read_at(module.fd.get(), starts.data(), count * sizeof starts[0], sizeof head) !=
            static_cast<ssize_t>(count * sizeof starts[0]))
            return;
        for (const std::int32_t start : starts) {
            char label[MOD_LABEL_SIZE] = "";
            if (start < static_cast<std::int32_t>(sizeof head) || start >= head.data_offset)
                break;
            const std::size_t room =
                std::min<std::size_t>(sizeof label, static_cast<std::size_t>(head.data_offset - start));
            if (read_at(module.fd.get(), label, room, static_cast<std::size_t>(start)) < 1)
                break;
            seen.frame_labels.push_back(shown(label, room));
        }
        return;
    }
    mod_header head{};
    if (read_at(module.fd.get(), &head, sizeof head, 0) != sizeof head)
        return;
    seen.title = shown(head.title, MOD_LABEL_SIZE);
    seen.x_label = shown(head.x_label, MOD_LABEL_SIZE);
    seen.y_label = shown(head.y_label, MOD_LABEL_SIZE);
    seen.z_label = shown(head.z_label, MOD_LABEL_SIZE);
}

// A number that most likely differs when the data do: of blocks all over the module.
std::size_t fingerprint(const open_module &module) {
    const kestrel_module &m = module.shape;
    const std::size_t bytes = m.num_x * m.num_y * m.num_t * m.element_size;
    std::array<char, 2048> block{};
    std::size_t sum = bytes;
    for (std::size_t i = 0; i < samples; ++i) {
        const std::size_t at = bytes / samples * i;
        const ssize_t n =
            read_at(module.fd.get(), block.data(), std::min(block.size(), bytes - at), m.data_offset + at);
        if (n > 0)
            sum = sum * 31 + std::hash<std::string_view>{}({block.data(), static_cast<std::size_t>(n)});
    }
    return sum;
}

template <class Element> void widen(const std::vector<std::byte> &from, std::vector<double> &out) {
    for (std::size_t i = 0; i < out.size(); ++i) {
        Element element;
        std::memcpy(&element, from.data() + i * sizeof element, sizeof element);
        out[i] = static_cast<double>(element);
    }
}

} // namespace

std::vector<seen_module> look_at_modules(const std::vector<seen_module> &before) {
    static std::vector<std::pair<std::string, std::size_t>> prints; // of the last look, by name
    std::vector<std::pair<std::string, std::size_t>> fresh;
    std::vector<seen_module> found;
    const std::unique_ptr<DIR, int (*)(DIR *)> objects(::opendir(mod_folder), ::closedir);
    while (const dirent *entry = objects && found.size() < modules_max ? ::readdir(objects.get()) : nullptr) {
        const open_module module = open_for_reading(entry->d_name);
        if (!module.fd || std::string_view(entry->d_name).find_first_of("<>\"&") != std::string_view::npos)
            continue;
        found.push_back({.name = entry->d_name, .shape = module.shape});
        read_texts(module, found.back());
        fresh.emplace_back(entry->d_name, fingerprint(module));
    }
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    std::sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
    std::sort(fresh.begin(), fresh.end());
    for (std::size_t i = 0; i < found.size(); ++i) {
        const auto by_name = [](const auto &a, const std::string &name) { return a.first < name; };
        const auto print = std::lower_bound(prints.begin(), prints.end(), found[i].name, by_name);
        const bool known = print != prints.end() && print->first == found[i].name;
        const auto old =
            std::lower_bound(before.begin(), before.end(), found[i].name,
                             [](const auto &a, const std::string &name) { return a.name < name; });
        if (known && print->second != fresh[i].second)
            found[i].changed_ms = now;
        else if (known && old != before.end() && old->name == found[i].name)
            found[i].changed_ms = old->changed_ms;
    }
    prints = std::move(fresh);
    return found;
}

bool read_row(const open_module &module, std::size_t y, std::size_t t, std::size_t x0,
              std::vector<double> &out, std::vector<std::byte> &scratch) {
    const kestrel_module &m = module.shape;
    const std::size_t bytes = out.size() * m.element_size;
    scratch.resize(bytes);
    const std::size_t at = m.data_offset + ((t * m.num_y + y) * m.num_x + x0) * m.element_size;
    if (read_at(module.fd.get(), scratch.data(), bytes, at) != static_cast<ssize_t>(bytes))
        return false;
    if (m.data_type == MOD_DOUBLE)
        widen<double>(scratch, out);
    else if (m.data_type == MOD_FLOAT)
        widen<float>(scratch, out);
    else if (m.element_size == 2)
        widen<std::uint16_t>(scratch, out);
    else
        widen<std::uint32_t>(scratch, out);
    return true;
}

} // namespace kestrel::display
