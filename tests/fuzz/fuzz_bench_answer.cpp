// What bench instruments answer: whatever it is, an exchange ends, and its numbers are finite and possible. The first
// byte chooses what is asked, then comes, for each command, the length of what the instrument says (two bytes) and what
// it says. Behind the last it hangs up.
#include "instruments/bench/iseg.h"
#include "instruments/bench/ke2410.h"
#include "instruments/bench/ke2700.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <thread>

using namespace kestrel;
using namespace kestrel::bench;

namespace {

constexpr waiter nobody{.cn = -1, .quiet = true};

void must(bool holds) {
    if (!holds)
        std::abort();
}

void ask_ke2410() {
    ke2410_turn t(nobody);
    if (!t)
        return;
    const auto level = ke2410_level(t);
    must(!level || std::abs(*level) <= ke2410_volts_max);
    ke2410_output_on(t);
    const auto reading = ke2410_read(t);
    must(!reading || (std::isfinite(reading->volts) && std::isfinite(reading->amperes)));
    ke2410_ask(t, ":STAT:QUE?");
}

void ask_ke2700() {
    ke2700_turn t(nobody);
    if (!t)
        return;
    const auto found = ke2700_measure(t, 3, 9);
    must(!found || !std::isnan(found->stddev) || !std::isfinite(found->mean));
    ke2700_ask(t, "*IDN?");
}

void ask_iseg() {
    iseg_turn t(nobody);
    if (!t)
        return;
    module_id id;
    if (const auto text = iseg_ask(t, "#"))
        must(parse_module_id(*text, id) < 4 || (id.max_volts > 0.0 && id.max_amperes > 0.0));
    const auto volts = iseg_number(t, "U1");
    must(!volts || std::isfinite(*volts));
    const auto status = iseg_get_status(t, 1);
    must(!status || status->whole.starts_with("S1="));
}

// The bench supply is told only; what it says is thrown away.
void tell(line &l) {
    turn t(l, nobody, "");
    for (int n = 0; t && n < 3; ++n)
        t.tell("v1 2.0");
}

// Answers each command, the echo before it when a high-voltage supply is played, and ends lines, so that nobody waits.
void play(int fd, const std::uint8_t *data, std::size_t size, bool echoes) {
    char asked[4096];
    for (ssize_t n; (n = ::recv(fd, asked, sizeof asked, 0)) > 0;) {
        if (size < 3)
            break;
        const std::size_t said = std::min<std::size_t>(data[0] + 256U * data[1], size - 2);
        std::string bytes(reinterpret_cast<const char *>(data) + 2, said);
        if (echoes && !bytes.empty() && bytes[0] & 1)
            bytes = std::string(asked, static_cast<std::size_t>(n)) + bytes.substr(1);
        bytes += "\n\n";
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        data += 2 + said;
        size -= 2 + said;
    }
    ::shutdown(fd, SHUT_RDWR);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    late_answer = std::chrono::milliseconds(0); // nobody is late here
    const int what = *data % 4;
    static line supply{.terminator = "\r"};
    line &l = what == 0 ? ke2410.wire : what == 1 ? ke2700.wire : what == 2 ? iseg.wire : supply;
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    unique_fd instrument(ends[1]);
    ::fcntl(instrument.get(), F_SETFL, 0);
    line_opened(l, {unique_fd(ends[0]), false, "fuzz"});
    std::thread playing(play, instrument.get(), data + 1, size - 1, what == 2);
    if (what == 0)
        ask_ke2410();
    else if (what == 1)
        ask_ke2700();
    else if (what == 2)
        ask_iseg();
    else
        tell(l);
    line_close(l);
    ::shutdown(instrument.get(), SHUT_RDWR);
    playing.join();
    return 0;
}
