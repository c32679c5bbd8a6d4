#include "server/file_lock.h"

#include "server/interrupt.h"
#include "server/output.h"

#include <cerrno>
#include <fcntl.h>

namespace kestrel {

int sv_signal(int cn, int descriptor, int wait) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (wait)
        sv_flush_all(cn);
    while (::fcntl(descriptor, wait ? F_SETLKW : F_SETLK, &lock) != 0) {
        if (errno == EINTR && sv_quit == 0)
            continue;
        sv_printf(cn, "! Cannot perform sv_signal. Errno = %d\n", errno);
        return -1;
    }
    return 0;
}

int sv_release(int cn, int descriptor) {
    struct flock lock {};
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(descriptor, F_SETLK, &lock) == 0)
        return 0;
    sv_printf(cn, "! Cannot perform sv_release. Errno = %d\n", errno);
    return -1;
}

} // namespace kestrel
