#include "display/live.h"

#include <charconv>

namespace kestrel::display {

bool live_text::set(std::string fresh) {
    if (text && *text == fresh)
        return false;
    text = std::make_shared<const std::string>(std::move(fresh));
    ++number;
    return true;
}

void live_state::tick() {
    views.refresh();
    const bool news = texts[announced_text].set(json_announcements(last_announcements()));
    if (ticks_++ % ticks_a_second != 0 && !news)
        return;
    modules_ = look_at_modules(modules_);
    texts[modules_text].set(json_modules(modules_));
    texts[server_text].set(json_server(watch_.words()));
}

std::string live_state::metrics() const {
    return watch_.words().metrics;
}

bool browser_state::take_request(std::string_view request, live_state &live) {
    const bool closes = request.starts_with("close ");
    if (!closes && !request.starts_with("view "))
        return false;
    request.remove_prefix(closes ? 6 : 5);
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(request.data(), request.data() + request.size(), number);
    if (error != std::errc() || number >= views_.size())
        return false;
    request.remove_prefix(static_cast<std::size_t>(end - request.data()));
    if (closes) {
        views_[number] = {};
        return request.empty();
    }
    if (!request.starts_with(' '))
        return false;
    const std::optional<view_request> wanted = parse_view(request.substr(1));
    if (wanted)
        views_[number] = {live.views.find(*wanted), 0, 0, ++asked_};
    return wanted.has_value();
}

void browser_state::count_lost() {
    for (looked_at &v : views_) {
        if (!v.seen)
            continue;
        if (v.known > v.sent && v.seen->number > v.known)
            ++lost_;
        v.known = v.seen->number;
    }
}

std::optional<live_message> browser_state::next(const live_state &live) {
    for (std::size_t i = 0; i < texts_sent_.size(); ++i) {
        const live_text &text = live.texts[i];
        if (text.number == texts_sent_[i])
            continue;
        texts_sent_[i] = text.number;
        return live_message{false, {}, text.text};
    }
    for (std::size_t i = 0; i < views_.size(); ++i) {
        const std::size_t number = (turn_ + i) % views_.size();
        looked_at &v = views_[number];
        if (!v.seen || v.seen->number == v.sent)
            continue;
        v.sent = v.seen->number;
        turn_ = number + 1;
        message_head head;
        head.view = static_cast<std::uint32_t>(number);
        head.lost = lost_;
        head.asked = v.asked;
        return live_message{true, head, v.seen->contents};
    }
    return std::nullopt;
}

} // namespace kestrel::display
