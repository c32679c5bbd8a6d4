// Destination: a file on the server.
#include "server/output.h"
#include "unified/form.h"
#include "unified/output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr mode_t file_mode = 0666;            // less the process's mask
constexpr std::size_t write_max = 0x40000000; // one system call takes no more than 2 GiB

int file_init(UnifOutput &output, const _unif_format &) {
    const char *name = output.filename.c_str();
    output.fd.reset(::open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file_mode));
    output.created = static_cast<bool>(output.fd);
    if (!output.fd && errno == EEXIST)
        output.fd.reset(::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, file_mode));
    return output.fd ? 0 : -1;
}

int file_write(UnifOutput &output, const void *bytes, std::size_t count) {
    const auto *at = static_cast<const std::byte *>(bytes);
    while (count > 0) {
        const ssize_t done = ::write(output.fd.get(), at, std::min(count, write_max));
        if (done < 0 && errno == EINTR)
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

// A failed transfer removes the file if this read made it.
int file_term(UnifOutput &output, bool failed) {
    int result = 0;
    if (!failed && output.do_fsync && ::fsync(output.fd.get()) != 0)
        result = -1;
    if (::close(output.fd.release()) != 0)
        result = -1;
    if (result != 0 && !failed)
        sv_printf(output.cn, "! Cannot finish file '%s': %s\n", output.filename.c_str(),
                  std::strerror(errno));
    if ((failed || result != 0) && output.created)
        ::unlink(output.filename.c_str());
    return result;
}

} // namespace

void local_file_setup_output(UnifOutput &output) {
    output.to = output_to::local_file;
    output.init = file_init;
    output.write = file_write;
    output.term = file_term;
}

} // namespace kestrel
