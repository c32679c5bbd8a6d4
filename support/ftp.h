// support: files to and from an FTP server, over libcurl. Knows no session and no command.
//
// Every wait is bounded: 10 s to connect, 30 s without progress or answer. `stop` is asked now and then and
// ends the transfer when it says true. A password is used and kept nowhere else; no text holds one.
#pragma once

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

struct ftp_account {
    std::string machine; // host, or host:port
    std::string user;
    std::string password;
};

// Where the dialogue with the server is written, never with a password. Level 1: commands and replies; 2:
// also the library's remarks; 3: also the size of every block of data.
struct ftp_trace {
    int level = 0;
    std::FILE *to = nullptr;
};

struct ftp_options {
    bool ascii = false;               // transfer as text
    bool append = false;              // put only: add to the end of the remote file
    const ftp_trace *trace = nullptr; // lives as long as the transfer
    std::function<bool()> stop;
};

// Where a transfer failed; the stages in which a user looks for the cause.
enum class ftp_stage { none, open, login, type, missing, data };

struct [[nodiscard]] ftp_result {
    ftp_stage failed = ftp_stage::none;
    std::string text; // the cause, in the library's words
    explicit operator bool() const { return failed == ftp_stage::none; }
};

// Sends the bytes as the remote file. The path is relative to the login folder, or absolute with a "/".
ftp_result ftp_put(const ftp_account &account, std::string_view path, std::span<const std::byte> bytes,
                   const ftp_options &options = {});

// Hands the remote file to `sink` as it arrives; a sink that returns false ends the transfer.
ftp_result ftp_get(const ftp_account &account, std::string_view path,
                   const std::function<bool(std::span<const std::byte>)> &sink,
                   const ftp_options &options = {});

// The names of what is in a remote folder, which ends in "/"; empty is the login folder.
ftp_result ftp_names(const ftp_account &account, std::string_view folder, std::vector<std::string> &names,
                     const ftp_options &options = {});

// Gives a remote file another name, which most servers take from any file that has it.
ftp_result ftp_rename(const ftp_account &account, std::string_view from, std::string_view to,
                      const ftp_options &options = {});

// A put whose bytes come one after the other: begin, write ..., finish. `begin` logs in and finds the folder;
// the file is touched by the first write, or by the end of an empty one. What is dropped unfinished after
// that, or has failed, is removed from the server if it can still be reached, within 5 s and whatever `stop`
// says; what was appended to is not.
class ftp_upload {
  public:
    ftp_upload();
    ~ftp_upload();
    ftp_upload(const ftp_upload &) = delete;
    ftp_upload &operator=(const ftp_upload &) = delete;

    ftp_result begin(const ftp_account &account, std::string_view path, const ftp_options &options = {});
    ftp_result write(std::span<const std::byte> bytes); // returns when all of it is taken
    ftp_result finish();

  private:
    struct state;
    std::unique_ptr<state> state_;
};

} // namespace kestrel
