#include "server/script_file.h"

#include "server/interrupt.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace kestrel {

namespace {

constexpr std::size_t block_size = 64 * 1024;
constexpr long fresh_ns = 20'000'000; // a change within one clock tick of the file system leaves no trace

long long nanoseconds(const timespec &t) {
    return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
}

bool freshly_written(const struct stat &status) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const long long age = nanoseconds(now) - nanoseconds(status.st_mtim);
    return age >= 0 && age < fresh_ns;
}

bool same_state(const struct stat &a, const struct stat &b) {
    return a.st_size == b.st_size && nanoseconds(a.st_mtim) == nanoseconds(b.st_mtim) &&
           nanoseconds(a.st_ctim) == nanoseconds(b.st_ctim);
}

} // namespace

script_file::script_file(unique_fd fd) : fd_(std::move(fd)) {
    const off_t start = ::lseek(fd_.get(), 0, SEEK_CUR);
    seekable_ = start >= 0;
    position_ = block_start_ = seekable_ ? start : 0;
}

bool script_file::read_line(std::string_view &line, std::size_t max) {
    for (;;) {
        const std::string_view rest = unread();
        const std::size_t lf = rest.substr(0, max + 1).find('\n'); // a full line's own end belongs to it
        if (lf != std::string_view::npos) {
            line = take(lf, 1);
            if (line.ends_with('\r'))
                line.remove_suffix(1);
            return true;
        }
        const bool is_long = rest.size() > max;
        if (is_long || !fill()) {
            if (!is_long && error_ != 0) // a part of a line is not what somebody meant to run
                return false;
            line = take(std::min(unread().size(), max), 0);
            return !line.empty();
        }
    }
}

bool script_file::next_byte(char &byte) {
    while (unread().empty()) {
        if (!fill())
            return false;
    }
    byte = unread().front();
    return true;
}

bool script_file::read_text(std::string &line, std::size_t max) {
    line.clear();
    char byte = '\0';
    bool any = false;
    for (; next_byte(byte); ++position_) {
        if (byte == '\n' || byte == '\r')
            break;
        any = true;
        if (byte != '\0' && line.size() < max)
            line += byte;
    }
    if (byte != '\n' && byte != '\r')
        return any;
    ++position_;
    char second = '\0';
    if (next_byte(second) && (second == '\n' || second == '\r') && second != byte)
        ++position_;
    return true;
}

std::string_view script_file::unread() const {
    return std::string_view(block_).substr(static_cast<std::size_t>(position_ - block_start_));
}

std::string_view script_file::take(std::size_t length, std::size_t end_length) {
    const std::string_view taken = unread().substr(0, length);
    position_ += static_cast<off_t>(length + end_length);
    return taken;
}

bool script_file::seek(off_t position) {
    if (!seekable_ || position < 0)
        return false;
    if (changed())
        drop();
    const off_t block_end = block_start_ + static_cast<off_t>(block_.size());
    if (position < block_start_ || position > block_end)
        block_.clear();
    position_ = position;
    if (block_.empty())
        block_start_ = position;
    return true;
}

bool script_file::fill() {
    if (seekable_)
        note_status();
    if (!seekable_ || block_.size() >= block_size) { // a short file stays whole: its loops seek back
        block_.erase(0, static_cast<std::size_t>(position_ - block_start_));
        block_start_ = position_;
    }
    const std::size_t have = block_.size();
    block_.resize(have + block_size);
    ssize_t n = -1;
    do {
        n = seekable_ ? ::pread(fd_.get(), block_.data() + have, block_size,
                                block_start_ + static_cast<off_t>(have))
                      : ::read(fd_.get(), block_.data() + have, block_size);
    } while (n < 0 && errno == EINTR && (seekable_ || sv_quit == 0)); // ^C ends the wait for a pipe only
    error_ = n < 0 ? errno : 0;
    block_.resize(have + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    return n > 0;
}

// A block is of one state of the file: what was kept of an older one goes.
void script_file::note_status() {
    struct stat now {};
    ::fstat(fd_.get(), &now);
    if (!block_.empty() && !same_state(now, seen_))
        drop();
    fresh_ = (fresh_ && !block_.empty()) || freshly_written(now);
    seen_ = now;
}

void script_file::drop() {
    block_.clear();
    block_start_ = position_;
    ++generation_;
}

// A loop of a few lines seeks more than a million times a second: it asks for the file's state once a tick.
bool script_file::changed() {
    if (block_.empty() || fresh_)
        return !block_.empty();
    timespec tick{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &tick);
    if (nanoseconds(tick) == looked_)
        return false;
    looked_ = nanoseconds(tick);
    struct stat now {};
    return ::fstat(fd_.get(), &now) != 0 || !same_state(now, seen_);
}

} // namespace kestrel
