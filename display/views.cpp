#include "display/views.h"

#include "display/modules_seen.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <limits>

namespace kestrel::display {

namespace {

constexpr std::uint32_t columns_max = 65536, rows_max = 4096;
constexpr std::size_t elements_max = 2 << 20; // of one view
constexpr std::size_t held_max = 256 << 20;   // bytes of all contents together
constexpr std::size_t read_max = 16 << 20;    // elements of a module that one view may cover
constexpr std::uint64_t tick_max = 8 << 20; // elements that one refresh reads; other views wait for the next
// Ten contents of a view a second in the mean; one may come early, so that what is written ten times a second is sent as
// soon as it is written, whatever its phase.
constexpr std::chrono::milliseconds mean_time{100}, early_time{50};
constexpr int rest_share = 3; // times as long as a refresh was busy is rested after it

int hex_digit(char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::optional<std::string> decoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
        if (high < 0 || low < 0)
            return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

std::string_view take_word(std::string_view &text) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return word;
}

bool take_number(std::string_view &text, std::uint32_t &number) {
    const std::string_view word = take_word(text);
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc() && end == word.data() + word.size();
}

void hold(std::uint32_t &from, std::uint32_t &to, std::size_t count) {
    const auto last = static_cast<std::uint32_t>(count - 1);
    to = std::min(to, last);
    from = std::min(from, to);
}

// The request held to the module's shape.
view_head head_of(const view_request &r, const kestrel_module &m) {
    view_head h;
    h.num_x = static_cast<std::uint32_t>(m.num_x);
    h.num_y = static_cast<std::uint32_t>(m.num_y);
    h.num_t = static_cast<std::uint32_t>(m.num_t);
    h.x0 = r.x0, h.x1 = r.x1, h.y0 = r.y0, h.y1 = r.y1, h.t0 = r.t0, h.t1 = r.t1;
    hold(h.x0, h.x1, m.num_x);
    hold(h.y0, h.y1, m.num_y);
    hold(h.t0, h.t1, m.num_t);
    const std::uint64_t rows = std::uint64_t{h.y1 - h.y0 + 1} * (h.t1 - h.t0 + 1);
    h.columns = std::min(r.columns, h.x1 - h.x0 + 1);
    h.rows = static_cast<std::uint32_t>(std::min<std::uint64_t>(r.rows, rows));
    return h;
}

// The maximum of each group of elements that are numbers.
void reduce_row(const std::vector<double> &row, double *out, std::uint32_t columns) {
    for (std::size_t c = 0; c < columns; ++c) {
        const std::size_t first = row.size() * c / columns, last = row.size() * (c + 1) / columns;
        for (std::size_t i = first; i < last; ++i)
            if (row[i] > out[c])
                out[c] = row[i];
    }
}

bool read_box(const open_module &module, const view_head &h, std::vector<double> &out) {
    const std::size_t height = h.y1 - h.y0 + 1, total = height * (h.t1 - h.t0 + 1);
    std::vector<double> row(h.x1 - h.x0 + 1);
    std::vector<std::byte> scratch;
    out.assign(std::size_t{h.columns} * h.rows, -std::numeric_limits<double>::infinity());
    for (std::size_t i = 0; i < total; ++i) {
        if (!read_row(module, h.y0 + i % height, h.t0 + i / height, h.x0, row, scratch))
            return false;
        reduce_row(row, out.data() + i * h.rows / total * h.columns, h.columns);
    }
    for (double &value : out)
        if (value == -std::numeric_limits<double>::infinity())
            value = std::numeric_limits<double>::quiet_NaN(); // nothing there was a number
    return true;
}

// Counts and floats do, and take half the room.
bool fit_in_floats(const std::vector<double> &values) {
    return std::all_of(values.begin(), values.end(), [](double v) {
        constexpr double largest = std::numeric_limits<float>::max();
        return !std::isfinite(v) ||
               (std::abs(v) <= largest && static_cast<double>(static_cast<float>(v)) == v);
    });
}

std::string packed(const view_head &head, const std::vector<double> &values) {
    std::string text(reinterpret_cast<const char *>(&head), sizeof head);
    text.resize(sizeof head + values.size() * head.element_size);
    for (std::size_t i = 0; i < values.size(); ++i) {
        char *const to = text.data() + sizeof head + i * head.element_size;
        const auto shorter = static_cast<float>(values[i]);
        if (head.element_size == sizeof(double))
            std::memcpy(to, &values[i], sizeof(double));
        else
            std::memcpy(to, &shorter, sizeof shorter);
    }
    return text;
}

// Bytes of all contents that somebody has: of views, and old ones on their way to slow browsers.
std::atomic<std::size_t> held{0};

std::shared_ptr<const std::string> hold_contents(std::string text) {
    const std::size_t size = text.size();
    const auto *const contents = new std::string(std::move(text));
    held += size;
    return {contents, [size](const std::string *c) {
                held -= size;
                delete c;
            }};
}

double now_ms() {
    return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Of this thread on its processor; what it waited for others is none.
std::chrono::nanoseconds busy_time() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// How many elements it looked at.
std::uint64_t work_out(view &v) {
    const double read_at = now_ms();
    const open_module module = open_for_reading(v.request.module);
    view_head head;
    std::vector<double> values;
    if (module.fd)
        head = head_of(v.request, module.shape);
    const std::uint64_t covered =
        std::uint64_t{head.x1 - head.x0 + 1} * (head.y1 - head.y0 + 1) * (head.t1 - head.t0 + 1);
    const std::size_t elements = std::size_t{head.columns} * head.rows;
    const std::size_t own = v.contents ? v.contents->size() : 0; // makes room
    if (elements > elements_max || held + elements * sizeof(double) > held_max + own || covered > read_max ||
        !module.fd || !read_box(module, head, values))
        head = {}, values.clear();
    const std::uint64_t looked_at = values.empty() ? 1 : covered;
    head.element_size = fit_in_floats(values) ? sizeof(float) : sizeof(double);
    std::string text = packed(head, values);
    // Time and number alone are no change.
    const auto body = [](const std::string &t) {
        return std::string_view(t).substr(offsetof(view_head, x0));
    };
    if (v.contents && body(*v.contents) == body(text))
        return looked_at;
    head.read_at_ms = read_at;
    head.number = ++v.number;
    text.replace(0, sizeof head, reinterpret_cast<const char *>(&head), sizeof head);
    v.due = std::max(v.due, std::chrono::steady_clock::now()) + mean_time;
    v.contents = hold_contents(std::move(text));
    return looked_at;
}

} // namespace

std::optional<view_request> parse_view(std::string_view text) {
    view_request r;
    const std::optional<std::string> name = decoded(take_word(text));
    if (!name || name->empty())
        return std::nullopt;
    r.module = *name;
    for (std::uint32_t *number : {&r.x0, &r.x1, &r.y0, &r.y1, &r.t0, &r.t1, &r.columns, &r.rows})
        if (!take_number(text, *number))
            return std::nullopt;
    const bool sensible = r.columns >= 1 && r.columns <= columns_max && r.rows >= 1 && r.rows <= rows_max;
    return text.empty() && sensible ? std::optional(r) : std::nullopt;
}

std::shared_ptr<view> view_table::find(const view_request &request) {
    std::weak_ptr<view> &place = views_[request];
    if (std::shared_ptr<view> known = place.lock())
        return known;
    auto fresh = std::make_shared<view>();
    fresh->request = request;
    place = fresh;
    return fresh;
}

void view_table::refresh() {
    std::erase_if(views_, [](const auto &entry) { return entry.second.expired(); });
    if (std::chrono::steady_clock::now() < rest_until_)
        return;
    const auto begun = busy_time();
    std::uint64_t read = 0;
    auto next = views_.upper_bound(last_);
    for (std::size_t left = views_.size(); left > 0 && read < tick_max; --left) {
        if (next == views_.end())
            next = views_.begin();
        const std::shared_ptr<view> v = next->second.lock();
        if (v && (!v->contents || std::chrono::steady_clock::now() >= v->due - early_time))
            read += work_out(*v);
        last_ = (next++)->first;
    }
    rest_until_ = std::chrono::steady_clock::now() + rest_share * (busy_time() - begun);
}

} // namespace kestrel::display
