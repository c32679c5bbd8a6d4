#include "pulsar3/lib/frames/list_mode.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr std::size_t event_bytes = 8;

struct record_head {
    std::uint32_t magic, chan, time_frame, events;
};
static_assert(sizeof(record_head) == 16);

// The pieces, one behind the other, at that place of the file: 0 or an errno.
int write_at(int fd, iovec (&pieces)[2], off_t place) {
    std::size_t next = 0;
    while (next < std::size(pieces)) {
        const ssize_t n = ::pwritev(fd, pieces + next, static_cast<int>(std::size(pieces) - next), place);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? errno : ENOSPC;
        place += n;
        for (auto left = static_cast<std::size_t>(n); next < std::size(pieces); ++next) {
            iovec &piece = pieces[next];
            const std::size_t done = std::min(left, piece.iov_len);
            piece.iov_base = static_cast<std::byte *>(piece.iov_base) + done;
            piece.iov_len -= done;
            left -= done;
            if (piece.iov_len > 0)
                break;
        }
    }
    return 0;
}

} // namespace

int plr3_list_mode_create(list_mode_file &file, const std::string &name) {
    file.name = name;
    file.fd = unique_fd(::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    return file.fd ? 0 : errno;
}

bool plr3_list_mode_add(list_mode_file &file, std::uint32_t chan, std::uint32_t time_frame,
                        std::span<const std::byte> events) {
    const std::lock_guard guard(file.mutex);
    if (file.error != 0)
        return false;
    record_head head{list_mode_magic, chan, time_frame,
                     static_cast<std::uint32_t>(events.size() / event_bytes)};
    iovec pieces[] = {{&head, sizeof head}, {const_cast<std::byte *>(events.data()), events.size()}};
    file.error = write_at(file.fd.get(), pieces, static_cast<off_t>(file.bytes));
    if (file.error != 0) {
        // A record that is cut is none; where even this fails, its head tells more events than follow.
        if (::ftruncate(file.fd.get(), static_cast<off_t>(file.bytes)) != 0)
            file.error = errno;
        return true;
    }
    file.bytes += sizeof head + events.size();
    file.records += 1;
    file.events += head.events;
    return false;
}

} // namespace kestrel
