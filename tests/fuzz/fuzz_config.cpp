// What an operator may configure a system with: addresses of any form, cards, channels, ports, dummies of any kind. A
// configuration that succeeds can be used and closed; one that fails leaves no path open.
#include "pulsar3/lib/config/addresses.h"
#include "pulsar3/lib/config/config.h"
#include "pulsar3/lib/paths/access.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

using namespace kestrel;

namespace {

class source {
  public:
    source(const std::uint8_t *data, std::size_t size) : at_(data), left_(size) {}

    int number() {
        std::int32_t value = 0;
        const std::size_t taken = std::min(left_, sizeof value);
        std::memcpy(&value, at_, taken);
        skip(taken);
        return value;
    }
    std::string text() {
        const std::size_t length = left_ == 0 ? 0 : std::min<std::size_t>(*at_ % 128, left_ - 1);
        std::string found(reinterpret_cast<const char *>(at_) + (left_ > 0), length);
        skip(std::min(left_, length + 1));
        return found.c_str(); // as a command line gives it: without NULs
    }

  private:
    void skip(std::size_t count) {
        at_ += count;
        left_ -= count;
    }
    const std::uint8_t *at_;
    std::size_t left_;
};

void check_addresses(const plr3_request &r) {
    const card_addresses a = plr3_card_addresses(r.baseIPaddress.c_str(), r.baseMACaddress.c_str(),
                                                 r.card_index & 63, r.ncards & 31);
    if (a.femIPaddress.size() > 15 || a.femMACaddress.size() != 17)
        std::abort();
}

void remove_modules() {
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm"))
        if (entry.path().filename().string().starts_with("plr3_"))
            std::filesystem::remove(entry.path());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    plr3_message_hook = [](int, std::string_view) {};
    [[maybe_unused]] static const int registered = std::atexit(remove_modules);
    source in(data, size);
    plr3_request r;
    r.message_to = 0;
    r.ncards = in.number() % 40;
    r.num_tf = in.number();
    r.num_tf = r.num_tf > 0 ? r.num_tf % 3 + 1 : r.num_tf; // what is valid stays small
    r.card_index = in.number() % 70;
    r.basePort = in.number();
    r.num_chan = in.number();
    r.dummy_system = static_cast<PulsarDummy>(in.number() & 7);
    if (r.dummy_system == PulsarReal)
        r.dummy_system = PulsarDummy3;
    r.readout_mode = static_cast<Plr3mReadoutMode>(in.number() & 0x1FF);
    r.debug = in.number() % 3;
    r.baseIPaddress = in.text();
    r.baseMACaddress = in.text();
    check_addresses(r);
    const int path = plr3_config_init(r);
    const auto open = std::ranges::count_if(Plr3Sys, [](const PLR3Path &p) { return p.valid != 0; });
    if ((path >= 0) != (open > 0))
        std::abort();
    if (path >= 0) {
        std::uint32_t word = 7;
        plr3_write_reg(path, -1, 1, 5, {&word, 1});
        plr3_read_reg(path, plr3_get_num_chan(path) - 1, 1, 5, {&word, 1});
        if (word != 7 || plr3_close(path) != 0)
            std::abort();
    }
    return 0;
}
