#include "stream/fits/command.h"

#include "maths/peak_fit/far.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "stream/fits/ledger.h"
#include "stream/fits/post.h"

#include <algorithm>
#include <random>

namespace kestrel::stream {

namespace {

using steady = std::chrono::steady_clock;
constexpr auto look_every = std::chrono::milliseconds(500);
constexpr auto nobody_for = std::chrono::seconds(2); // before it is said
constexpr int most_lines = 20;                       // of one sort
constexpr int most_idle_looks = 2;                   // at workers who do not get what is sent: it is lost

std::uint64_t new_id() {
    std::random_device random;
    return std::uint64_t{random()} << 32 | random();
}

fit_job job_of(const peak_fit_request &request, const peak_fit_part &part) {
    return {new_id(), request, part.spectra->channels, part.spectra->type};
}

int neighbours_of(const peak_fit_request &request) {
    return request.constraints & peak_fit_by_top_sum ? peak_fit_most_neighbours : 0;
}

// Of a point's spectrum and its share of its row's neighbours.
std::size_t point_bytes(const peak_fit_request &request, const peak_fit_part &part) {
    const peak_spectra &spectra = *part.spectra;
    const auto spectrum =
        static_cast<std::size_t>(spectra.channels) * static_cast<std::size_t>(element_size(spectra.type));
    const auto points = static_cast<std::size_t>(part.q2 - part.q1 + 1),
               neighbours = 2 * static_cast<std::size_t>(neighbours_of(request));
    return (spectrum * (points + neighbours) + points - 1) / points;
}

class far_fit {
  public:
    far_fit(broker_site site, const peak_fit_request &request, const peak_fit_part &part,
            const result_module &output)
        : request_(request), part_(part), output_(output), job_(job_of(request, part)),
          post_(std::move(site), job_),
          ledger_(part.q1, part.q2, part.spectra->ns, point_bytes(request, part)),
          values_(peak_fit_labels(request.lines.num_peaks).size()) {}

    peak_fit_counts run(int done, int total);

  private:
    bool connected();
    void check_refusal();
    void begin_again();
    void send_blocks();
    void take_result();
    void store(const fit_result &result);
    void refuse(int number, const std::string &cause);
    void look_after();
    void look_for_workers();
    void give_up_blocks();
    std::vector<std::string> entries_out() const;
    std::pair<int, int> points_of(int number) const;

    const peak_fit_request &request_;
    const peak_fit_part &part_;
    const result_module &output_;
    const fit_job job_;
    fit_post post_;
    fit_ledger ledger_;
    std::size_t values_; // a point
    peak_fit_counts counts_;
    bool away_ = false;  // the broker; and its line is printed
    bool alone_ = false; // nobody works; and its line is printed
    int workers_ = 0, refused_ = 0, idle_looks_ = 0;
    steady::time_point look_at_{}, worker_seen_ = steady::now();
};

std::vector<std::string> far_fit::entries_out() const {
    std::vector<std::string> entries;
    for (const int number : ledger_.in_state(block_state::sent))
        entries.push_back(ledger_.at(number).entry);
    return entries;
}

// The first and the last one, as messages number them; a block has whole rows, or a piece of one.
std::pair<int, int> far_fit::points_of(int number) const {
    const fit_box &box = ledger_.at(number).box;
    const int first = part_.first_point + part_.first_q - part_.q1;
    return {first + box.q1 + (part_.first_s + box.s1) * part_.scan_nq,
            first + box.q2 + (part_.first_s + box.s2) * part_.scan_nq};
}

bool far_fit::connected() {
    broker &connection = post_.connection();
    if (connection.is_connected())
        return true;
    if (!connection.ready()) {
        if (!away_)
            sv_printf(request_.cn, "# The broker %s is away (%s): trying again, ^C ends\n",
                      connection.site().text().c_str(), connection.cause().c_str());
        away_ = true;
        sv_sleep(request_.cn, 0.05);
        return false;
    }
    if (away_)
        sv_printf(request_.cn, "# The broker %s is back\n", connection.site().text().c_str());
    away_ = false;
    begin_again();
    return connection.is_connected();
}

// What was sent may be lost, and what is not is withdrawn.
void far_fit::begin_again() {
    post_.withdraw(entries_out());
    post_.announce();
    ledger_.all_again();
    idle_looks_ = 0;
}

void far_fit::check_refusal() {
    if (post_.refusal().empty())
        return;
    sv_printf(request_.cn, "! The broker %s refuses: %s\n", post_.connection().site().text().c_str(),
              post_.refusal().c_str());
    counts_.abandoned = true;
}

void far_fit::send_blocks() {
    while (const std::optional<int> number = ledger_.next(workers_)) {
        const fit_box &box = ledger_.at(*number).box;
        if (fit_block_bytes(*part_.spectra, box, neighbours_of(request_)) > fit_most_bytes) {
            sv_printf(request_.cn, "! Point %d has too many channels to be sent\n", points_of(*number).first);
            counts_.abandoned = true;
            return;
        }
        const std::string block =
            fit_encode_block(job_.id, *number, *part_.spectra, box, neighbours_of(request_));
        const std::string entry = post_.send(block);
        if (entry.empty())
            return;
        ledger_.sent(*number, entry, block.size());
    }
}

void far_fit::take_result() {
    const fit_post::answer answer = post_.take();
    if (!ledger_.knows(answer.number) || ledger_.at(answer.number).state == block_state::done)
        return;
    std::string cause;
    const auto result = fit_decode_result(answer.bytes, job_.id, answer.number,
                                          ledger_.at(answer.number).box.points(), values_, cause);
    const std::string entry = ledger_.at(answer.number).entry;
    if (result)
        store(*result);
    else
        refuse(answer.number, cause);
    if (!entry.empty())
        post_.withdraw(std::span(&entry, 1)); // when the answer is another worker's than the one who has it
}

void far_fit::store(const fit_result &result) {
    const fit_box &box = ledger_.at(result.number).box;
    auto point = result.points.begin();
    for (int s = box.s1; s <= box.s2; ++s)
        for (int q = box.q1; q <= box.q2; ++q, ++point) {
            peak_fit_count(counts_, point->status, point->near_ends, point->high_at_ends);
            peak_fit_put(output_, part_.first_q + (q - part_.q1), part_.first_s + s, point->values);
        }
    ledger_.finished(result.number, result.microseconds);
}

void far_fit::refuse(int number, const std::string &cause) {
    const auto [first, last] = points_of(number);
    if (refused_++ < most_lines)
        sv_printf(request_.cn, "! What a worker says of points %d..%d is refused: %s\n", first, last,
                  cause.c_str());
    ledger_.failed(number);
}

void far_fit::look_after() {
    if (steady::now() < look_at_)
        return;
    look_at_ = steady::now() + look_every;
    const std::vector<std::string> out = entries_out();
    const fit_post::holding held = post_.keep_alive();
    const bool in_vain = held == fit_post::holding::job && workers_ > 0 && !out.empty();
    idle_looks_ = in_vain ? idle_looks_ + 1 : 0;
    if (held == fit_post::holding::nothing || idle_looks_ >= most_idle_looks)
        return begin_again();
    const std::vector<std::string> dead = post_.claim(out, ledger_.patience());
    post_.withdraw(dead);
    for (const int number : ledger_.in_state(block_state::sent))
        if (std::find(dead.begin(), dead.end(), ledger_.at(number).entry) != dead.end())
            ledger_.failed(number);
    look_for_workers();
}

void far_fit::look_for_workers() {
    const int found = post_.workers();
    if (found >= 0)
        workers_ = found;
    const auto now = steady::now();
    const char *site = request_.site.c_str();
    if (workers_ > 0) {
        worker_seen_ = now;
        if (alone_)
            sv_printf(request_.cn, "# Workers at %s: %d\n", site, workers_);
        alone_ = false;
    } else if (!alone_ && now - worker_seen_ > nobody_for) {
        sv_printf(request_.cn, "# No worker of this build answers at %s: waiting, ^C ends\n", site);
        alone_ = true;
    }
}

void far_fit::give_up_blocks() {
    int told = 0;
    for (const int number : ledger_.in_state(block_state::given_up)) {
        const auto [first, last] = points_of(number);
        if (told++ < most_lines)
            sv_printf(request_.cn, "! Points %d..%d are given up: %d workers failed on them\n", first, last,
                      fit_ledger::most_failures);
        counts_.errors += ledger_.at(number).box.points();
    }
    if (told > most_lines)
        sv_printf(request_.cn, "! Blocks given up: %d\n", told);
}

peak_fit_counts far_fit::run(int done, int total) {
    peak_fit_progress progress;
    while (!ledger_.settled() && !counts_.ended()) {
        if (sv_poll_quit(request_.cn) > 0) {
            counts_.stopped = true;
            break;
        }
        progress.show(request_.cn, done + ledger_.points_done(), total);
        if (connected()) {
            look_after();
            send_blocks();
            take_result();
        }
        check_refusal();
    }
    if (post_.connection().ready())
        post_.remove(entries_out());
    give_up_blocks();
    return counts_;
}

// Nothing, after a line.
std::optional<broker_site> site_of(int cn, const std::string &text) {
    std::string cause;
    std::optional<broker_site> site = broker_site_of(text, cause);
    if (!site)
        sv_printf(cn, "! Cannot use workers: %s\n", cause.c_str());
    return site;
}

bool reach(int cn, const std::string &text) {
    const std::optional<broker_site> site = site_of(cn, text);
    if (!site)
        return false;
    broker connection(*site);
    if (connection.ready())
        return true;
    sv_printf(cn, "! Cannot reach the broker %s: %s\n", site->text().c_str(), connection.cause().c_str());
    return false;
}

peak_fit_counts fit_part(const peak_fit_request &request, const peak_fit_part &part,
                         const result_module &output, int done, int total) {
    std::optional<broker_site> site = site_of(request.cn, request.site);
    if (site)
        return far_fit(std::move(*site), request, part, output).run(done, total);
    peak_fit_counts counts;
    counts.abandoned = true;
    return counts;
}

} // namespace

void fit_far_init() {
    peak_fit_far = {reach, fit_part};
}

} // namespace kestrel::stream
