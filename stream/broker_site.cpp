// stream: where the broker is, of the text that names it.
#include "stream/broker.h"

#include "support/file_io.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/un.h>

namespace kestrel::stream {

namespace {

constexpr int usual_port = 6379;

std::optional<int> port_of(std::string_view text) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && number > 0 && number < 65536 ? std::optional(number) : std::nullopt;
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
    const bool bracketed = text.starts_with('['); // "[::1]:6379"
    const std::size_t end = bracketed ? text.find(']') : std::min(text.find(':'), text.size());
    if (end == text.npos)
        return false;
    site.host = bracketed ? text.substr(1, end - 1) : text.substr(0, end);
    const std::string_view rest = text.substr(bracketed ? end + 1 : end);
    site.port = rest.empty() ? usual_port : rest.starts_with(':') ? port_of(rest.substr(1)).value_or(0) : 0;
    return !site.host.empty() && site.port != 0 && site.host.find_first_of("@/[] ") == site.host.npos;
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

} // namespace

std::string broker_site::text() const {
    const std::string name = host.find(':') == host.npos ? host : "[" + host + "]";
    return (host.empty() ? "unix:" + path : name + ":" + std::to_string(port)) + "#" + prefix;
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

} // namespace kestrel::stream
