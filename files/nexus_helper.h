// files: kestrel-nexus as the server holds it: started, ordered, listened to. It writes by itself; what it says is heard
// without waiting. Command thread.
#pragma once

#include "support/fd.h"

#include <span>
#include <string>
#include <sys/types.h>

namespace kestrel {

class nexus_helper {
  public:
    nexus_helper() = default;
    nexus_helper(const nexus_helper &) = delete;
    nexus_helper &operator=(const nexus_helper &) = delete;
    ~nexus_helper(); // one that has not ended is killed, and what it wrote removed

    // Starts it to write `name`, as the records say, with these descriptors as nexus_modules ones.
    // False with a cause.
    bool start(const std::string &name, const std::string &records, std::span<const int> modules,
               std::string &cause);
    // The end's records: false with errno.
    bool give_results(const std::string &records);
    void order(char what); // a nexus_order
    void leave();          // it closes its file as it stands, without a name

    // Removes what it has left that is of no use, once it has ended.
    void clear_up() const;

    // Takes up what it has said, and its end.
    void listen();
    int descriptor() const { return answers_.get(); } // readable when there is something to hear
    unique_fd take_descriptor() { return std::move(answers_); }
    bool has_ended() const { return child_ < 0; }
    bool has_said(const char *line) const;
    // Why it did not write the file, once it has ended.
    std::string cause() const;

  private:
    void reap();

    std::string name_, said_;
    pid_t child_ = -1;
    int status_ = 0;
    unique_fd control_, answers_, results_;
};

} // namespace kestrel
