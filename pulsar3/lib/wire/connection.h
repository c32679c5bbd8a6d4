// pulsar3/lib/wire: the connection below both protocols: opened, emptied, sent to, received from, and given up when
// what arrives cannot be trusted. Only connection.cpp touches the socket; the handle's mutex is held by the caller.
//
// After a fault the connection is closed at once and the next access connects anew, once: stale bytes never answer a
// later request.
#pragma once

#include "pulsar3/lib/wire/fem.h"

#include <chrono>
#include <cstddef>
#include <span>
#include <sys/uio.h>

namespace kestrel {

// Before each request: connected, and what has arrived unasked is thrown away. 0, or a status with its text, which
// begins with the function's name.
int fem_ready(FemHandle &h, const char *function);

// Sends all of the parts, which it uses up. 0, or fem_send_failed with its text.
int fem_send(FemHandle &h, std::span<iovec> parts, const char *function);

// A connection to a port of a card's, within fem_timeout; none after a failure, with errno. ^C ends the wait.
unique_fd plr3_connect(const in_addr &host, int port);

// Closes the connection after a fault, so that the next access opens it anew; returns the status.
int fem_give_up(FemHandle &h, int status);

// An answer on its way into the caller's parts.
class fem_answer {
  public:
    fem_answer(FemHandle &h, std::span<iovec> parts);

    // Waits until so many bytes are there (and maybe more of the parts). 0, or fem_response_failed with its text.
    int need(std::size_t bytes);
    std::size_t have() const { return have_; }
    void next(); // another answer begins: its time starts now

  private:
    ssize_t receive();

    FemHandle &h_;
    std::span<iovec> parts_;
    std::size_t have_ = 0;
    std::chrono::steady_clock::time_point deadline_;
    bool waited_ = false;
};

// Waits until the answer is there up to `end`, where a header ends whose first word is `magic`, and checks that word.
int responseTransaction(FemHandle &h, fem_answer &answer, const std::uint32_t &magic, std::size_t end);

} // namespace kestrel
