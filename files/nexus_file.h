// files, kestrel-nexus: a NeXus file as the server's records describe it. Over the HDF5 library; one thread.
#pragma once

#include "files/nexus_records.h"
#include "support/tessera.h"

#include <string>

namespace kestrel {

// A stack of frames that grows: [frames][second][third], or with third 0 [frames][second], or [frames] alone. One chunk
// a frame at most, compressed.
struct nexus_growing {
    tessera_id dataset;
    long memory_type = -1;
    std::size_t second = 0, third = 0;
};

class nexus_file {
  public:
    // Makes the file, which must not exist. Each call here gives false and a cause in words.
    bool make(const std::string &name);
    // Writes a record that describes a part of the file; `known` tells whether it was one.
    bool put(const nexus_record &record, bool &known);
    bool make_growing(const std::string &path, long type, std::size_t second, std::size_t third,
                      const char *units, nexus_growing &made);
    bool append(const nexus_growing &to, std::size_t frame, const void *values);
    bool close(); // false when something did not reach the file
    const std::string &cause() const { return cause_; }

  private:
    bool fail(const std::string &what);
    bool put_names(const nexus_record &record);
    bool put_array(const nexus_record &record, long type);
    bool put_link(const nexus_record &record);

    tessera_id file_;
    std::string cause_;
};

} // namespace kestrel
