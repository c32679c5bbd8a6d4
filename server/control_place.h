// server: the place of the control socket in the file system: who may own it, and whose it may be.
#pragma once

#include "support/fd.h"

#include <string>

namespace kestrel {

// A socket that listens at `path`, mode 0600, or 0660 for the group when one is named; in place of one that a server left
// which has ended. Empty, with why, for a symbolic link, somebody else's file or folder, or a server that answers there.
// `make_folder` is for the usual place: its folder is made when it is missing.
unique_fd control_listen(const std::string &path, const std::string &group, bool make_folder,
                         std::string &why);

} // namespace kestrel
