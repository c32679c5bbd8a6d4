// Destination: a file on another machine, by FTP. The bytes leave as they come.
#include "server/interrupt.h"
#include "server/output.h"
#include "support/ftp.h"
#include "unified/form.h"
#include "unified/output.h"

#include <cerrno>

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

ftp_upload &upload_of(UnifOutput &output) {
    return *static_cast<ftp_upload *>(output.specific.get());
}

int ftp_init(UnifOutput &output, const _unif_format &) {
    sv_flush_all(output.cn);
    output.specific = std::make_shared<ftp_upload>();
    ftp_options options;
    options.stop = [] { return sv_quit != 0; };
    return complain(output, upload_of(output).begin({output.machinename, output.username, output.password},
                                                    output.filename, options));
}

int ftp_write(UnifOutput &output, const void *bytes, std::size_t count) {
    return complain(output, upload_of(output).write({static_cast<const std::byte *>(bytes), count}));
}

// Unfinished, the upload takes back what it has sent.
int ftp_term(UnifOutput &output, bool failed) {
    const int result = failed ? 0 : complain(output, upload_of(output).finish());
    output.specific.reset();
    return result;
}

} // namespace

void remote_file_setup_output(UnifOutput &output) {
    output.to = output_to::remote_file;
    output.init = ftp_init;
    output.write = ftp_write;
    output.term = ftp_term;
}

} // namespace kestrel
