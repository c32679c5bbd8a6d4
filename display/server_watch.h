// display: what the server says of itself over its control socket, asked every second by a thread of its own.
#pragma once

#include <mutex>
#include <string>
#include <thread>

namespace kestrel::display {

struct server_words {
    bool answers = false;
    std::string status; // or why it does not answer
    std::string metrics;
};

class server_watch {
  public:
    explicit server_watch(std::string path);
    ~server_watch();
    server_watch(const server_watch &) = delete;
    server_watch &operator=(const server_watch &) = delete;

    server_words words() const; // the newest

  private:
    void ask_for_ever();

    const std::string path_;
    int wake_ = -1; // an eventfd
    mutable std::mutex mutex_;
    server_words words_;
    std::thread thread_; // last: it uses the others
};

} // namespace kestrel::display
