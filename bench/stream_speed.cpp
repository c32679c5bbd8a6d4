// stream_speed SITE: what a publisher makes of a broker, against plain SETs of the same bytes in the same run; and the age
// of scalers when a reader on this machine gets them. The card is a fake: modules whose status this program sets.
#include "modules/store/result_module.h"
#include "modules/store/run_sheet.h"
#include "modules/store/store.h"
#include "stream/sender.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace kestrel;
using namespace kestrel::stream;
using clock_type = std::chrono::steady_clock;

namespace {

constexpr int card = 9000, channels = 2, energies = 4096, places = 8000;
constexpr std::size_t frame_bytes = std::size_t{4} * channels * energies;

struct fake_card {
    result_module sheet, counts, status, scalers, scaler_status;

    bool make() {
        const std::string n = std::to_string(card);
        const auto words = [](int x, int y, int t) {
            return module_plan{mod_element::u_int32, x, y, t, true};
        };
        return sheet.make(-1, ("plr3_run" + n).c_str(),
                          {mod_element::float64, run_sheet_words, 1 + channels}) == 0 &&
               counts.make(-1, ("plr3_hist" + n).c_str(), words(energies, places, channels)) == 0 &&
               status.make(-1, ("plr3_tf_status" + n).c_str(), words(channels, places, 2)) == 0 &&
               scalers.make(-1, ("plr3_scalers" + n).c_str(), words(9, channels, places)) == 0 &&
               scaler_status.make(-1, ("plr3_scalar_tf_status" + n).c_str(), words(channels, places, 2)) == 0;
    }
    void put(std::size_t word, double value) {
        auto *words = reinterpret_cast<double *>(sheet.view().data());
        std::atomic_ref(words[word]).store(value);
    }
    static void mark(result_module &module, int frame, std::uint32_t value) {
        for (int chan = 0; chan < channels; ++chan)
            std::atomic_ref(*reinterpret_cast<std::uint32_t *>(module.view().at(chan, frame, 0)))
                .store(value);
    }
    void begin() {
        put(run_sheet_begun, 0);
        for (int frame = 0; frame < places; ++frame) {
            mark(status, frame, 0);
            mark(scaler_status, frame, 0);
        }
        const double words[] = {0, run_counting, 0, channels, energies, 1, places, 0, 1.25e-8, 0, 1};
        for (std::size_t i = 1; i < std::size(words); ++i)
            put(i, words[i]);
        put(run_sheet_begun, static_cast<double>(now_us()) * 1e-6);
    }
    void end(int frames) {
        put(run_sheet_frames, frames);
        put(run_sheet_state, run_over);
    }
};

double seconds_since(clock_type::time_point begun) {
    return std::chrono::duration<double>(clock_type::now() - begun).count();
}

// Processor time of the broker so far.
double broker_seconds(broker &b) {
    const broker_reply info = b.command({"INFO", "cpu"});
    const std::string text(info.text().value_or(""));
    double sum = 0;
    for (const char *name : {"used_cpu_sys:", "used_cpu_user:"})
        if (const std::size_t at = text.find(name); at != text.npos)
            sum += std::strtod(text.c_str() + at + std::string_view(name).size(), nullptr);
    return sum;
}

// Keys that are new, as a frame's is; 0 when one is refused. They are removed again.
double plain_sets(broker &b, const std::vector<std::byte> &bytes, int count) {
    constexpr int at_once = 128;
    const std::string_view payload(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    std::vector<std::string> keys;
    std::vector<std::string_view> remove{"DEL"};
    for (int i = 0; i < count; ++i)
        keys.push_back(b.key("plain:" + std::to_string(now_us()) + ":" + std::to_string(i)));
    remove.insert(remove.end(), keys.begin(), keys.end());
    const auto begun = clock_type::now();
    bool good = true;
    for (int done = 0; done < count && good; done += at_once) {
        const int end = std::min(count, done + at_once);
        for (int i = done; i < end; ++i)
            b.append({"SET", keys[static_cast<std::size_t>(i)], payload, "EX", "60"});
        for (int i = done; i < end; ++i)
            good = b.next().is_ok() && good;
    }
    const double rate = count / seconds_since(begun);
    b.command(remove);
    return good ? rate : 0;
}

template <class F> void wait_for(F condition) {
    while (!condition())
        std::this_thread::sleep_for(std::chrono::microseconds(200));
}

struct running_publisher {
    publication p;
    std::thread watching, sending;

    explicit running_publisher(const broker_site &site) : p(std::size_t{256} << 20) {
        watching = std::thread([this, site] { watch_runs(p, site.prefix); });
        sending = std::thread([this, site] { sender(p, site, {}).send_until_end(); });
    }
    ~running_publisher() {
        {
            const std::lock_guard guard(p.mutex);
            p.ending = true;
            p.changed();
        }
        watching.join();
        sending.join();
    }
    bool announced(std::int64_t since_us) {
        const std::lock_guard guard(p.mutex);
        return !p.runs.empty() && p.runs.back()->begun_us >= since_us && p.runs.back()->epoch > 0;
    }
    frame_account account() {
        const std::lock_guard guard(p.mutex);
        return p.total();
    }
};

double frames(fake_card &fake, running_publisher &publisher, int count) {
    const std::uint64_t before = publisher.account().told();
    const std::int64_t since = now_us();
    fake.begin();
    wait_for([&] { return publisher.announced(since); });
    const auto begun = clock_type::now();
    for (int frame = 0; frame < count; ++frame)
        fake_card::mark(fake.status, frame, 1);
    wait_for([&] { return publisher.account().told() >= before + static_cast<std::uint64_t>(count); });
    const double rate = count / seconds_since(begun);
    fake.end(count);
    return rate;
}

// Microseconds from the moment that a frame's scalers are in the module to that at which a reader has them.
std::vector<double> scaler_ages(fake_card &fake, running_publisher &publisher, const broker_site &site,
                                int count) {
    const std::int64_t since = now_us();
    fake.begin();
    wait_for([&] { return publisher.announced(since); });
    std::string key;
    {
        const std::lock_guard guard(publisher.p.mutex);
        key = publisher.p.runs.back()->lanes.back().stream;
    }
    std::vector<std::atomic<std::int64_t>> put(static_cast<std::size_t>(count));
    std::vector<double> ages;
    std::thread reader([&] {
        broker b(site);
        std::string id = "0-0";
        while (b.ready() && std::ssize(ages) < count) {
            const broker_reply news = b.command({"XREAD", "BLOCK", "1000", "STREAMS", key, id});
            const broker_value entries = news.at(0).at(1);
            const auto now = now_us();
            for (std::size_t i = 0; i < entries.size(); ++i) {
                id = std::string(entries.at(i).at(0).text().value_or("0-0"));
                ages.push_back(static_cast<double>(now - put[*frame_of_entry(id)]));
            }
        }
    });
    for (int frame = 0; frame < count; ++frame) {
        std::this_thread::sleep_for(std::chrono::microseconds(2300));
        put[static_cast<std::size_t>(frame)] = now_us();
        fake_card::mark(fake.scaler_status, frame, 1);
    }
    reader.join();
    fake.end(0);
    return ages;
}

double at(std::vector<double> values, double part) {
    std::ranges::sort(values);
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

} // namespace

int main(int argc, char **argv) {
    std::string cause;
    const auto site = broker_site_of(argc == 2 ? argv[1] : "", cause);
    fake_card fake;
    if (!site || !fake.make()) {
        std::printf("%s\n", cause.c_str());
        return 1;
    }
    broker plain(*site);
    if (!plain.ready()) {
        std::printf("%s\n", plain.cause().c_str());
        return 1;
    }
    running_publisher publisher(*site);
    const std::vector<std::byte> bytes(frame_bytes, std::byte{1});
    std::vector<double> sets, sent, ratios, busy;
    for (int round = 0; round < 7; ++round) {
        const double before = broker_seconds(plain);
        sets.push_back(plain_sets(plain, bytes, places));
        if (sets.back() == 0) {
            std::printf("! a SET was refused: the broker has too little room\n");
            return 1;
        }
        const double between = broker_seconds(plain);
        sent.push_back(frames(fake, publisher, places));
        ratios.push_back(sent.back() / sets.back());
        busy.push_back((between - before) / (broker_seconds(plain) - between));
    }
    std::printf("frames of %zu bytes: %.0f a second, %.2f GB/s; plain SETs %.0f a second\n", frame_bytes,
                at(sent, 0.5), at(sent, 0.5) * frame_bytes * 1e-9, at(sets, 0.5));
    std::printf("rate %.2f of plain SETs; by the broker's processor time %.2f\n", at(ratios, 0.5),
                at(busy, 0.5));
    const std::vector<double> ages = scaler_ages(fake, publisher, *site, places);
    std::printf("age of scalers at a reader: median %.2f ms, 99th percentile %.2f ms, most %.2f ms\n",
                at(ages, 0.5) * 1e-3, at(ages, 0.99) * 1e-3, at(ages, 1) * 1e-3);
    return 0;
}
