#include "files/lock_file.h"

#include "server/wait.h"
#include "support/file_io.h"

#include <cerrno>
#include <fcntl.h>

namespace kestrel {

int lock_file::open(const std::string &path) {
    fd_ = open_regular(path.c_str(), O_RDWR | O_CREAT, 0666);
    return fd_ ? 0 : -1;
}

int lock_file::take(int cn) {
    constexpr double wait_s = 0.01;
    constexpr int tries = 1000;
    for (int left = tries; left > 0; --left) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (::fcntl(fd_.get(), F_SETLK, &whole) == 0)
            return 0;
        if (errno != EACCES && errno != EAGAIN)
            return -1;
        if (sv_sleep(cn, wait_s) != 0) {
            errno = EINTR;
            return -1;
        }
    }
    errno = EBUSY;
    return -1;
}

} // namespace kestrel
