// `ftp`: files between the server and the client's machine.
#include "instruments/links/commands.h"
#include "parser/qualifiers.h"
#include "server/host_names.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/session.h"
#include "support/fd.h"
#include "support/file_io.h"
#include "support/ftp.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>

namespace kestrel::links {

namespace {

constexpr pt_format transfer_format("%s +%s host %s user %s password %s ascii = %d");
using transfer_quals = pt_qualifiers<transfer_format>;

constexpr std::size_t block_size = 65536;
constexpr int debug_max = 3;

ftp_trace trace;
unique_file trace_file;

std::string client_address(int cn) {
    return use_network ? sv_get_address(cn) : "127.0.0.1";
}

// The client's own machine, the user "ftp", and an e-mail address as its password, unless the line says
// otherwise.
ftp_account account_of(const transfer_quals &q, int cn) {
    return {q.given("host") ? q.text("host") : client_address(cn), q.text("user", "ftp"),
            q.text("password", "kestrel@localhost")};
}

ftp_options options_of(const transfer_quals &q) {
    ftp_options options;
    options.ascii = q.given("ascii");
    options.stop = [] { return sv_quit != 0; };
    options.trace = &trace;
    return options;
}

int complain(int cn, const ftp_account &account, const char *verb, const std::string &file,
             const ftp_result &result) {
    switch (result.failed) {
    case ftp_stage::none:
        return 0;
    case ftp_stage::open:
        sv_print(cn, "! FTP open failed to machine '" + account.machine + "': " + result.text + "\n");
        return -1;
    case ftp_stage::login:
        sv_print(cn, "! FTP Authorisation failed to machine '" + account.machine + "', user '" +
                         account.user + "'\n");
        return -1;
    default:
        sv_print(cn, std::string("! FTP ") + verb + " of '" + file + "' failed: " + result.text + "\n");
        return -1;
    }
}

std::string last_part(const char *path) {
    const std::string_view text(path);
    return std::string(text.substr(text.rfind('/') + 1)); // npos + 1 is the start
}

int file_error(int cn, const std::string &name) {
    sv_print(cn, "! Cannot use file '" + name + "': " + std::strerror(errno) + "\n");
    return -1;
}

// The file goes out in blocks; what the far end has of a failed one is taken back by the upload.
int send_file(int cn, const transfer_quals &q, const char *local, const std::string &remote) {
    const unique_fd file = open_regular(local, O_RDONLY);
    if (!file)
        return file_error(cn, local);
    const ftp_account account = account_of(q, cn);
    ftp_upload upload;
    ftp_result result = upload.begin(account, remote, options_of(q));
    std::array<std::byte, block_size> block;
    while (result) {
        const ssize_t n = read_some(file.get(), block.data(), block.size());
        if (n < 0)
            return file_error(cn, local);
        if (n == 0)
            return complain(cn, account, "put", remote, upload.finish());
        result = upload.write(std::span(block).first(static_cast<std::size_t>(n)));
    }
    return complain(cn, account, "put", remote, result);
}

// Removes the half file of a transfer that did not come through.
struct partial_file {
    std::string name;
    ~partial_file() {
        if (!name.empty())
            ::unlink(name.c_str());
    }
};

int receive_file(int cn, const transfer_quals &q, const char *remote, const std::string &local) {
    partial_file part{local + ".part"};
    unique_file file = open_stream(part.name.c_str(), "w");
    if (!file) {
        part.name.clear();
        return file_error(cn, local);
    }
    const ftp_account account = account_of(q, cn);
    const auto sink = [&file](std::span<const std::byte> bytes) {
        return std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    };
    if (const int failed =
            complain(cn, account, "get", remote, ftp_get(account, remote, sink, options_of(q))))
        return failed;
    if (std::fclose(file.release()) != 0 || ::rename(part.name.c_str(), local.c_str()) != 0)
        return file_error(cn, local);
    part.name.clear();
    return 0;
}

int put(int quals, int cn, const char *local, const char *remote) {
    const transfer_quals q(quals);
    sv_flush_all(cn);
    return send_file(cn, q, local, remote ? remote : last_part(local));
}

int get(int quals, int cn, const char *remote, const char *local) {
    const transfer_quals q(quals);
    sv_flush_all(cn);
    return receive_file(cn, q, remote, local ? local : last_part(remote));
}

int set_debug(int, int cn, int level, const char *log) {
    if (level < 0 || level > debug_max) {
        sv_printf(cn, "! FTP debug level should be 0..%d not %d\n", debug_max, level);
        return -1;
    }
    unique_file file;
    if (log) {
        file = open_stream(log, "a");
        if (!file)
            return file_error(cn, log);
    }
    trace_file = std::move(file);
    trace = {level, trace_file ? trace_file.get() : stderr};
    return 0;
}

} // namespace

constinit const PARSE_TREE ftp_tree[] = {
    pt_command<put>(
        "put", transfer_format, "send a file from the server to your machine by FTP",
        "File name on the server/Name on the target machine (default: the same)/"
        "Target machine (default: yours)/User (default: ftp)/Password (default: an e-mail address)/"
        "Transfer as text (default: binary)"),
    pt_command<get>(
        "get", transfer_format, "fetch a file from your machine to the server by FTP",
        "File name on the source machine/Name on the server (default: the same)/"
        "Source machine (default: yours)/User (default: ftp)/Password (default: an e-mail address)/"
        "Transfer as text (default: binary)"),
    pt_command<set_debug>("set-debug", "%d +%s = %d", "set the debug level of the FTP library",
                          "Level 0 to 3/Log file (default: standard error)"),
    pt_end(),
};

} // namespace kestrel::links
