// tests: system calls that return EINTR now and then and move fewer bytes than they were asked for. The
// linker sends every call of the server's own code here (--wrap); libraries keep theirs.
#include "tests/faults/control.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using kestrel::faults::shared;

// A number below `limit`, from a sequence that the seed fixes; 0 while nothing is to be disturbed.
std::uint64_t draw(std::uint64_t limit) {
    std::uint64_t seed = shared().seed.load(std::memory_order_relaxed);
    if (seed == 0)
        return 0;
    seed = seed * 6364136223846793005U + 1442695040888963407U;
    shared().seed.store(seed | 1U, std::memory_order_relaxed);
    return (seed >> 33) % limit;
}

// Every fourth call or so is interrupted before it has done anything.
bool interrupted() {
    if (draw(4) != 1)
        return false;
    ++shared().disturbed;
    errno = EINTR;
    return true;
}

// Half of the calls move all, the others a part.
std::size_t cut(std::size_t count) {
    if (count < 2 || draw(2) == 0)
        return count;
    ++shared().disturbed;
    return 1 + draw(std::min<std::uint64_t>(count, draw(2) ? 64 : count));
}

} // namespace

extern "C" {

ssize_t __real_read(int fd, void *bytes, std::size_t count);
ssize_t __wrap_read(int fd, void *bytes, std::size_t count) {
    return interrupted() ? -1 : __real_read(fd, bytes, cut(count));
}

ssize_t __real_write(int fd, const void *bytes, std::size_t count);
ssize_t __wrap_write(int fd, const void *bytes, std::size_t count) {
    return interrupted() ? -1 : __real_write(fd, bytes, cut(count));
}

ssize_t __real_pread(int fd, void *bytes, std::size_t count, off_t offset);
ssize_t __wrap_pread(int fd, void *bytes, std::size_t count, off_t offset) {
    return interrupted() ? -1 : __real_pread(fd, bytes, cut(count), offset);
}

ssize_t __real_recv(int fd, void *bytes, std::size_t count, int flags);
ssize_t __wrap_recv(int fd, void *bytes, std::size_t count, int flags) {
    return interrupted() ? -1 : __real_recv(fd, bytes, cut(count), flags);
}

ssize_t __real_send(int fd, const void *bytes, std::size_t count, int flags);
ssize_t __wrap_send(int fd, const void *bytes, std::size_t count, int flags) {
    return interrupted() ? -1 : __real_send(fd, bytes, cut(count), flags);
}

int __real_poll(pollfd *descriptors, nfds_t count, int timeout);
int __wrap_poll(pollfd *descriptors, nfds_t count, int timeout) {
    return interrupted() ? -1 : __real_poll(descriptors, count, timeout);
}

int __real_ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout, const sigset_t *mask);
int __wrap_ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout, const sigset_t *mask) {
    return interrupted() ? -1 : __real_ppoll(descriptors, count, timeout, mask);
}

int __real_epoll_wait(int set, epoll_event *events, int most, int timeout);
int __wrap_epoll_wait(int set, epoll_event *events, int most, int timeout) {
    return interrupted() ? -1 : __real_epoll_wait(set, events, most, timeout);
}

int __real_accept4(int fd, sockaddr *address, socklen_t *length, int flags);
int __wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags) {
    return interrupted() ? -1 : __real_accept4(fd, address, length, flags);
}

// An interrupted connect goes on by itself: the call reports it, and the connection comes.
int __real_connect(int fd, const sockaddr *address, socklen_t length);
int __wrap_connect(int fd, const sockaddr *address, socklen_t length) {
    const int result = __real_connect(fd, address, length);
    return result == 0 && interrupted() ? -1 : result;
}

int __real_posix_fallocate(int fd, off_t offset, off_t length);
int __wrap_posix_fallocate(int fd, off_t offset, off_t length) {
    return interrupted() ? EINTR : __real_posix_fallocate(fd, offset, length);
}

pid_t __real_waitpid(pid_t child, int *status, int options);
pid_t __wrap_waitpid(pid_t child, int *status, int options) {
    return interrupted() ? -1 : __real_waitpid(child, status, options);
}
}
