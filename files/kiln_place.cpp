#include "files/kiln_place.h"

#include "files/lock_file.h"
#include "server/output.h"
#include "support/file_io.h"
#include "support/replace_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr std::size_t stamp_at = 4, zero_at = 7;
constexpr mode_t file_mode = 0644;

bool is_stamp(std::string_view text) {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    return std::string_view("123456789ABC").find(text[0]) != std::string_view::npos && is_digit(text[1]) &&
           is_digit(text[2]);
}

} // namespace

std::string kiln_index_pack(const kiln_index &index) {
    std::string bytes(kiln_index_bytes, '\0');
    const std::int32_t sequence = index.sequence;
    std::memcpy(bytes.data(), &sequence, sizeof sequence);
    index.stamp.copy(&bytes[stamp_at], zero_at - stamp_at);
    return bytes;
}

std::optional<kiln_index> kiln_index_unpack(int cn, const std::string &path, std::string_view bytes) {
    if (bytes[zero_at] != '\0') {
        sv_printf(cn, "! Index file string termination 0 missing\n");
        return std::nullopt;
    }
    std::int32_t sequence = 0;
    std::memcpy(&sequence, bytes.data(), sizeof sequence);
    const std::string_view stamp = bytes.substr(stamp_at, zero_at - stamp_at);
    if (sequence == -1)
        return kiln_index{};
    if (bytes.size() == kiln_index_bytes && sequence >= 0 && sequence <= kiln_sequence_max && is_stamp(stamp))
        return kiln_index{sequence, std::string(stamp)};
    sv_printf(cn,
              "! ERROR: index file '%s' is broken: it holds no sequence number from 0 to 99 with a date\n",
              path.c_str());
    return std::nullopt;
}

int kiln_place::exists(const std::string &path) const {
    sv_printf(cn_, "! ERROR: File '%s' Exists, specified over to force overwrite\n", path.c_str());
    return -1;
}

// ---------------------------------------------------------------- this machine's disk

namespace {

class local_place final : public kiln_place {
  public:
    using kiln_place::kiln_place;

    const char *line_end() const override { return "\n"; }
    int lock_index(const std::string &path) override;
    std::optional<kiln_index> read_index(const std::string &path) override;
    int write_index(const std::string &path, const kiln_index &index) override;
    kiln_written write_header(const std::string &path, std::string_view text, bool over) override;
    kiln_written append_log(const std::string &path, std::string_view text) override;

  private:
    kiln_written cannot_open(const std::string &path) const;
    kiln_written write_new(const std::string &path, std::string_view text) const;

    lock_file lock_;
};

int local_place::lock_index(const std::string &path) {
    const std::string name = path + ".lock";
    if (lock_.open(name) == 0 && lock_.take(cn_) == 0)
        return 0;
    sv_printf(cn_, "! ERROR: cannot lock index file with '%s': %s\n", name.c_str(), std::strerror(errno));
    return -1;
}

std::optional<kiln_index> local_place::read_index(const std::string &path) {
    const unique_fd fd = open_regular(path.c_str(), O_RDONLY);
    if (!fd && errno == ENOENT)
        return kiln_index{};
    if (!fd) {
        sv_printf(cn_, "! Unexpected error trying to read header file '%s'\n", path.c_str());
        return std::nullopt;
    }
    char bytes[kiln_index_bytes + 1]; // one more, to notice what is no index
    const ssize_t got = read_full(fd.get(), bytes, sizeof bytes);
    if (got >= static_cast<ssize_t>(kiln_index_bytes))
        return kiln_index_unpack(cn_, path, {bytes, static_cast<std::size_t>(got)});
    sv_printf(cn_, "! Cannot read sequence number from local file '%s'\n", path.c_str());
    return std::nullopt;
}

int local_place::write_index(const std::string &path, const kiln_index &index) {
    switch (replace_file(path, kiln_index_pack(index), file_mode)) {
    case replace_step::none:
        return 0;
    case replace_step::open:
        sv_printf(cn_, "! Cannot open local file '%s' for write of index file\n", path.c_str());
        return -1;
    case replace_step::write:
        sv_printf(cn_, "! Error writing new sequence number\n");
        return -1;
    case replace_step::close:
        sv_printf(cn_, "! Error closing index file '%s'\n", path.c_str());
        return -1;
    }
    return -1;
}

kiln_written local_place::cannot_open(const std::string &path) const {
    const char *why = std::strerror(errno);
    sv_printf(cn_, "! Cannot open output file '%s'\n! %s\n", path.c_str(), why);
    return kiln_written::refused;
}

kiln_written local_place::write_new(const std::string &path, std::string_view text) const {
    unique_fd fd = open_regular(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, file_mode);
    if (!fd && errno == EEXIST) {
        exists(path);
        return kiln_written::refused;
    }
    if (!fd)
        return cannot_open(path);
    if (write_all(fd.get(), text) && ::close(fd.release()) == 0)
        return kiln_written::done;
    const int error = errno;
    ::unlink(path.c_str());
    errno = error;
    return kiln_written::failed;
}

kiln_written local_place::write_header(const std::string &path, std::string_view text, bool over) {
    if (!over)
        return write_new(path, text);
    switch (replace_file(path, text, file_mode)) {
    case replace_step::none:
        return kiln_written::done;
    case replace_step::write:
        return kiln_written::failed;
    default:
        return cannot_open(path);
    }
}

// One call, so that entries of several servers do not mix.
kiln_written local_place::append_log(const std::string &path, std::string_view text) {
    unique_fd fd = open_regular(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, file_mode);
    return fd && write_all(fd.get(), text) && ::close(fd.release()) == 0 ? kiln_written::done
                                                                         : kiln_written::failed;
}

} // namespace

std::unique_ptr<kiln_place> kiln_local_place(int cn) {
    return std::make_unique<local_place>(cn);
}

} // namespace kestrel
