#include "instruments/bench/connection.h"

#include "server/output.h"
#include "server/tcp_connect.h"
#include "support/vanished_peer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>

namespace kestrel::bench {

namespace {

// 8 bits, no parity, whole lines without editing. What is not named is off: a character that erased or killed a
// line could be one that the instrument, or noise, sends.
termios line_settings(speed_t speed) {
    termios wanted{};
    wanted.c_cflag = CS8 | CREAD | CLOCAL;
    wanted.c_iflag = IGNCR | IGNPAR | IXON;
    wanted.c_oflag = OPOST | ONLCR;
    wanted.c_lflag = ICANON;
    wanted.c_cc[VMIN] = 1;
    wanted.c_cc[VTIME] = 0;
    wanted.c_cc[VSTART] = 17;
    wanted.c_cc[VSTOP] = 19;
    wanted.c_cc[VEOF] = 4;
    ::cfsetispeed(&wanted, speed);
    ::cfsetospeed(&wanted, speed);
    return wanted;
}

// A device may take some of the settings only; then the instrument would be misunderstood.
bool read_back(int cn, int fd, const termios &wanted) {
    termios got{};
    if (::tcgetattr(fd, &got) == 0 && got.c_cflag == wanted.c_cflag && got.c_iflag == wanted.c_iflag &&
        got.c_oflag == wanted.c_oflag && got.c_lflag == wanted.c_lflag)
        return true;
    sv_printf(cn, "! ERROR reading back termianl setting\n! c_cflag Set %X, read %X\n", wanted.c_cflag,
              got.c_cflag);
    sv_printf(cn, "! c_iflag Set %X, read %X\n", wanted.c_iflag, got.c_iflag);
    sv_printf(cn, "! c_oflag Set %X, read %X\n", wanted.c_oflag, got.c_oflag);
    sv_printf(cn, "! c_lflag Set %X, read %X\n", wanted.c_lflag, got.c_lflag);
    return false;
}

} // namespace

connection open_serial(int cn, const std::string &device, speed_t speed) {
    // Non-blocking: the opening would wait for modem lines, and reads are waited for with a time.
    unique_fd fd(::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (!fd || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        sv_printf(cn, "! ERROR could not open ttyS0 errorno=%d, descr=%s\n", errno, std::strerror(errno));
        return {};
    }
    termios before{};
    if (::tcgetattr(fd.get(), &before) != 0) {
        sv_printf(cn, "! ERROR could not getattr ttyS0 errorno=%d, descr=%s\n", errno, std::strerror(errno));
        return {};
    }
    const termios wanted = line_settings(speed);
    ::tcflush(fd.get(), TCIOFLUSH); // not by tcsetattr, which would wait for a line that is stopped
    if (::tcsetattr(fd.get(), TCSANOW, &wanted) != 0) {
        sv_printf(cn, "! ERROR could not setattr ttyS0 errorno=%d, descr=%s\n", errno, std::strerror(errno));
        return {};
    }
    if (!read_back(cn, fd.get(), wanted))
        return {};
    return {std::move(fd), true, device};
}

// The line is started when the flow control is switched off; tcflow restarts only what tcflow stopped.
void restart_output(int fd) {
    termios settings{};
    if (::tcgetattr(fd, &settings) != 0)
        return;
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON);
    ::tcsetattr(fd, TCSANOW, &settings);
    settings.c_iflag |= IXON;
    ::tcsetattr(fd, TCSANOW, &settings);
}

connection open_tcp(int cn, const char *host, int port, const char *instrument) {
    sv_flush_all(cn);
    const unique_addresses list = sv_find_host(host, port);
    if (!list) {
        sv_printf(cn, "! Error looking up host name %s\n", host);
        return {};
    }
    unique_fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        sv_printf(cn, "! Error: socket failed errno=%d, %s\n", errno, std::strerror(errno));
        return {};
    }
    const int error = sv_tcp_connect(fd.get(), list->ai_addr, list->ai_addrlen, patience_ms);
    if (error != 0) {
        sv_printf(cn, "! Error: socket connect failed errno=%d, %s\n", error, std::strerror(error));
        return {};
    }
    const int on = 1;
    ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    notice_vanished_peer(fd.get());
    const std::string name = std::string(host) + ":" + std::to_string(port);
    sv_printf(cn, "# Connected to %s @ %s\n", instrument, name.c_str());
    return {std::move(fd), false, name};
}

} // namespace kestrel::bench
