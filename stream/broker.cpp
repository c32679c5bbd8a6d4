#include "stream/broker.h"

#include "support/file_io.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <numeric>
#include <sys/time.h>
#include <sys/un.h>

namespace kestrel::stream {

namespace {

constexpr int usual_port = 6379;

std::optional<long long> number_of(std::string_view text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// A prefix goes into keys and into the patterns of access rules.
bool is_prefix(std::string_view text) {
    constexpr std::string_view good = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    return !text.empty() && text.size() <= 64 && text.find_first_not_of(good) == text.npos;
}

bool take_place(std::string_view text, broker_site &site) {
    if (text.starts_with("unix:")) {
        site.path = text.substr(5);
        return site.path.starts_with("/") && site.path.size() < sizeof sockaddr_un{}.sun_path;
    }
    const std::size_t colon = text.rfind(':');
    site.host = text.substr(0, colon);
    const auto port = colon == text.npos ? usual_port : number_of(text.substr(colon + 1));
    site.port = static_cast<int>(port && *port > 0 && *port < 65536 ? *port : 0);
    return !site.host.empty() && site.port != 0 && site.host.find_first_of("@/ ") == site.host.npos;
}

bool take_credentials(broker_site &site, std::string &cause) {
    const char *name = std::getenv("KESTREL_BROKER_AUTH");
    if (name == nullptr || *name == '\0')
        return true;
    char bytes[512];
    const unique_fd file = open_regular(name, O_RDONLY);
    const ssize_t size = file ? read_full(file.get(), bytes, sizeof bytes) : -1;
    if (size < 0) {
        cause = "cannot read '" + std::string(name) + "': " + std::strerror(errno);
        return false;
    }
    std::string_view line(bytes, static_cast<std::size_t>(size));
    line = line.substr(0, line.find('\n'));
    const std::size_t colon = line.find(':');
    if (colon != line.npos)
        site.user = line.substr(0, colon);
    site.password = line.substr(colon == line.npos ? 0 : colon + 1);
    if (site.password.empty())
        cause = "'" + std::string(name) + "' has no password in its first line";
    return !site.password.empty();
}

timeval as_timeval(std::chrono::milliseconds time) {
    return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

} // namespace

// ---------------------------------------------------------------- site

std::string broker_site::text() const {
    return (host.empty() ? "unix:" + path : host + ":" + std::to_string(port)) + "#" + prefix;
}

std::optional<broker_site> broker_site_of(std::string_view text, std::string &cause) {
    broker_site site;
    const std::size_t hash = text.rfind('#');
    if (hash != text.npos)
        site.prefix = text.substr(hash + 1);
    if (!is_prefix(site.prefix) || !take_place(text.substr(0, hash), site)) {
        cause = "'" + std::string(text) + "' is no site: HOST:PORT or unix:/PATH, and #PREFIX";
        return std::nullopt;
    }
    return take_credentials(site, cause) ? std::optional(site) : std::nullopt;
}

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

bool broker::append(std::span<const std::string_view> words) {
    if (context_ == nullptr)
        return false;
    std::vector<const char *> texts;
    std::vector<std::size_t> sizes;
    for (const std::string_view word : words) {
        texts.push_back(word.data() != nullptr ? word.data() : "");
        sizes.push_back(word.size());
    }
    const int count = static_cast<int>(words.size());
    if (redisAppendCommandArgv(context_.get(), count, texts.data(), sizes.data()) != REDIS_OK)
        return fail(context_->errstr);
    // The broker works on these while the next are put together, and they are still in the cache.
    constexpr std::size_t worth_sending = 128 * 1024;
    unsent_ = std::accumulate(sizes.begin(), sizes.end(), unsent_);
    return unsent_ < worth_sending || send();
}

// Each wait is bounded by `patience_`, all of them by this: a peer may take or give a byte at a time.
constexpr int patience_for_all = 10;

bool broker::send() {
    int done = 0;
    unsent_ = 0;
    const auto until = broker_back_off::clock::now() + patience_for_all * patience_;
    while (done == 0) {
        if (redisBufferWrite(context_.get(), &done) != REDIS_OK)
            return fail(errno == EAGAIN ? "takes nothing" : context_->errstr);
        if (done == 0 && broker_back_off::clock::now() > until)
            return fail("takes too little");
    }
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

} // namespace kestrel::stream
