// unified: where a read's bytes go. A form calls write and never asks where to. One file a destination: its
// setup function fills in the record's `to` and `destination`.
#pragma once

#include "support/fd.h"

#include <cstddef>
#include <memory>
#include <string>

namespace kestrel {

enum class output_to { data_socket, local_file, remote_file, module };

struct _unif_format;
struct UnifOutput;

// What a destination does, one class a destination, with its state. Every function gets the record that it
// belongs to.
class output_destination {
  public:
    output_destination() = default;
    output_destination(const output_destination &) = delete;
    output_destination &operator=(const output_destination &) = delete;
    virtual ~output_destination() = default;

    // Opens it for data as the form hands them out: 0, or -1 with errno set.
    virtual int init(UnifOutput &output, const _unif_format &format) = 0;
    // All of the bytes: 0, or -1 with errno set (or after a message).
    virtual int write(UnifOutput &output, const std::byte *bytes, std::size_t count) = 0;
    // Closes it; after a failure nothing half-made is left behind. 0, or -1 after a message.
    virtual int term(UnifOutput &output, bool failed) = 0;
    // The mapping that it writes into, from init on; null where there is none.
    virtual const void *owner() const { return nullptr; }
};

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

    unique_fd fd;
    std::unique_ptr<output_destination> destination;

    int init(const _unif_format &format) { return destination->init(*this, format); }
    int write(const void *bytes, std::size_t count) {
        return destination->write(*this, static_cast<const std::byte *>(bytes), count);
    }
    int term(bool failed) { return destination->term(*this, failed); }
    const void *owner() const { return destination->owner(); }
};

void data_socket_setup_output(UnifOutput &output);
void local_file_setup_output(UnifOutput &output);
void remote_file_setup_output(UnifOutput &output);
void module_setup_output(UnifOutput &output);

} // namespace kestrel
