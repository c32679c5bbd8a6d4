// How the library meets the server: its messages, ^C, sessions that end and the server's end.
#include "server/hooks.h"
#include "parser/call.h"
#include "pulsar3/lib/config/config.h"
#include "pulsar3/server/commands.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/session.h"
#include "support/fd.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <utility>
#include <vector>

namespace kestrel {

namespace {

// What threads have to say waits for the command thread: they must not wait for a session that does not read.
class waiting_messages {
  public:
    bool open() {
        wake_ = unique_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        return static_cast<bool>(wake_);
    }
    int descriptor() const { return wake_.get(); }
    void add(int to, std::string &&line) {
        const std::lock_guard guard(mutex_);
        if (lines_.size() == lines_max) {
            ++unsaid_;
            return;
        }
        lines_.emplace_back(to, std::move(line));
        ::eventfd_write(wake_.get(), 1);
    }
    std::vector<std::pair<int, std::string>> take() {
        const std::lock_guard guard(mutex_);
        eventfd_t ignored;
        ::eventfd_read(wake_.get(), &ignored);
        if (unsaid_ > 0)
            lines_.emplace_back(-1, "# " + std::to_string(std::exchange(unsaid_, 0)) + " messages more\n");
        return std::exchange(lines_, {});
    }

  private:
    static constexpr std::size_t lines_max = 1000;
    std::mutex mutex_;
    std::vector<std::pair<int, std::string>> lines_;
    std::size_t unsaid_ = 0;
    unique_fd wake_;
};

waiting_messages waiting;
std::thread::id command_thread;

void print(int to, const std::string &line) {
    sv_writeln(to >= 0 && sv_is_valid(to) ? to : -1, line.data(), line.size());
}

// Any thread may call this. Every line is one of information; without its session it goes to standard output.
void message(int to, std::string_view text) {
    std::string line = "# " + std::string(text);
    if (line.back() != '\n')
        line += '\n';
    if (std::this_thread::get_id() != command_thread)
        return waiting.add(to, std::move(line));
    pulsar3_say();
    print(to, line);
}

int (*select_add_before)(fd_set *set, int highest) = nullptr;
void (*select_test_before)(const fd_set *set) = nullptr;

int select_add(fd_set *set, int highest) {
    if (select_add_before)
        highest = select_add_before(set, highest);
    if (waiting.descriptor() >= FD_SETSIZE)
        return highest;
    FD_SET(waiting.descriptor(), set);
    return std::max(highest, waiting.descriptor());
}

void select_test(const fd_set *set) {
    if (select_test_before)
        select_test_before(set);
    if (waiting.descriptor() < FD_SETSIZE && FD_ISSET(waiting.descriptor(), set))
        pulsar3_say();
}

bool interrupted() {
    return sv_quit > 0;
}

} // namespace

void pulsar3_say() {
    for (const auto &[to, line] : waiting.take())
        print(to, line);
}

void pulsar3_init() {
    command_thread = std::this_thread::get_id();
    if (waiting.open()) {
        select_add_before = std::exchange(user_select_add, select_add);
        select_test_before = std::exchange(user_select_test, select_test);
    }
    plr3_message_hook = message;
    plr3_interrupt_hook = interrupted;
}

void pulsar3_connection_lost(int cn) {
    plr3_session_ended(cn);
}

void pulsar3_exit() {
    plr3_close_all();
}

int pulsar3_card(int card) {
    return OptionalArgumentCount > 0 ? card : -1;
}

int pulsar3_status(int cn, int status) {
    if (status < 0)
        sv_print(cn, std::string("! ERROR ") + plr3_get_error_message() + "\n");
    return status;
}

} // namespace kestrel
