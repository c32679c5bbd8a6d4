// stream: a connection to the broker, a Redis server (5 or later), over libhiredis. Plain commands only; whatever comes
// back is read by type and never taken for granted. A connection belongs to one thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct redisContext;
struct redisReply;

namespace kestrel::stream {

// Where the broker is, who asks, and what our keys begin with.
struct broker_site {
    std::string host; // empty: `path` is a socket of this machine
    int port = 0;
    std::string path;
    std::string prefix = "kestrel";
    std::string user, password; // empty password: nobody is announced

    // "PREFIX:name": every key of ours.
    std::string key(std::string_view name) const { return prefix + ":" + std::string(name); }
    // As it may be shown: without the password.
    std::string text() const;
};

// "HOST:PORT", "HOST" (port 6379), "[::1]:PORT" or "unix:/PATH", with "#PREFIX" behind for other keys than
// "kestrel:...". Who asks is never a word of a command line: it is the first line, "USER:PASSWORD" or "PASSWORD", of the
// file that the environment names as KESTREL_BROKER_AUTH. Nothing with a cause.
std::optional<broker_site> broker_site_of(std::string_view text, std::string &cause);

// A reply or an element of one; good while the broker_reply stands. Of another type than asked for, or not there at
// all, it reads as nothing.
class broker_value {
  public:
    explicit broker_value(const redisReply *reply = nullptr) : reply_(reply) {}
    explicit operator bool() const { return reply_ != nullptr; }
    bool is_nil() const;
    std::optional<long long> integer() const;     // also one that came as text, like a hash's field
    std::optional<std::string_view> text() const; // a string or a status
    std::optional<std::string_view> error() const;
    bool is_ok() const; // "OK"
    // Elements of an array, 0 of anything else.
    std::size_t size() const;
    broker_value at(std::size_t index) const;
    // What follows the text `name` in an array of names and values.
    broker_value field(std::string_view name) const;

  private:
    const redisReply *reply_;
};

struct free_broker_reply {
    void operator()(redisReply *reply) const;
};
// Empty when the connection failed meanwhile; broker::cause() says why.
class broker_reply : public broker_value {
  public:
    broker_reply() = default;
    explicit broker_reply(redisReply *reply) : broker_value(reply), owned_(reply) {}

  private:
    std::unique_ptr<redisReply, free_broker_reply> owned_;
};

// When to try again: at once, then after 50 ms, twice as long each time up to 2 s.
class broker_back_off {
  public:
    using clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds shortest{50}, longest{2000};

    bool may_try(clock::time_point now) const { return now >= next_; }
    clock::time_point next() const { return next_; }
    void failed(clock::time_point now) {
        next_ = now + wait_;
        wait_ = std::min(2 * wait_, longest);
    }
    void worked() {
        next_ = {};
        wait_ = shortest;
    }

  private:
    clock::time_point next_{};
    std::chrono::milliseconds wait_ = shortest;
};

struct free_broker_context {
    void operator()(redisContext *context) const;
};

class broker {
  public:
    // `patience` bounds each wait for the network; a command that blocks there must do so for less.
    explicit broker(broker_site site, std::chrono::milliseconds patience = std::chrono::seconds(2))
        : site_(std::move(site)), patience_(patience) {}

    // Whether there is a connection; makes one when it is time to try (again). Never waits for that time.
    bool ready();
    bool is_connected() const { return context_ != nullptr; }
    const broker_back_off &back_off() const { return back_off_; }
    // Closes a connection that is of no use for that cause; the next is made after a while, which grows as long as
    // connections are refused soon after they were made.
    void refuse(std::string cause);

    // One command and its reply. A connection that fails is closed.
    broker_reply command(std::span<const std::string_view> words);
    broker_reply command(std::initializer_list<std::string_view> words) {
        return command(std::span(words.begin(), words.size()));
    }
    // Several in one go: each append() has its next().
    bool append(std::span<const std::string_view> words);
    bool append(std::initializer_list<std::string_view> words) {
        return append(std::span(words.begin(), words.size()));
    }
    broker_reply next();
    // Several in one go: the reply to the last one.
    broker_reply commands(std::initializer_list<std::initializer_list<std::string_view>> all);

    const broker_site &site() const { return site_; }
    std::string key(std::string_view name) const { return site_.key(name); }
    // Why the last connection could not be made, or failed.
    const std::string &cause() const { return cause_; }

  private:
    bool connect();
    bool announce();
    void put_count(char what, std::size_t count);
    bool send(std::string_view behind = {}); // what is put together, and that
    bool fail(std::string cause);

    broker_site site_;
    std::chrono::milliseconds patience_;
    broker_back_off back_off_;
    std::unique_ptr<redisContext, free_broker_context> context_;
    std::string cause_;
    std::string out_;      // commands that are put together
    bool refused_ = false; // the connection before this one
    broker_back_off::clock::time_point made_{};
};

} // namespace kestrel::stream
