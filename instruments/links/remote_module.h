// instruments/links: a data module of another server's, open there on a handle.
#pragma once

#include <cstddef>
#include <string>

namespace kestrel::links {

// Opens the module over there; whatever happens, the handle is closed again when this goes, if the connection still
// stands. Failures of the link have lines of their own.
class remote_module {
  public:
    remote_module(int cn, int link, const std::string &name);
    ~remote_module();
    remote_module(const remote_module &) = delete;
    remote_module &operator=(const remote_module &) = delete;

    explicit operator bool() const { return handle_ >= 0; }

    // What `unif-get-nx` and so on say of it; negative on failure.
    int ask(const char *question) const;

    // All its elements of that type (of a unified handle) in this machine's order, nx x ny of them: 0 or -1.
    int read(int nx, int ny, int type, std::byte *data) const;

    // Closes it now: 0, or -1 when the connection is gone or the remote refused.
    int close();

  private:
    int cn_, link_;
    int handle_;
    unsigned long generation_; // of the connection that it was opened on
};

} // namespace kestrel::links
