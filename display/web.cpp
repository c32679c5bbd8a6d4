// The only file that knows the HTTP library: it is large, and compiled once.
#include "display/web.h"

#include "display/live.h"
#include "display/page_files.h"
#include "server/allowed.h"
#include "server/options.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <list>
#include <thread>
#include <utility>

namespace kestrel::display {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using beast::error_code;

constexpr std::chrono::milliseconds tick_time{1000 / ticks_a_second};
constexpr std::chrono::seconds http_time{15};   // for a request or an answer
constexpr std::chrono::seconds silent_time{60}; // then a browser that answers no ping is gone
constexpr std::size_t connections_max = 512;
constexpr std::uint32_t header_max = 8192;
constexpr std::size_t request_max = 2048; // of the WebSocket
constexpr const char *content_policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

class connection;

struct web_server {
    explicit web_server(const web_options &o) : options(o), live(o.server_path) {}
    web_options options;
    std::map<std::string, page_file, std::less<>> files;
    live_state live;
    asio::io_context io{1};
    tcp::acceptor acceptor{io};
    bool accepts = true;
    asio::steady_timer ticks{io};
    std::list<std::weak_ptr<connection>> connections;
    std::thread thread;
};

std::unique_ptr<web_server> web;

// The name in a Host header that pages may have: an address, localhost, or a name that the options give. A page of
// somebody else whose name leads here has none of these.
bool is_our_host(std::string_view host, const web_options &options) {
    const std::string_view name = host.substr(0, host.rfind(':'));
    in_addr address{};
    return beast::iequals({name.data(), name.size()}, "localhost") || sv_parse_address(name, address) ||
           std::find(options.names.begin(), options.names.end(), name) != options.names.end();
}

class connection : public std::enable_shared_from_this<connection> {
  public:
    connection(tcp::socket socket, web_server &server) : stream_(std::move(socket)), server_(server) {}

    void read_request() {
        parser_.emplace();
        parser_->header_limit(header_max);
        parser_->body_limit(0);
        beast::get_lowest_layer(stream_).expires_after(http_time);
        http::async_read(stream_.next_layer(), buffer_, *parser_,
                         [self = shared_from_this()](error_code error, std::size_t) {
                             error ? self->answer_fault(error) : self->answer();
                         });
    }

    // After a tick, for those that are on the WebSocket.
    void after_tick() {
        if (!is_live_)
            return;
        state_.count_lost();
        send_next();
    }

  private:
    void answer() {
        const auto &request = parser_->get();
        const std::string_view whole(request.target().data(), request.target().size());
        const std::string_view target = whole.substr(0, whole.find('?'));
        const auto host = request[http::field::host];
        if (!is_our_host({host.data(), host.size()}, server_.options))
            return reply(http::status::misdirected_request, "text/plain",
                         "This is no name of this machine.\n");
        if (target == "/live" && websocket::is_upgrade(request))
            return open_live();
        if (!only_reads())
            return refuse_change();
        if (target == "/metrics")
            return reply_metrics();
        const auto file = server_.files.find(target);
        if (file == server_.files.end())
            return reply(http::status::not_found, "text/plain", "There is no such page.\n");
        reply(http::status::ok, file->second.type, file->second.contents);
    }

    bool only_reads() const {
        const http::verb method = parser_->get().method();
        return method == http::verb::get || method == http::verb::head;
    }

    // A request that was not read to its end; one that just ended has no answer.
    void answer_fault(error_code error) {
        if (error == http::error::header_limit)
            return reply(http::status::request_header_fields_too_large, "text/plain", "That is too much.\n");
        if (error == http::error::body_limit && only_reads())
            return reply(http::status::payload_too_large, "text/plain", "A body is of no use here.\n");
        if (error == http::error::body_limit)
            return refuse_change();
        const auto &kinds = http::make_error_code(http::error::bad_method).category();
        if (error.category() == kinds && error != http::error::end_of_stream &&
            error != http::error::partial_message)
            reply(http::status::bad_request, "text/plain", "That is no request.\n");
    }

    void refuse_change() {
        reply(http::status::method_not_allowed, "text/plain", "Nothing can be changed here.\n");
    }

    void reply_metrics() {
        const std::string text = server_.live.metrics();
        if (text.empty())
            return reply(http::status::service_unavailable, "text/plain", "The server does not answer.\n");
        reply(http::status::ok, "text/plain; version=0.0.4", text);
    }

    void reply(http::status status, std::string_view type, std::string body) {
        const auto &request = parser_->get();
        response_ = http::response<http::string_body>(status, request.version());
        response_.set(http::field::content_type, beast::string_view(type.data(), type.size()));
        response_.set(http::field::cache_control, "no-cache");
        response_.set("Content-Security-Policy", content_policy);
        response_.set("X-Content-Type-Options", "nosniff");
        response_.set("Referrer-Policy", "no-referrer");
        if (status == http::status::method_not_allowed)
            response_.set(http::field::allow, "GET, HEAD");
        response_.keep_alive(request.keep_alive() && status == http::status::ok);
        const bool head = request.method() == http::verb::head;
        response_.content_length(body.size());
        response_.body() = head ? std::string() : std::move(body);
        beast::get_lowest_layer(stream_).expires_after(http_time);
        http::async_write(
            stream_.next_layer(), response_, [self = shared_from_this()](error_code error, std::size_t) {
                if (!error && self->response_.keep_alive())
                    return self->read_request();
                error_code gone; // what was not read must not take the answer back
                beast::get_lowest_layer(self->stream_).socket().shutdown(tcp::socket::shutdown_send, gone);
            });
    }

    void open_live() {
        const auto &request = parser_->get();
        const auto host = request[http::field::host], origin = request[http::field::origin];
        if (std::string(origin) != "http://" + std::string(host))
            return reply(http::status::forbidden, "text/plain", "Pages of other sites get nothing.\n");
        beast::get_lowest_layer(stream_).expires_never(); // the WebSocket has times of its own
        stream_.set_option(websocket::stream_base::timeout{http_time, silent_time, true});
        stream_.read_message_max(request_max);
        stream_.auto_fragment(false); // a view goes as it lies, without a copy
        stream_.async_accept(request, [self = shared_from_this()](error_code error) {
            if (error)
                return;
            self->is_live_ = true;
            self->read_live();
            self->send_next();
        });
    }

    void read_live() {
        stream_.async_read(buffer_, [self = shared_from_this()](error_code error, std::size_t) {
            if (error) {
                self->is_live_ = false;
                return;
            }
            const std::string request = beast::buffers_to_string(self->buffer_.data());
            self->buffer_.consume(self->buffer_.size());
            if (!self->stream_.got_text() || !self->state_.take_request(request, self->server_.live)) {
                self->is_live_ = false;
                self->close_live();
                return;
            }
            self->read_live();
        });
    }

    void close_live() {
        if (is_sending_) // only one write at a time: its end drops the connection
            return;
        is_sending_ = true;
        stream_.async_close(websocket::close_code::policy_error, [self = shared_from_this()](error_code) {});
    }

    // One write at a time and nothing waits behind it.
    void send_next() {
        if (is_sending_ || !is_live_)
            return;
        std::optional<live_message> message = state_.next(server_.live);
        if (!message)
            return;
        message_ = std::move(*message);
        is_sending_ = true;
        stream_.binary(message_.binary);
        const std::size_t head = message_.binary ? sizeof message_.head : 0;
        const std::array<asio::const_buffer, 2> parts{asio::buffer(&message_.head, head),
                                                      asio::buffer(*message_.contents)};
        stream_.async_write(parts, [self = shared_from_this()](error_code error, std::size_t) {
            self->is_sending_ = false;
            self->message_.contents.reset();
            if (error)
                self->is_live_ = false;
            self->send_next();
        });
    }

    websocket::stream<beast::tcp_stream, false> stream_; // false: no compression
    web_server &server_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::empty_body>> parser_;
    http::response<http::string_body> response_;
    browser_state state_;
    live_message message_;
    bool is_live_ = false;
    bool is_sending_ = false;
};

// A stranger is not served, and has no place among the connections: one line, at once or not at all.
void refuse(tcp::socket &socket, in_addr peer) {
    const std::string answer =
        "HTTP/1.1 403 Forbidden\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n" + sv_refusal(peer);
    error_code ignored;
    socket.non_blocking(true, ignored);
    socket.send(asio::buffer(answer), 0, ignored);
}

void serve(web_server &s, tcp::socket socket) {
    std::erase_if(s.connections, [](const auto &c) { return c.expired(); });
    error_code error;
    const auto peer = socket.remote_endpoint(error);
    if (error || s.connections.size() >= connections_max)
        return;
    const in_addr address{htonl(peer.address().to_v4().to_uint())};
    if (!sv_is_allowed(sv_options.allowed, address))
        return refuse(socket, address);
    socket.set_option(tcp::no_delay(true), error);
    const auto fresh = std::make_shared<connection>(std::move(socket), s);
    s.connections.push_back(fresh);
    fresh->read_request();
}

void accept_next(web_server &s) {
    s.acceptor.async_accept([&s](error_code error, tcp::socket socket) {
        if (error == asio::error::operation_aborted)
            return;
        s.accepts = !error; // without a descriptor it stays in the backlog, and the next tick tries again
        if (error)
            return;
        serve(s, std::move(socket));
        accept_next(s);
    });
}

void tick_next(web_server &s) {
    s.ticks.expires_at(std::max(s.ticks.expiry() + tick_time, asio::steady_timer::clock_type::now()));
    s.ticks.async_wait([&s](error_code error) {
        if (error)
            return;
        s.live.tick();
        for (const std::weak_ptr<connection> &c : s.connections)
            if (const std::shared_ptr<connection> open = c.lock())
                open->after_tick();
        if (!std::exchange(s.accepts, true))
            accept_next(s);
        tick_next(s);
    });
}

bool listen(web_server &s) {
    const tcp::endpoint place(asio::ip::address_v4(ntohl(s.options.address.s_addr)),
                              static_cast<unsigned short>(s.options.port));
    error_code error;
    s.acceptor.open(place.protocol(), error);
    s.acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        s.acceptor.bind(place, error);
    if (!error)
        s.acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error)
        std::fprintf(stderr, "kestrel-display: Cannot serve pages on port %d: %s\n", s.options.port,
                     error.message().c_str());
    return !error;
}

} // namespace

bool web_start(const web_options &options) {
    sigset_t all, before; // ^C is the command thread's
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    web = std::make_unique<web_server>(options);
    web->files = read_page(page_folder());
    const bool good = !web->files.empty() && listen(*web);
    if (good) {
        std::printf("Pages at http://%s:%d/\n", ::inet_ntoa(options.address),
                    web->acceptor.local_endpoint().port());
        accept_next(*web);
        tick_next(*web);
        web->thread = std::thread([] { web->io.run(); });
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return good;
}

void web_stop() {
    if (!web || !web->thread.joinable())
        return;
    web->io.stop();
    web->thread.join();
    web.reset();
}

} // namespace kestrel::display
