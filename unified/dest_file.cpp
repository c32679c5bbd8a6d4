// Destination: a file on the server.
#include "server/output.h"
#include "server/wait.h"
#include "support/fd.h"
#include "unified/output.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr mode_t file_mode = 0666; // less the process's mask
constexpr int pipe_patience_ms = 30'000;
constexpr std::size_t write_max = 0x40000000; // one system call takes no more than 2 GiB

class file_destination final : public output_destination {
  public:
    int init(UnifOutput &output, const _unif_format &format) override;
    int write(UnifOutput &output, const std::byte *bytes, std::size_t count) override;
    int term(UnifOutput &output, bool failed) override;

  private:
    int open_aside(UnifOutput &output, const std::string &target, const struct stat &old);
    int replace_file(UnifOutput &output, const struct stat &old);
    bool copy_back(const UnifOutput &output) const;
    int take_place(const UnifOutput &output) const;

    // What is written aside and takes the old file's place once all of it is there. Empty: written directly.
    std::string target_; // the old file, links followed
    std::string aside_;
    std::string made_; // the file that this read made, to be removed if it fails
};

struct free_memory {
    void operator()(char *p) const { std::free(p); }
};
using malloced = std::unique_ptr<char, free_memory>;

// No file can be made beside the old one; the old one itself may still be writable.
bool folder_is_closed(int error) {
    return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG;
}

bool same_file(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Another file may take the place of this one: it has one name, in a folder of its own file system, is ours
// to give away, and is not what the server's standard streams write to.
bool may_be_replaced(const std::string &target, const struct stat &old) {
    struct stat status {};
    if (old.st_nlink != 1 || (old.st_uid != ::geteuid() && ::geteuid() != 0))
        return false;
    for (int fd = 0; fd <= STDERR_FILENO; ++fd)
        if (::fstat(fd, &status) == 0 && same_file(status, old))
            return false;
    const std::string folder = target.substr(0, target.rfind('/') + 1);
    return ::stat(target.c_str(), &status) == 0 && same_file(status, old) &&
           ::stat(folder.c_str(), &status) == 0 && status.st_dev == old.st_dev;
}

constexpr std::size_t random_end = 7; // ".XXXXXX"

// The new file's name until it is whole: FILE.kestrel-HOST-PID.XXXXXX
std::string aside_mark() {
    char host[HOST_NAME_MAX + 1] = "";
    ::gethostname(host, sizeof host - 1);
    return std::string(".kestrel-") + host + "-";
}

// The process of this machine that a file in the making belongs to; 0 for any other name.
pid_t maker_of(std::string_view name, std::string_view mark) {
    const std::size_t at = name.rfind(mark);
    if (at == std::string_view::npos || at == 0 || name.size() < at + mark.size() + random_end)
        return 0;
    const std::string_view number =
        name.substr(at + mark.size(), name.size() - at - mark.size() - random_end);
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), pid);
    const bool whole = error == std::errc() && end == number.data() + number.size();
    return whole && name[name.size() - random_end] == '.' ? pid : 0;
}

// Removes what servers of this machine that were killed in the middle of a save have left in the folder.
void sweep(const std::string &folder, const std::string &mark) {
    const std::unique_ptr<DIR, int (*)(DIR *)> entries(::opendir(folder.c_str()), ::closedir);
    while (entries) {
        const dirent *entry = ::readdir(entries.get());
        if (!entry)
            return;
        const pid_t pid = maker_of(entry->d_name, mark);
        if (pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH)
            ::unlinkat(::dirfd(entries.get()), entry->d_name, 0);
    }
}

// A new file beside the old one, with its owner and permissions. 0, or -1 with errno.
int file_destination::open_aside(UnifOutput &output, const std::string &target, const struct stat &old) {
    const std::size_t name_at = target.rfind('/') + 1;
    const std::string mark = aside_mark(), maker = mark + std::to_string(::getpid());
    sweep(target.substr(0, name_at), mark);
    const bool fits = target.size() - name_at + maker.size() + random_end <= NAME_MAX;
    std::string aside = target + (fits ? maker : "") + ".XXXXXX";
    output.fd.reset(::mkostemp(aside.data(), O_CLOEXEC));
    if (!output.fd)
        return -1;
    const bool ours = ::fchown(output.fd.get(), old.st_uid, old.st_gid) == 0 &&
                      ::fchmod(output.fd.get(), old.st_mode & 07777) == 0;
    if (!ours) {
        output.fd.reset();
        ::unlink(aside.c_str());
        errno = EPERM;
        return -1;
    }
    target_ = target;
    aside_ = std::move(aside);
    return 0;
}

bool is_source(const UnifOutput &output, const struct stat &old) {
    struct stat status {};
    return output.source_fd >= 0 && ::fstat(output.source_fd, &status) == 0 && same_file(status, old);
}

// The old file stays as it is until the new one is whole; where no other may take its place it is written
// directly, unless the data are still to be read from it.
int file_destination::replace_file(UnifOutput &output, const struct stat &old) {
    const char *name = output.filename.c_str();
    if (::faccessat(AT_FDCWD, name, W_OK, AT_EACCESS) != 0)
        return -1;
    const malloced target(::realpath(name, nullptr));
    if (target && may_be_replaced(target.get(), old)) {
        if (open_aside(output, target.get(), old) == 0)
            return 0;
        if (!folder_is_closed(errno))
            return -1;
    }
    if (is_source(output, old)) {
        sv_printf(output.cn, "! File '%s' holds the data that are read and cannot be replaced\n", name);
        errno = EBUSY;
        return -1;
    }
    output.fd.reset(::open(name, O_WRONLY | O_TRUNC | O_CLOEXEC));
    return output.fd ? 0 : -1;
}

int file_destination::init(UnifOutput &output, const _unif_format &) {
    const char *name = output.filename.c_str();
    output.fd.reset(::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file_mode));
    if (output.fd)
        made_ = name;
    if (output.fd || errno != EEXIST)
        return output.fd ? 0 : -1;
    struct stat old {};
    const bool leads_nowhere = ::stat(name, &old) != 0; // a link without a file behind it
    if (!leads_nowhere && S_ISREG(old.st_mode))
        return replace_file(output, old);
    // A device or a pipe; without a reader at its other end a pipe is refused, not waited for.
    output.fd.reset(::open(name, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, file_mode));
    if (!output.fd)
        return -1;
    const malloced target(leads_nowhere ? ::realpath(name, nullptr) : nullptr);
    if (target)
        made_ = target.get();
    return 0;
}

// After a write that was not taken: true to try again. ^C ends the wait for a pipe's reader.
bool goes_on(const UnifOutput &output) {
    if (errno == EINTR)
        return true;
    if (errno != EAGAIN)
        return false;
    const wait_result wait = sv_wait_fd(output.fd.get(), POLLOUT, pipe_patience_ms);
    errno = wait == wait_result::interrupted ? EINTR : ETIMEDOUT;
    return wait == wait_result::ready;
}

int file_destination::write(UnifOutput &output, const std::byte *at, std::size_t count) {
    while (count > 0) {
        const ssize_t done = ::write(output.fd.get(), at, std::min(count, write_max));
        if (done < 0 && goes_on(output))
            continue;
        if (done <= 0) {
            sv_printf(output.cn, "! Cannot write file '%s': %s\n", output.filename.c_str(),
                      std::strerror(errno));
            return -1;
        }
        at += done;
        count -= static_cast<std::size_t>(done);
    }
    return 0;
}

// 0 once the disk has it, and where there is no disk to wait for (a device, a pipe).
int sync_file(int fd) {
    int result = 0;
    do
        result = ::fsync(fd);
    while (result != 0 && errno == EINTR);
    return result == 0 || errno == EINVAL || errno == EROFS || errno == ENOTSUP ? 0 : -1;
}

// What was written aside goes into the old file: there are mounts that a rename cannot replace. When this
// fails the old contents are gone, so the file aside, which is whole, stays.
bool file_destination::copy_back(const UnifOutput &output) const {
    const unique_fd from(::open(aside_.c_str(), O_RDONLY | O_CLOEXEC));
    const unique_fd to(::open(target_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!from || !to)
        return false;
    for (;;) {
        const ssize_t done = ::sendfile(to.get(), from.get(), nullptr, write_max);
        if (done == 0)
            return (!output.do_fsync || sync_file(to.get()) == 0) && ::unlink(aside_.c_str()) == 0;
        if (done < 0 && errno != EINTR)
            return false;
    }
}

// 0, or -1 after a line.
int file_destination::take_place(const UnifOutput &output) const {
    if (::rename(aside_.c_str(), target_.c_str()) == 0)
        return 0;
    const bool copied = errno == EBUSY || errno == EXDEV;
    if (copied && copy_back(output))
        return 0;
    sv_printf(output.cn, "! Cannot finish file '%s': %s\n", output.filename.c_str(), std::strerror(errno));
    if (copied)
        sv_printf(output.cn, "! The data are in '%s'\n", aside_.c_str());
    else
        ::unlink(aside_.c_str());
    return -1;
}

// A failed transfer removes the file if this read made it, and leaves an old one as it was.
int file_destination::term(UnifOutput &output, bool failed) {
    int result = 0;
    if (!failed && output.do_fsync && sync_file(output.fd.get()) != 0)
        result = -1;
    if (::close(output.fd.release()) != 0)
        result = -1;
    if (result != 0)
        sv_printf(output.cn, "! Cannot finish file '%s': %s\n", output.filename.c_str(),
                  std::strerror(errno));
    failed = failed || result != 0;
    if (!aside_.empty()) {
        if (failed)
            ::unlink(aside_.c_str());
        else
            result = take_place(output);
    }
    if (failed && !made_.empty())
        ::unlink(made_.c_str());
    return result;
}

} // namespace

void local_file_setup_output(UnifOutput &output) {
    output.to = output_to::local_file;
    output.destination = std::make_unique<file_destination>();
}

} // namespace kestrel
