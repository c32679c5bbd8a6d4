// KILN headers on another machine. Header and log are sent as text, so that the line ends are those of that machine; the
// index is sent as it is, since its number could look like a line end.
#include "files/kiln_place.h"

#include "server/interrupt.h"
#include "server/output.h"
#include "support/ftp.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace kestrel {

namespace {

std::span<const std::byte> bytes_of(std::string_view text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}

class ftp_place final : public kiln_place {
  public:
    ftp_place(int cn, const ftp_account &account) : kiln_place(cn), account_(account) {}

    const char *line_end() const override { return "\n"; }     // becomes CR LF on the way
    int lock_index(const std::string &) override { return 0; } // there are no locks to be had
    std::optional<kiln_index> read_index(const std::string &path) override;
    int write_index(const std::string &path, const kiln_index &index) override;
    kiln_written write_header(const std::string &path, std::string_view text, bool over) override;
    kiln_written append_log(const std::string &path, std::string_view text) override;

  private:
    enum class presence { absent, present, unknown };

    ftp_options options(bool ascii, bool append = false) const;
    bool complain(const ftp_result &result) const;
    presence look_for(const std::string &path, std::string &start) const;
    kiln_written send(const std::string &path, std::string_view text, bool append) const;

    ftp_account account_;
};

ftp_options ftp_place::options(bool ascii, bool append) const {
    ftp_options options;
    options.ascii = ascii;
    options.append = append;
    options.stop = [] { return sv_quit != 0; };
    return options;
}

// Says how an exchange failed; false when it did not.
bool ftp_place::complain(const ftp_result &result) const {
    const auto failed = [&](const char *what) {
        sv_printf(cn_, "! FTP %s failed: %s\n", what, result.text.c_str());
        return true;
    };
    const std::string &machine = account_.machine;
    switch (result.failed) {
    case ftp_stage::none:
        return false;
    case ftp_stage::open:
        sv_printf(cn_, "! FTP open failed to machine '%s'. Please check machine name\n", machine.c_str());
        return failed("ftp-open");
    case ftp_stage::login:
        sv_printf(cn_, "! FTP Authorisation failed to machine '%s', user '%s'\n", machine.c_str(),
                  account_.user.c_str());
        sv_printf(cn_, "! Please check user name '%s' and password\n", account_.user.c_str());
        return failed("ftp-auth");
    case ftp_stage::type:
        return failed("ftp-ascii");
    default:
        return failed("ftp-open-data");
    }
}

// The file's first bytes, as many as an index has and one more. What a server does not give, but lists, is there all the
// same. `unknown` has its line.
ftp_place::presence ftp_place::look_for(const std::string &path, std::string &start) const {
    bool any = false;
    const auto sink = [&](std::span<const std::byte> bytes) {
        any = true;
        start.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        return start.size() <= kiln_index_bytes;
    };
    const ftp_result got = ftp_get(account_, path, sink, options(false));
    if (got || any)
        return presence::present;
    if (got.failed != ftp_stage::missing) {
        complain(got);
        return presence::unknown;
    }
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::vector<std::string> names;
    const ftp_result listed = ftp_names(account_, folder, names, options(false));
    const bool is_listed =
        listed && std::find(names.begin(), names.end(), path.substr(folder.size())) != names.end();
    return is_listed ? presence::present : presence::absent;
}

std::optional<kiln_index> ftp_place::read_index(const std::string &path) {
    std::string bytes;
    switch (look_for(path, bytes)) {
    case presence::absent:
        return kiln_index{};
    case presence::unknown:
        sv_printf(cn_, "! Cannot open remote fd for read of index file\n");
        return std::nullopt;
    case presence::present:
        break;
    }
    if (bytes.size() >= kiln_index_bytes)
        return kiln_index_unpack(cn_, path, bytes);
    sv_printf(cn_, "! Cannot read sequence number from remote file '%s'\n", path.c_str());
    return std::nullopt;
}

int ftp_place::write_index(const std::string &path, const kiln_index &index) {
    const std::string aside = path + ".new";
    {
        ftp_upload upload;
        if (complain(upload.begin(account_, aside, options(false)))) {
            sv_printf(cn_, "! Cannot open remote fd for write of index file\n");
            return -1;
        }
        if (complain(upload.write(bytes_of(kiln_index_pack(index))))) {
            sv_printf(cn_, "! ERROR opening remote index file file '%s' for write\n", path.c_str());
            return -1;
        }
        if (complain(upload.finish())) {
            sv_printf(cn_, "! Error writing new sequence number\n");
            return -1;
        }
    }
    if (!complain(ftp_rename(account_, aside, path, options(false))))
        return 0;
    sv_printf(cn_, "! Error closing index file '%s'\n", path.c_str());
    return -1;
}

// refused: the file could not be begun; a line says why.
kiln_written ftp_place::send(const std::string &path, std::string_view text, bool append) const {
    ftp_upload upload;
    if (complain(upload.begin(account_, path, options(true, append))) ||
        complain(upload.write(bytes_of(text))))
        return kiln_written::refused;
    if (!complain(upload.finish()))
        return kiln_written::done;
    errno = EIO;
    return kiln_written::failed;
}

kiln_written ftp_place::write_header(const std::string &path, std::string_view text, bool over) {
    std::string start;
    const presence now = over ? presence::absent : look_for(path, start);
    if (now == presence::present)
        exists(path);
    if (now != presence::absent)
        return kiln_written::refused;
    const kiln_written written = send(path, text, false);
    if (written == kiln_written::refused)
        sv_printf(cn_, "! ERROR opening remote file '%s' for write\n", path.c_str());
    return written;
}

kiln_written ftp_place::append_log(const std::string &path, std::string_view text) {
    const kiln_written written = send(path, text, true);
    if (written == kiln_written::refused)
        sv_printf(cn_, "! ERROR opening remote log file '%s' for write\n", path.c_str());
    return written;
}

} // namespace

std::unique_ptr<kiln_place> kiln_ftp_place(int cn, const ftp_account &account) {
    return std::make_unique<ftp_place>(cn, account);
}

} // namespace kestrel
