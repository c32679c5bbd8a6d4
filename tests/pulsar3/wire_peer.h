// A card for the tests of the control connection: it keeps every request as it came and answers as the test says, by
// default as a card should. It builds its answers byte by byte and shares nothing with the library.
#pragma once

#include "support/fd.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace wire_test {

std::string hex(std::string_view bytes);
std::string bytes(std::string_view hex); // blanks between them are for the reader

struct reply {
    std::string bytes;
    bool close = false; // after the bytes
    bool reset = false; // the connection is torn down instead
};

class peer {
  public:
    using answer = std::function<reply(const std::string &request)>;

    explicit peer(int generation, answer how = {}, int port = 0);
    ~peer();

    int port() const { return port_; }
    std::vector<std::string> requests() const; // in hex, all connections
    std::vector<std::string> take_requests();  // and forgets them
    int connections() const;
    void answer_with(answer how);      // from the next request on
    void send(std::string_view bytes); // without being asked

    // What a card answers that does as it is told: data are 0x01010101 times the item's number from 1.
    static reply good(int generation, const std::string &request);

  private:
    void serve();
    void serve_one(int fd);
    bool read_request(int fd, std::string &request) const;

    int generation_;
    int port_ = 0;
    kestrel::unique_fd listener_;
    mutable std::mutex mutex_; // the rest
    answer how_;
    std::vector<std::string> requests_;
    int connections_ = 0;
    int current_ = -1;
    bool ending_ = false;
    std::thread thread_;
};

int open_descriptors();

} // namespace wire_test
