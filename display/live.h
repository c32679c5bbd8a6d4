// display: what all browsers are told, once for all of them: views, the list of modules, the server's words. And of each
// browser, what it looks at and what it has been sent: the newest wins, and what was never sent is counted.
#pragma once

#include "display/live_texts.h"
#include "display/views.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::display {

inline constexpr std::size_t views_of_browser = 16;
inline constexpr unsigned ticks_a_second =
    40; // looks at the modules; a view changes ten times a second at most

// A text that all browsers get when it is new.
struct live_text {
    std::uint32_t number = 0;
    std::shared_ptr<const std::string> text;
    bool set(std::string fresh); // true when it is another
};

class live_state {
  public:
    explicit live_state(std::string server_path) : watch_(std::move(server_path)) {}
    void tick();

    view_table views;
    enum { modules_text, server_text, announced_text, text_count };
    std::array<live_text, text_count> texts;
    std::string metrics() const; // of the server

  private:
    server_watch watch_;
    std::vector<seen_module> modules_;
    unsigned ticks_ = 0;
};

// In front of a view's contents.
struct message_head {
    char mark[4] = {'K', 'D', 'V', '1'};
    std::uint32_t view = 0;  // the browser's number of it
    std::uint32_t lost = 0;  // updates that this browser was too slow for, so far
    std::uint32_t asked = 0; // which of this browser's requests for views it answers, from 1
};

struct live_message {
    bool binary = false;
    message_head head; // of a binary one
    std::shared_ptr<const std::string> contents;
};

// What one browser looks at.
class browser_state {
  public:
    // "view ID ..." and "close ID"; false for anything else.
    bool take_request(std::string_view request, live_state &live);
    // After a tick: updates that were not sent when newer ones came are lost.
    void count_lost();
    // The next message that this browser has not got, if there is any.
    std::optional<live_message> next(const live_state &live);

  private:
    struct looked_at {
        std::shared_ptr<view> seen;
        std::uint32_t sent = 0;  // number of the contents that it got
        std::uint32_t known = 0; // and that there were at the last tick
        std::uint32_t asked = 0; // by which request
    };
    std::array<looked_at, views_of_browser> views_;
    std::array<std::uint32_t, live_state::text_count> texts_sent_{};
    std::uint32_t lost_ = 0;
    std::uint32_t asked_ = 0; // requests for views so far
    std::size_t turn_ = 0;    // the view to be looked at first
};

} // namespace kestrel::display
