#include "instruments/bench/log_file.h"

#include "support/file_io.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace kestrel::bench {

namespace {

constexpr int names_tried = 1000;

// The file's own name and the time of its last change; a number behind it when there is such a file.
std::string aside_name(const std::string &path, time_t changed) {
    char stamp[32] = "";
    tm local{};
    ::localtime_r(&changed, &local);
    std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M", &local);
    const std::string name = path + "." + stamp;
    for (int n = 0; n < names_tried; ++n) {
        std::string candidate = n == 0 ? name : name + "." + std::to_string(n);
        struct stat status {};
        if (::lstat(candidate.c_str(), &status) != 0)
            return candidate;
    }
    return {};
}

bool past_its_length(const log_file &log, const struct stat &status) {
    return log.max_len > 0 && status.st_size > log.max_len && S_ISREG(status.st_mode);
}

bool open_append(log_file &log, bool truncate) {
    log.fd = open_regular(log.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | (truncate ? O_TRUNC : 0), 0666);
    return static_cast<bool>(log.fd);
}

// All of it or nothing, so that a line that did not fit leaves no half behind.
bool append_whole(log_file &log, const std::string &text) {
    struct stat before {};
    if (::fstat(log.fd.get(), &before) != 0)
        return false;
    if (write_all(log.fd.get(), text))
        return true;
    const int error = errno;
    [[maybe_unused]] const int cut = ::ftruncate(log.fd.get(), before.st_size);
    errno = error;
    return false;
}

// A file that is empty begins with the header.
bool put(log_file &log, const std::string &line) {
    struct stat status {};
    const bool begins = ::fstat(log.fd.get(), &status) == 0 && status.st_size == 0 && !log.header.empty();
    return append_whole(log, begins ? "# " + log.header + "\n" + line : line);
}

// Moves the file aside if it has grown too long. What cannot be moved goes on growing, and is told once.
void roll(const waiter &who, log_file &log) {
    struct stat status {};
    if (log.roll_failed || ::stat(log.path.c_str(), &status) != 0 || !past_its_length(log, status))
        return;
    const std::string aside = aside_name(log.path, status.st_mtime);
    if (aside.empty() || ::rename(log.path.c_str(), aside.c_str()) != 0) {
        say(who, "# Problem rolling file, trying to continue in append mode\n");
        log.roll_failed = true;
        return;
    }
    const std::string shown = log.name + aside.substr(log.path.size());
    say(who, "# Note renaming log file %s to %s\n", log.name.c_str(), shown.c_str());
    log.fd.reset();
}

} // namespace

bool log_open(const waiter &who, log_file &log, const log_wishes &wishes) {
    log = {};
    log.name = wishes.file;
    for (const char c : wishes.header) // each of its lines is a comment
        log.header += c == '\n' ? std::string("\n# ") : std::string(1, c);
    log.max_len = wishes.roll ? wishes.max_len : 0;
    std::error_code failed;
    log.path = std::filesystem::absolute(wishes.file, failed).string();
    if (!wishes.truncate)
        roll(who, log);
    if (failed || !open_append(log, wishes.truncate)) {
        const int error = failed ? failed.value() : errno;
        say(who, "! ERROR: Cannot open file '%s' mode '%s'. Errno=%d\n", wishes.file.c_str(),
            wishes.truncate ? "w" : "a", error);
        return false;
    }
    if (!put(log, "")) {
        say(who, "! ERROR: Cannot write to file '%s'. Errno=%d\n", wishes.file.c_str(), errno);
        return false;
    }
    return true;
}

void log_append(const waiter &who, log_file &log, const std::string &line) {
    roll(who, log);
    if ((!log.fd && !open_append(log, false)) || !put(log, line)) {
        if (!log.full_told)
            say(who, "! ERROR: Cannot write to log file '%s', lines are lost. Errno=%d, %s\n",
                log.name.c_str(), errno, std::strerror(errno));
        log.full_told = true;
        return;
    }
    if (log.full_told)
        say(who, "# Note log file %s is written again\n", log.name.c_str());
    log.full_told = false;
}

} // namespace kestrel::bench
