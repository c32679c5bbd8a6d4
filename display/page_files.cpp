#include "display/page_files.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kestrel::display {

namespace {

namespace fs = std::filesystem;

struct file_type {
    const char *ending, *type;
};
constexpr file_type types[] = {
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
};

const char *type_of(const fs::path &path) {
    for (const file_type &t : types)
        if (path.extension() == t.ending)
            return t.type;
    return nullptr;
}

} // namespace

std::map<std::string, page_file, std::less<>> read_page(const std::string &folder) {
    std::map<std::string, page_file, std::less<>> files;
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder, error)) {
        const char *const type = type_of(entry.path());
        if (!type)
            continue;
        std::ifstream in(entry.path(), std::ios::binary);
        files["/" + entry.path().filename().string()] = {type, {std::istreambuf_iterator<char>(in), {}}};
    }
    const auto index = files.find("/index.html");
    if (index == files.end()) {
        std::fprintf(stderr, "kestrel-display: no page in %s\n", folder.c_str());
        return {};
    }
    files["/"] = index->second;
    return files;
}

std::string page_folder() {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error).parent_path();
    const fs::path installed = program.parent_path() / "share" / "kestrel" / "display";
    return (fs::exists(installed / "index.html", error) ? installed : program / "display_page").string();
}

} // namespace kestrel::display
