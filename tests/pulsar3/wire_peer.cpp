#include "tests/pulsar3/wire_peer.h"

#include "support/file_io.h"

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace wire_test {

using namespace kestrel;

namespace {

std::uint32_t big(const std::string &text, std::size_t at) {
    const auto byte = [&](std::size_t i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(text[at + i]));
    };
    return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
}

std::uint32_t little(const std::string &text, std::size_t at) {
    return __builtin_bswap32(big(text, at));
}

std::string item(std::size_t number, std::size_t width) {
    return std::string(width, static_cast<char>(number));
}

std::size_t width_of(char code) {
    return code == 3 ? 4 : code == 2 ? 2 : 1;
}

std::string big_word(std::uint32_t value) {
    std::string word;
    for (const unsigned shift : {24U, 16U, 8U, 0U})
        word += static_cast<char>(value >> shift);
    return word;
}

std::string little_word(std::uint32_t value) {
    return big_word(__builtin_bswap32(value));
}

reply good1(const std::string &request) {
    const std::size_t width = width_of(request[6]);
    std::string head = request.substr(0, 12);
    head[7] = static_cast<char>(head[7] | 0x20);
    if (request[7] == 2)
        return {head + big_word(4) + big_word(static_cast<std::uint32_t>((request.size() - 16) / width))};
    const bool personality = request[4] == 4;
    const std::uint32_t count = personality ? 2 : request[7] == 3 ? 1 : big(request, 16);
    std::string data;
    for (std::size_t i = 1; i <= count; ++i)
        data += item(i, width);
    return {head + big_word(static_cast<std::uint32_t>(4 + data.size())) + big_word(count) + data};
}

reply good2(const std::string &request) {
    std::string head = request.substr(0, 20);
    head[11] = 0x20;
    std::string data;
    const char command = request[8];
    if (command == 1 || command == 4 || command == 5)
        for (std::size_t i = 1; i <= little(request, 16); ++i)
            data += item(i, width_of(request[10]));
    return {head + little_word(static_cast<std::uint32_t>(data.size())) + std::string(12, '\0') + data};
}

} // namespace

std::string hex(std::string_view bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += "0123456789ABCDEF"[byte >> 4];
        text += "0123456789ABCDEF"[byte & 15];
    }
    return text;
}

std::string bytes(std::string_view hex) {
    std::string digits;
    for (const char c : hex)
        if (c != ' ')
            digits += c;
    std::string text;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        text += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    return text;
}

peer::peer(int generation, answer how, int port)
    : generation_(generation), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      how_(std::move(how)) {
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    here.sin_port = htons(static_cast<std::uint16_t>(port));
    socklen_t size = sizeof here;
    const int on = 1;
    ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(listener_.get(), reinterpret_cast<sockaddr *>(&here), size) == 0 &&
        ::listen(listener_.get(), 8) == 0 &&
        ::getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&here), &size) == 0)
        port_ = ntohs(here.sin_port);
    thread_ = std::thread([this] { serve(); });
}

peer::~peer() {
    {
        const std::scoped_lock lock(mutex_);
        ending_ = true;
        if (current_ >= 0)
            ::shutdown(current_, SHUT_RDWR);
    }
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
}

std::vector<std::string> peer::requests() const {
    const std::scoped_lock lock(mutex_);
    return requests_;
}

std::vector<std::string> peer::take_requests() {
    const std::scoped_lock lock(mutex_);
    return std::move(requests_);
}

int peer::connections() const {
    const std::scoped_lock lock(mutex_);
    return connections_;
}

void peer::answer_with(answer how) {
    const std::scoped_lock lock(mutex_);
    how_ = std::move(how);
}

void peer::send(std::string_view bytes) {
    const std::scoped_lock lock(mutex_);
    if (current_ >= 0)
        ::send(current_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

reply peer::good(int generation, const std::string &request) {
    return generation == 1 ? good1(request) : good2(request);
}

void peer::serve() {
    for (;;) {
        const unique_fd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        {
            const std::scoped_lock lock(mutex_);
            if (!fd || ending_)
                return;
            current_ = fd.get();
            ++connections_;
        }
        const int on = 1;
        ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        serve_one(fd.get());
        const std::scoped_lock lock(mutex_);
        current_ = -1;
    }
}

void peer::serve_one(int fd) {
    for (std::string request; read_request(fd, request);) {
        answer how;
        {
            const std::scoped_lock lock(mutex_);
            requests_.push_back(hex(request));
            how = how_;
        }
        const reply said = how ? how(request) : good(generation_, request);
        if (said.reset) {
            const linger at_once{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
            return;
        }
        if (::send(fd, said.bytes.data(), said.bytes.size(), MSG_NOSIGNAL) < 0 || said.close)
            return;
    }
}

bool peer::read_request(int fd, std::string &request) const {
    const std::size_t head = generation_ == 1 ? 16 : 36;
    request.resize(head);
    if (read_full(fd, request.data(), head) != static_cast<ssize_t>(head))
        return false;
    const bool follows = generation_ == 1 || request[8] == 2 || request[8] == 6;
    const std::size_t payload = !follows ? 0 : generation_ == 1 ? big(request, 12) : little(request, 20);
    request.resize(head + payload);
    return read_full(fd, request.data() + head, payload) == static_cast<ssize_t>(payload);
}

int open_descriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

} // namespace wire_test
