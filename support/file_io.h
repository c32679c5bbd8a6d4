// support: reading and writing descriptors that a signal may interrupt and that may take or give less at a
// time.
#pragma once

#include "support/fd.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

// Opens a regular file, closed in child processes; anything else (a pipe could be waited at for ever) is
// refused with errno ENOTSUP.
inline unique_fd open_regular(const char *name, int flags, mode_t mode = 0) {
    unique_fd fd(::open(name, flags | O_CLOEXEC | O_NONBLOCK, mode));
    struct stat status {};
    const bool pipe = !fd && errno == ENXIO; // which nobody reads
    if (pipe || (fd && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)))) {
        fd.reset();
        errno = ENOTSUP;
    }
    return fd;
}

// Whether what stands there is a pipe, a device or a socket, whose place no file may take; then errno says so.
inline bool is_special_file(const char *name) {
    struct stat status {};
    if (::stat(name, &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))
        return false;
    errno = ENOTSUP;
    return true;
}

struct close_file {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using unique_file = std::unique_ptr<std::FILE, close_file>;

// Opens a file for writing ("w") or to add to it ("a") without waiting: a pipe without a reader is refused.
// Close-on-exec keeps the descriptor from commands of the operating system. Empty with errno.
inline unique_file open_stream(const char *name, const char *mode) {
    const int how = *mode == 'a' ? O_APPEND : O_TRUNC;
    unique_fd fd(::open(name, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK | how, 0666));
    if (!fd || ::fcntl(fd.get(), F_SETFL, how & O_APPEND) != 0)
        return {};
    unique_file file(::fdopen(fd.get(), mode));
    if (file)
        fd.release();
    return file;
}

// read() that goes on after an interrupt: the count, 0 at the end, -1 with errno.
inline ssize_t read_some(int fd, void *bytes, std::size_t size) {
    ssize_t got = -1;
    do
        got = ::read(fd, bytes, size);
    while (got < 0 && errno == EINTR);
    return got;
}

// Reads up to `size` bytes, fewer only at the end: the count, or -1 with errno.
inline ssize_t read_full(int fd, void *bytes, std::size_t size) {
    std::size_t have = 0;
    while (have < size) {
        const ssize_t got = read_some(fd, static_cast<char *>(bytes) + have, size - have);
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        have += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(have);
}

// Writes everything; false with errno.
inline bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t done = ::write(fd, bytes.data(), bytes.size());
        if (done >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(done));
        else if (errno != EINTR)
            return false;
    }
    return true;
}

} // namespace kestrel
