// unified: where a read's bytes go. A destination is a record of functions and what they need; a form calls
// write and never asks where to.
#pragma once

#include "support/fd.h"

#include <cstddef>
#include <memory>
#include <string>

namespace kestrel {

enum class output_to { data_socket, local_file, remote_file, module };

struct _unif_format;

struct UnifOutput {
    output_to to = output_to::data_socket;
    int cn = 0;
    bool mod_header = true; // the target module is headed
    std::string filename;   // on the server or on the FTP machine
    std::string modulename;
    std::string machinename;
    std::string username;
    std::string password;
    int start_x = 0, start_y = 0, start_t = 0; // where the box goes in the target module
    bool start_t_given = false;
    bool clear_first = false;
    bool preserve_socket = false;
    bool do_fsync = false;
    int source_fd = -1; // the file that the data come from, where they come from one

    // Opens the destination for data as the form hands them out: 0, or -1 with errno set.
    int (*init)(UnifOutput &output, const _unif_format &format) = nullptr;
    // Closes it; after a failure nothing half-made is left behind. 0, or -1 after a message.
    int (*term)(UnifOutput &output, bool failed) = nullptr;
    // All of the bytes: 0, or -1 with errno set (or after a message).
    int (*write)(UnifOutput &output, const void *bytes, std::size_t count) = nullptr;

    unique_fd fd;
    std::shared_ptr<void> specific; // state of the destination
};

void data_socket_setup_output(UnifOutput &output);
void local_file_setup_output(UnifOutput &output);
void remote_file_setup_output(UnifOutput &output);
void module_setup_output(UnifOutput &output);

// The mapping that a module destination writes into; null for the others.
const void *output_owner(const UnifOutput &output);

} // namespace kestrel
