// files: where the headers of a KILN folder, their index and their log are kept: this machine's disk, or another machine
// by FTP. A failure has its line, and nothing half-written stays.
//
//   LINDEX.NDX   the last sequence number (32 bits, this machine's byte order), the stamp of its header, a zero
//   LINFO.LOG    an entry for each header
//
// with L the first letter of the headers.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kestrel {

struct ftp_account;

struct kiln_index {
    int sequence = -1; // of the last header; -1: none yet
    std::string stamp; // of that header, three characters
};

inline constexpr std::size_t kiln_index_bytes = 8;
inline constexpr int kiln_sequence_max = 99;

std::string kiln_index_pack(const kiln_index &index);
// The index from at least kiln_index_bytes bytes; nothing after a line when it is broken.
std::optional<kiln_index> kiln_index_unpack(int cn, const std::string &path, std::string_view bytes);

enum class kiln_written {
    done,
    refused, // it was not begun, and has its line
    failed,  // on the way, with errno and without a line
};

class kiln_place {
  public:
    explicit kiln_place(int cn) : cn_(cn) {}
    kiln_place(const kiln_place &) = delete;
    kiln_place &operator=(const kiln_place &) = delete;
    virtual ~kiln_place() = default;

    virtual const char *line_end() const = 0; // that a text handed to write_header and append_log has

    // Other servers keep off the index until this place goes. 0, or -1 after a line.
    virtual int lock_index(const std::string &path) = 0;
    // The index, sequence -1 where there is none; nothing after a line.
    virtual std::optional<kiln_index> read_index(const std::string &path) = 0;
    virtual int write_index(const std::string &path, const kiln_index &index) = 0; // 0, or -1 after a line

    virtual kiln_written write_header(const std::string &path, std::string_view text, bool over) = 0;
    virtual kiln_written append_log(const std::string &path, std::string_view text) = 0;

  protected:
    int exists(const std::string &path) const; // says so: -1

    int cn_;
};

std::unique_ptr<kiln_place> kiln_local_place(int cn);
std::unique_ptr<kiln_place> kiln_ftp_place(int cn, const ftp_account &account);

} // namespace kestrel
