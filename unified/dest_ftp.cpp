// Destination: a file on another machine, by FTP. The bytes leave as they come.
#include "server/interrupt.h"
#include "server/output.h"
#include "support/ftp.h"
#include "unified/output.h"

#include <cerrno>
#include <optional>

namespace kestrel {

namespace {

int complain(const UnifOutput &output, const ftp_result &result) {
    const char *machine = output.machinename.c_str();
    switch (result.failed) {
    case ftp_stage::none:
        return 0;
    case ftp_stage::open:
        sv_printf(output.cn, "! FTP open failed to machine '%s': %s\n", machine, result.text.c_str());
        break;
    case ftp_stage::login:
        sv_printf(output.cn, "! FTP Authorisation failed to machine '%s', user '%s'\n", machine,
                  output.username.c_str());
        break;
    default:
        sv_printf(output.cn, "! FTP put of '%s' failed: %s\n", output.filename.c_str(), result.text.c_str());
        break;
    }
    errno = EIO;
    return -1;
}

class ftp_destination final : public output_destination {
  public:
    int init(UnifOutput &output, const _unif_format &) override {
        sv_flush_all(output.cn);
        upload_.emplace();
        ftp_options options;
        options.stop = [] { return sv_quit != 0; };
        return complain(output, upload_->begin({output.machinename, output.username, output.password},
                                               output.filename, options));
    }

    int write(UnifOutput &output, const std::byte *bytes, std::size_t count) override {
        return complain(output, upload_->write({bytes, count}));
    }

    // Unfinished, the upload takes back what it has sent.
    int term(UnifOutput &output, bool failed) override {
        const int result = failed ? 0 : complain(output, upload_->finish());
        upload_.reset();
        return result;
    }

  private:
    std::optional<ftp_upload> upload_;
};

} // namespace

void remote_file_setup_output(UnifOutput &output) {
    output.to = output_to::remote_file;
    output.destination = std::make_unique<ftp_destination>();
}

} // namespace kestrel
