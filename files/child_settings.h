// files: how a program is started beside the server, over posix_spawn.
#pragma once

#include "support/fd.h"

#include <csignal>
#include <fcntl.h>
#include <span>
#include <spawn.h>
#include <unistd.h>
#include <vector>

namespace kestrel {

// The child's descriptors are these and no others: the n-th is its n, -1 stands for /dev/null. (The HDF5 library opens its
// files without close-on-exec.) A process group of its own keeps a terminal's ^C from it.
class child_settings {
  public:
    explicit child_settings(std::span<const int> descriptors) {
        posix_spawn_file_actions_init(&files_);
        const int count = static_cast<int>(descriptors.size());
        for (int n = 0; n < count; ++n) {
            const int from = descriptors[static_cast<std::size_t>(n)];
            // Above all of the child's, so that none is written over before its turn.
            high_.emplace_back(from < 0 ? -1 : ::fcntl(from, F_DUPFD_CLOEXEC, count));
            if (from < 0)
                posix_spawn_file_actions_addopen(&files_, n, "/dev/null", O_RDWR, 0);
            else
                posix_spawn_file_actions_adddup2(&files_, high_.back().get(), n);
        }
        posix_spawn_file_actions_addclosefrom_np(&files_, count);
        posix_spawnattr_init(&attributes_);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~child_settings() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&files_);
    }
    child_settings(const child_settings &) = delete;
    child_settings &operator=(const child_settings &) = delete;

    // Once: 0 and the child's number, or errno. The child alone has the copies then.
    int start(const char *program, char *const arguments[], pid_t &child) {
        const int error = ::posix_spawn(&child, program, &files_, &attributes_, arguments, environ);
        high_.clear();
        return error;
    }

  private:
    std::vector<unique_fd> high_;
    posix_spawn_file_actions_t files_;
    posix_spawnattr_t attributes_;
};

} // namespace kestrel
