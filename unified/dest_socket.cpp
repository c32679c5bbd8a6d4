// Destination: the session's data connection.
#include "server/data_channel.h"
#include "server/output.h"
#include "unified/output.h"

#include <cerrno>
#include <cstring>

namespace kestrel {

namespace {

class socket_destination final : public output_destination {
  public:
    int init(UnifOutput &output, const _unif_format &) override {
        sv_flush_all(output.cn); // the client learns what comes before it comes
        return sv_data_open(output.cn) < 0 ? -1 : 0;
    }

    int write(UnifOutput &output, const std::byte *bytes, std::size_t count) override {
        if (sv_data_write(output.cn, bytes, count) == static_cast<ssize_t>(count))
            return 0;
        sv_printf(output.cn, "! Cannot send data: %s\n", std::strerror(errno));
        return -1;
    }

    // A failed transfer always closes: the client must not take what comes next for the rest of this one.
    int term(UnifOutput &output, bool failed) override {
        if (failed)
            sv_data_abort(output.cn);
        else if (!output.preserve_socket)
            sv_data_close(output.cn);
        return 0;
    }
};

} // namespace

void data_socket_setup_output(UnifOutput &output) {
    output.to = output_to::data_socket;
    output.destination = std::make_unique<socket_destination>();
}

} // namespace kestrel
