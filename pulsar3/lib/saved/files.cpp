#include "pulsar3/lib/saved/files.h"

#include "pulsar3/lib/wire/error.h"
#include "support/file_io.h"

namespace kestrel {

namespace {

// A file that goes again unless it gets to its place.
class aside_file {
  public:
    explicit aside_file(const std::string &name)
        : name_(name), fd_(open_regular(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0666)) {}
    aside_file(const aside_file &) = delete;
    aside_file &operator=(const aside_file &) = delete;
    ~aside_file() {
        if (made_)
            ::unlink(name_.c_str());
    }

    bool opened() const { return made_; }
    // A disk that is full may say so at the end only.
    bool write(std::span<const std::byte> bytes) {
        const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        return write_all(fd_.get(), text) && ::close(fd_.release()) == 0;
    }
    bool rename_to(const std::string &name) {
        if (::rename(name_.c_str(), name.c_str()) != 0)
            return false;
        made_ = false;
        return true;
    }

  private:
    std::string name_;
    unique_fd fd_;
    bool made_ = static_cast<bool>(fd_);
};

} // namespace

std::string plr3_saved_name(const std::string &directory, const std::string &file) {
    return directory.empty() ? file : directory + "/" + file;
}

int plr3_put_saved(const std::string &name, std::span<const std::byte> bytes) {
    aside_file file(name + ".new");
    if (!file.opened() || is_special_file(name.c_str()))
        return plr3_fail(plr3_failed, "plr3_save_settings: Cannot open output file %s", name.c_str());
    if (!file.write(bytes))
        return plr3_fail(plr3_failed, "plr3_save_settings: Error writing output file %s", name.c_str());
    if (!file.rename_to(name))
        return plr3_fail(plr3_failed, "plr3_save_settings: Cannot open output file %s", name.c_str());
    return 0;
}

saved_bytes plr3_get_saved(const std::string &name, std::size_t most, file_found &found) {
    const unique_fd fd = open_regular(name.c_str(), O_RDONLY);
    if (!fd) {
        found = errno == ENOENT ? file_found::missing : file_found::unreadable;
        return {};
    }
    saved_bytes bytes(most + 1);
    const ssize_t got = read_full(fd.get(), bytes.data(), bytes.size());
    found = got < 0 ? file_found::unreadable : file_found::yes;
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

} // namespace kestrel
