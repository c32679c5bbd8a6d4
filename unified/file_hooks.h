// unified: what the data files' room does for rooms that cannot use it. files/ has the functions, the program
// puts them here at its start (app/hooks.cpp), and `module load` and `module save` call them.
#pragma once

namespace kestrel {

struct file_hooks {
    // As `file open`, whose keywords are given as text: a handle, or -1 after a line.
    int (*open)(int cn, const char *name, const char *keywords) = nullptr;
    // As `file get-next-index`, comments and keywords given as text: the number, or -1 after a line.
    int (*next_index)(int cn, const char *folder, const char *arguments) = nullptr;
};

inline constinit file_hooks unified_file_hooks;

} // namespace kestrel
