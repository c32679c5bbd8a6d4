#include "stream/broker.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>

namespace kestrel::stream {

namespace {

std::optional<long long> number_of(std::string_view text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

timeval as_timeval(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

} // namespace

// ---------------------------------------------------------------- replies

void free_broker_reply::operator()(redisReply *reply) const {
    freeReplyObject(reply);
}

bool broker_value::is_nil() const {
    return reply_ != nullptr && reply_->type == REDIS_REPLY_NIL;
}

std::optional<long long> broker_value::integer() const {
    if (reply_ != nullptr && reply_->type == REDIS_REPLY_INTEGER)
        return reply_->integer;
    const auto digits = text();
    return digits ? number_of(*digits) : std::nullopt;
}

std::optional<std::string_view> broker_value::text() const {
    if (reply_ == nullptr || (reply_->type != REDIS_REPLY_STRING && reply_->type != REDIS_REPLY_STATUS))
        return std::nullopt;
    return std::string_view(reply_->str, reply_->len);
}

std::optional<std::string_view> broker_value::error() const {
    if (reply_ == nullptr || reply_->type != REDIS_REPLY_ERROR)
        return std::nullopt;
    return std::string_view(reply_->str, reply_->len);
}

bool broker_value::is_ok() const {
    return text() == "OK";
}

std::size_t broker_value::size() const {
    return reply_ != nullptr && reply_->type == REDIS_REPLY_ARRAY ? reply_->elements : 0;
}

broker_value broker_value::at(std::size_t index) const {
    return broker_value(index < size() ? reply_->element[index] : nullptr);
}

broker_value broker_value::field(std::string_view name) const {
    for (std::size_t i = 0; i + 1 < size(); i += 2)
        if (at(i).text() == name)
            return at(i + 1);
    return broker_value();
}

// ---------------------------------------------------------------- connection

void free_broker_context::operator()(redisContext *context) const {
    redisFree(context);
}

bool broker::fail(std::string cause) {
    cause_ = std::move(cause);
    context_.reset();
    out_.clear();
    back_off_.failed(broker_back_off::clock::now());
    return false;
}

void broker::refuse(std::string cause) {
    if (broker_back_off::clock::now() >= made_ + broker_back_off::longest)
        back_off_.worked();
    fail(std::move(cause));
    refused_ = true;
}

bool broker::ready() {
    if (context_ != nullptr)
        return true;
    return back_off_.may_try(broker_back_off::clock::now()) && connect();
}

bool broker::connect() {
    const timeval limit = as_timeval(patience_);
    context_.reset(site_.host.empty() ? redisConnectUnixWithTimeout(site_.path.c_str(), limit)
                                      : redisConnectWithTimeout(site_.host.c_str(), site_.port, limit));
    if (context_ == nullptr)
        return fail("no memory");
    if (context_->err != 0)
        return fail(context_->errstr);
    if (::fcntl(context_->fd, F_SETFD, FD_CLOEXEC) != 0 || redisSetTimeout(context_.get(), limit) != REDIS_OK)
        return fail(std::strerror(errno));
    if (!announce())
        return false;
    made_ = broker_back_off::clock::now();
    if (!refused_)
        back_off_.worked();
    refused_ = false;
    return true;
}

// The password first, where there is one; a broker that is loading its data refuses PING, too.
bool broker::announce() {
    if (!site_.password.empty()) {
        const broker_reply taken = site_.user.empty() ? command({"AUTH", site_.password})
                                                      : command({"AUTH", site_.user, site_.password});
        if (taken && !taken.is_ok())
            return fail("the broker refuses us: " + std::string(taken.error().value_or("no error, no OK")));
    }
    const broker_reply alive = command({"PING"});
    if (context_ == nullptr)
        return false;
    return alive.text() == "PONG" || fail(std::string(alive.error().value_or("no broker answers there")));
}

void broker::put_count(char what, std::size_t count) {
    char digits[24];
    const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), count);
    out_ += what;
    out_.append(digits, end).append("\r\n");
}

bool broker::append(std::span<const std::string_view> words) {
    if (context_ == nullptr)
        return false;
    constexpr std::size_t worth_sending = 128 * 1024, // the broker works on it while more is put together
        large = 16 * 1024;                            // a word that is not copied: it goes out at once
    put_count('*', words.size());
    for (const std::string_view word : words) {
        put_count('$', word.size());
        if (word.size() < large)
            out_ += word;
        else if (!send(word))
            return false;
        out_ += "\r\n";
    }
    return out_.size() < worth_sending || send();
}

// Each wait is bounded by `patience_`, all of them by this: a peer may take or give a byte at a time.
constexpr int patience_for_all = 10;

bool broker::send(std::string_view behind) {
    const auto until = broker_back_off::clock::now() + patience_for_all * patience_;
    const std::size_t all = out_.size() + behind.size();
    for (std::size_t done = 0; done < all;) {
        const std::size_t first = std::min(done, out_.size()), second = done - first;
        std::array<iovec, 2> parts{{{out_.data() + first, out_.size() - first},
                                    {const_cast<char *>(behind.data()) + second, behind.size() - second}}};
        msghdr message{};
        message.msg_iov = parts.data();
        message.msg_iovlen = parts.size();
        const ssize_t sent = ::sendmsg(context_->fd, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            return fail(errno == EAGAIN ? "takes nothing" : std::strerror(errno));
        done += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
        if (done < all && broker_back_off::clock::now() > until)
            return fail("takes too little");
    }
    out_.clear();
    return true;
}

// All is sent before a reply is waited for.
broker_reply broker::next() {
    constexpr std::size_t most_bytes = std::size_t{1} << 30,
                          bytes_a_read = std::size_t{16} << 10; // of hiredis
    void *reply = nullptr;
    if (context_ == nullptr || !send())
        return {};
    const auto until = broker_back_off::clock::now() + patience_for_all * patience_;
    for (std::size_t reads = 0; redisGetReplyFromReader(context_.get(), &reply) == REDIS_OK; ++reads) {
        if (reply != nullptr)
            return broker_reply(static_cast<redisReply *>(reply));
        if (reads > most_bytes / bytes_a_read || broker_back_off::clock::now() > until) {
            refuse("an answer without an end");
            return {};
        }
        if (redisBufferRead(context_.get()) != REDIS_OK)
            break;
    }
    const bool late = context_->err == REDIS_ERR_IO && errno == EAGAIN;
    if (context_->err == REDIS_ERR_PROTOCOL)
        refuse(context_->errstr);
    else
        fail(late ? "no answer in time" : context_->errstr);
    return {};
}

broker_reply broker::command(std::span<const std::string_view> words) {
    return append(words) ? next() : broker_reply();
}

broker_reply broker::commands(std::initializer_list<std::initializer_list<std::string_view>> all) {
    broker_reply last;
    for (const auto &words : all)
        append(words);
    for (std::size_t i = 0; i < all.size(); ++i)
        last = next();
    return last;
}

} // namespace kestrel::stream
