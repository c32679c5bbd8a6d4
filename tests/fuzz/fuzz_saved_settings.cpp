// One file of a directory of settings with any bytes in it (the first chooses which): it is restored, and can be
// compared then, or it is refused.
#include "pulsar3/lib/config/config.h"
#include "pulsar3/lib/saved/saved.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <vector>

using namespace kestrel;
namespace fs = std::filesystem;

namespace {

constexpr int card_index = 39;

struct saved_directory {
    fs::path place = fs::temp_directory_path() / ("fuzz_saved_" + std::to_string(::getpid()));
    std::vector<fs::path> files;
    int path = -1;

    saved_directory() {
        plr3_message_hook = [](int, std::string_view) {}; // what is told is much
        plr3_request r;
        r.ncards = r.num_tf = 1;
        r.card_index = card_index;
        r.message_to = 0;
        r.dummy_system = PulsarDummy3;
        path = plr3_config_init(r);
        fs::create_directory(place);
        if (path < 0 || plr3_save_settings(path, place) != 0)
            std::abort();
        for (const auto &entry : fs::directory_iterator(place))
            files.push_back(entry.path());
        std::ranges::sort(files);
    }
    ~saved_directory() {
        fs::remove_all(place);
        plr3_close_all();
        for (const char *module : {"plr3_hist", "plr3_scalers", "plr3_tf_status", "plr3_scalar_tf_status",
                                   "plr3_progress", "plr3_run"})
            fs::remove("/dev/shm/" + (module + std::to_string(card_index)));
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const saved_directory saved;
    if (size == 0)
        return 0;
    const fs::path file = saved.files[data[0] % saved.files.size()], good = saved.place / "good";
    fs::rename(file, good);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char *>(data) + 1, static_cast<std::streamsize>(size - 1));
    if (plr3_restore_settings_and_clock(saved.path, saved.place, false) == 0 &&
        plr3_check_settings(saved.path, saved.place, true, [](std::string_view) {}) < 0)
        std::abort();
    fs::rename(good, file);
    return 0;
}
