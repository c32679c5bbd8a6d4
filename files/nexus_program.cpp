// kestrel-nexus NAME: writes a run of counting as the NeXus file NAME. The server starts it, tells it what the file is to
// hold (files/nexus_records.h) and when the run is over; it maps the cards' modules and copies each time frame as it
// becomes final, so that nobody waits for the file. It writes NAME.part, which gets its name when the server has
// confirmed that all of it is one run's. When the server goes before, NAME.part is closed with what there is.
#include "files/nexus_cards.h"
#include "files/nexus_file.h"
#include "support/fd.h"
#include "support/file_io.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr int look_again_ms = 50; // how long a frame that is final may wait
constexpr std::size_t job_max = std::size_t{1} << 32;

struct nexus_work {
    nexus_file file;
    std::vector<std::unique_ptr<nexus_card>> cards;
    std::size_t copied = 0;                                       // frames
    std::size_t frames = std::numeric_limits<std::size_t>::max(); // of the run, once it is known
    bool as_they_are = false;
    std::string cause;
};

bool answer(std::string_view line) {
    return write_all(nexus_answers, std::string(line) + "\n");
}

bool read_all(int fd, std::string &text) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || static_cast<std::size_t>(status.st_size) > job_max ||
        ::lseek(fd, 0, SEEK_SET) != 0)
        return false;
    text.resize(static_cast<std::size_t>(status.st_size));
    return read_full(fd, text.data(), text.size()) == status.st_size;
}

bool do_record(nexus_work &work, const nexus_record &record) {
    bool known = false;
    if (!work.file.put(record, known)) {
        work.cause = work.file.cause();
        return false;
    }
    if (known)
        return true;
    const auto &words = record.words;
    if (words[0] == "card" && words.size() == 6) {
        work.cards.push_back(std::make_unique<nexus_card>());
        return work.cards.back()->open(work.file, record, work.cause);
    }
    if (words[0] == "frames" && words.size() == 3) {
        std::from_chars(words[1].data(), words[1].data() + words[1].size(), work.frames);
        work.as_they_are = words[2] == "all";
        return true;
    }
    work.cause = "a record '" + std::string(words[0]) + "' that it does not know";
    return false;
}

bool do_records(nexus_work &work, int fd) {
    std::string text;
    if (!read_all(fd, text)) {
        work.cause = "cannot read what to write";
        return false;
    }
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::optional<nexus_record> record = nexus_take_record(rest);
        if (!record) {
            work.cause = "cannot understand what to write";
            return false;
        }
        if (!do_record(work, *record))
            return false;
    }
    return true;
}

bool copy_frame(nexus_work &work, bool as_it_is) {
    for (const auto &card : work.cards)
        if (!card->copy(work.file, work.copied, as_it_is)) {
            work.cause = work.file.cause();
            return false;
        }
    ++work.copied;
    return true;
}

std::size_t room(const nexus_work &work) {
    std::size_t frames = work.frames;
    for (const auto &card : work.cards)
        frames = std::min(frames, card->frames());
    return frames;
}

bool copy_final(nexus_work &work) {
    const auto is_final = [&work] {
        return std::ranges::all_of(work.cards, [&](const auto &card) { return card->is_final(work.copied); });
    };
    while (work.copied < room(work) && is_final())
        if (!copy_frame(work, false))
            return false;
    return true;
}

bool copy_rest(nexus_work &work) {
    while (work.copied < room(work))
        if (!copy_frame(work, work.as_they_are))
            return false;
    return true;
}

// The server's next order; 0 when none came in time, nothing when the server has gone.
std::optional<char> next_order(int timeout_ms) {
    pollfd control = {nexus_control, POLLIN, 0};
    if (::poll(&control, 1, timeout_ms) <= 0)
        return '\0';
    char order = 0;
    if (read_some(nexus_control, &order, 1) == 1)
        return order;
    return std::nullopt;
}

enum class follow_end { run_over, server_gone, failed };

follow_end follow(nexus_work &work) {
    for (;;) {
        const std::optional<char> order = next_order(look_again_ms);
        if (order == nexus_end)
            return follow_end::run_over;
        if (!copy_final(work))
            return follow_end::failed;
        if (!order)
            return follow_end::server_gone;
    }
}

bool refuse(const std::string &cause) {
    answer("! " + cause);
    return false;
}

// A file gets its name once it lies on the disk: what a disk or another machine's file system refuses late is told.
bool reaches_disk(const std::string &part) {
    const unique_fd fd(::open(part.c_str(), O_RDONLY | O_CLOEXEC));
    return fd && ::fsync(fd.get()) == 0;
}

bool finish(nexus_work &work, const std::string &part, const std::string &name) {
    if (!do_records(work, nexus_results) || !copy_rest(work))
        return refuse(work.cause);
    work.cards.clear(); // whose datasets are open
    if (!work.file.close())
        return refuse(work.file.cause());
    if (!reaches_disk(part))
        return refuse(std::strerror(errno));
    if (!answer("copied"))
        return false;
    if (next_order(-1) != nexus_rename)
        return true; // it stays as it is
    if (::renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) != 0)
        return refuse("cannot be renamed: " + std::string(std::strerror(errno)));
    return answer("whole");
}

bool write_run(nexus_work &work, const std::string &name) {
    const std::string part = name + ".part";
    if (!work.file.make(part))
        return refuse("'" + part + "': " + work.file.cause());
    bool done = false;
    answer("made");
    if (!do_records(work, nexus_job))
        refuse(work.cause);
    else {
        switch (follow(work)) {
        case follow_end::run_over:
            done = finish(work, part, name);
            break;
        case follow_end::server_gone:
            work.cards.clear();
            return work.file.close();
        case follow_end::failed:
            refuse(work.cause);
        }
    }
    if (!done)
        ::unlink(part.c_str());
    return done;
}

} // namespace

} // namespace kestrel

int main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a limit of size is a full disk like another
    const rlimit none{0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
    if (argc != 2)
        return 2;
    kestrel::nexus_work work;
    bool done = false;
    try {
        done = kestrel::write_run(work, argv[1]);
    } catch (const std::bad_alloc &) {
        kestrel::answer("! no memory");
        ::unlink((std::string(argv[1]) + ".part").c_str());
    }
    std::_Exit(done ? 0 : 1); // nothing is tidied up of a file that could not be written
}
