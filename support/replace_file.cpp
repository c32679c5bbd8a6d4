#include "support/replace_file.h"

#include "support/fd.h"
#include "support/file_io.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace kestrel {

namespace {

// The folder's entry reaches the disk, too.
void sync_folder_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const unique_fd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd)
        ::fsync(fd.get());
}

replace_step give_up(const std::string &aside, replace_step step) {
    const int error = errno;
    ::unlink(aside.c_str());
    errno = error;
    return step;
}

} // namespace

replace_step replace_file(const std::string &path, std::string_view bytes, mode_t mode) {
    if (is_special_file(path.c_str()))
        return replace_step::open;
    const std::string aside = path + ".new";
    unique_fd fd = open_regular(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (!fd)
        return replace_step::open;
    if (!write_all(fd.get(), bytes) || ::fsync(fd.get()) != 0)
        return give_up(aside, replace_step::write);
    if (::close(fd.release()) != 0 || ::rename(aside.c_str(), path.c_str()) != 0)
        return give_up(aside, replace_step::close);
    sync_folder_of(path);
    return replace_step::none;
}

} // namespace kestrel
