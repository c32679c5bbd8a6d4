#include "server/control_place.h"

#include "support/control_client.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <optional>
#include <sys/socket.h>
#include <sys/stat.h>
#include <vector>

namespace kestrel {

namespace {

constexpr int backlog = 64;

unique_fd refuse(std::string &why, std::string text) {
    why = std::move(text);
    return {};
}

bool is_ours(const struct stat &status) {
    return status.st_uid == ::geteuid() || status.st_uid == 0;
}

// Nobody else can put another file in the place of ours.
bool is_safe_folder(const std::string &folder, std::string &why) {
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        why = folder + " is no folder";
        return false;
    }
    const bool others_write = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !(status.st_mode & S_ISVTX);
    if (!is_ours(status) || others_write)
        why = folder + " belongs to others";
    return is_ours(status) && !others_write;
}

// Makes room for our socket: what a server left that has ended goes.
bool free_place(const std::string &path, const sockaddr_un &address, std::string &why) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        why = path + ": " + std::strerror(errno);
        return errno == ENOENT;
    }
    if (S_ISLNK(status.st_mode) || !S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid()) {
        why = path + (S_ISLNK(status.st_mode)     ? " is a symbolic link"
                      : !S_ISSOCK(status.st_mode) ? " is there and no socket"
                                                  : " belongs to somebody else");
        return false;
    }
    const unique_fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED) {
        why = "another server answers at " + path;
        return false;
    }
    return ::unlink(path.c_str()) == 0;
}

std::optional<gid_t> group_number(const std::string &name) {
    std::vector<char> text(16384);
    group record{};
    group *found = nullptr;
    if (::getgrnam_r(name.c_str(), &record, text.data(), text.size(), &found) == 0 && found)
        return record.gr_gid;
    return std::nullopt;
}

} // namespace

unique_fd control_listen(const std::string &path, const std::string &group, bool make_folder,
                         std::string &why) {
    constexpr mode_t owner_only = 0600, with_group = 0660, folder_mode = 0700;
    sockaddr_un address{};
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + (slash == 0));
    if (!control_address(path, address))
        return refuse(why, path + " is too long for a socket");
    if (make_folder)
        ::mkdir(folder.c_str(), folder_mode); // it may be there
    if (!is_safe_folder(folder, why) || !free_place(path, address, why))
        return {};
    const std::optional<gid_t> number = group_number(group);
    if (!group.empty() && !number)
        return refuse(why, "there is no group " + group);
    unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The mode before the name: at no time can others connect.
    if (!fd || ::fchmod(fd.get(), owner_only) != 0 ||
        ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return refuse(why, path + ": " + std::strerror(errno));
    const bool opened = group.empty() || (::lchown(path.c_str(), static_cast<uid_t>(-1), *number) == 0 &&
                                          ::chmod(path.c_str(), with_group) == 0);
    if (opened && ::listen(fd.get(), backlog) == 0)
        return fd;
    why = path + ": " + std::strerror(errno);
    ::unlink(path.c_str());
    return {};
}

} // namespace kestrel
