#include "server/logs.h"

#include "server/interrupt.h"
#include "server/output.h"
#include "support/poll_now.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace kestrel {

std::FILE *log_file = nullptr;
std::FILE *vlog_file = nullptr;

namespace {

// What became of a log's text. Worker threads log, too.
struct log_state {
    const char *name;
    std::atomic<int> error = 0;  // of the last write, 0 when it was written
    std::atomic<int> untold = 0; // the errno value with which a loss began, until it is told
};
log_state command_log{"command log"};
log_state verbose_log{"verbose log"};

// ^C is the command thread's: another that logs waits for the log's reader.
bool is_interrupted() {
    return sv_on_command_thread() && sv_quit > 0;
}

// The errno value of a write that failed, else 0. A pipe that nobody empties is left to ^C, and not waited
// for again until somebody does.
int write_whole(int fd, std::string_view text, bool failed_before) {
    while (!text.empty()) {
        if ((failed_before || is_interrupted()) && poll_now(fd, POLLOUT) <= 0)
            return EAGAIN;
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n >= 0)
            text.remove_prefix(static_cast<std::size_t>(n));
        else if (errno != EINTR || is_interrupted())
            return errno;
    }
    return 0;
}

void tell_lost(int cn, log_state &log) {
    if (log.untold.load() == 0) // an exchange in every line is dear
        return;
    const int error = log.untold.exchange(0);
    const char *const why = std::strerror(error);
    std::fprintf(stderr, "server: Cannot write the %s: %s\n", log.name, why);
    sv_printf(cn, "! Cannot write the %s, what happens is not logged: %s\n", log.name, why);
}

constexpr std::string_view secret_word = "password";

bool is_quote(char c) {
    return c == '\'' || c == '"';
}
bool is_word(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool secret_word_at(std::string_view line, std::size_t at) {
    if (line.size() - at < secret_word.size() || (at > 0 && is_word(line[at - 1])))
        return false;
    for (std::size_t i = 0; i < secret_word.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(line[at + i])) != secret_word[i])
            return false;
    }
    const std::size_t end = at + secret_word.size();
    return end == line.size() || !is_word(line[end]);
}

bool has_secret(std::string_view line) {
    // Looked for by a letter that is rare in commands: the "w" of the word.
    constexpr std::size_t mark = secret_word.find('w');
    for (const char letter : {'w', 'W'}) {
        for (std::size_t at = line.find(letter, mark); at != line.npos; at = line.find(letter, at + 1))
            if (secret_word_at(line, at - mark))
                return true;
    }
    return false;
}

// Masks what stands in quotes up to the first blank outside them, from the argument that begins at or after
// `at`; returns where it ends.
std::size_t mask_argument(std::string &line, std::size_t at) {
    while (at < line.size() && (line[at] == ' ' || line[at] == '\t' || line[at] == '='))
        ++at;
    char quote = 0;
    for (; at < line.size(); ++at) {
        char &c = line[at];
        if (quote == 0) {
            if (c == ' ' || c == '\t')
                break;
            if (is_quote(c))
                quote = c;
        } else if (c == quote) {
            quote = 0;
        } else if (c != '\n') {
            c = '*';
        }
    }
    return at;
}

} // namespace

void sv_log(std::FILE *log, std::string_view text) {
    std::fflush(log); // standard output has text of its own
    const log_state &state = log == log_file ? command_log : verbose_log;
    sv_log_lost(log, write_whole(::fileno(log), text, state.error != 0));
}

void sv_log_lost(std::FILE *log, int error) {
    log_state &state = log == log_file ? command_log : verbose_log;
    if (error != 0 && state.error == 0)
        state.untold = error;
    state.error = error;
}

void sv_tell_lost_logs(int cn) {
    tell_lost(cn, command_log);
    tell_lost(cn, verbose_log);
}

void sv_close_log(std::FILE *&log) {
    if (log && log != stdout)
        std::fclose(log);
    log = nullptr;
}

std::string sv_masked(std::string_view line) {
    std::string shown(line);
    if (!has_secret(line))
        return shown;
    for (std::size_t at = 0; at + secret_word.size() <= shown.size();) {
        if (!secret_word_at(shown, at)) {
            ++at;
            continue;
        }
        std::size_t next = at + secret_word.size();
        if (at > 0 && next < shown.size() && is_quote(shown[next]) && shown[next] == shown[at - 1])
            ++next; // the word itself stands in quotes
        at = mask_argument(shown, next);
    }
    return shown;
}

} // namespace kestrel
