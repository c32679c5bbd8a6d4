// instruments/links: what another server of our own kind says, read byte by byte. Knows no socket and no
// session.
//
// A reply is any number of lines and then the prompt "> " at the start of a line. A line's first character
// tells what it is: "#" information, "!" error, "@" progress, "~" a question, "* " a result; anything else is
// text. The last result line before the prompt is the command's result. A text that the remote sent without a
// line end may stand in front of the result, in the same line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace kestrel::links {

inline constexpr std::size_t reply_line_max = 65536; // a longer line is no reply of ours

// A remote's result. A string result may be null.
struct remote_null {};
using remote_result = std::variant<std::monostate, int, double, std::string, remote_null>;

// Parses what follows "* " in a result line; nothing when it is no result.
std::optional<remote_result> parse_result(std::string_view text);

enum class reply_event { more, information, error, progress, question, text, prompt, garbage };

// The numbers and the label of a progress line.
struct remote_progress {
    int done = 0;
    int total = 0;
    std::string label;
};

class reply_reader {
  public:
    // Appends what was received.
    void feed(std::string_view bytes) { buffer_.append(bytes); }

    // The next thing that was said. `more`: nothing complete is left. A prompt comes only once nothing
    // follows it in what was fed; the caller decides whether more may still come (certain() says that none
    // will).
    reply_event next();

    // The text of the last event, without its marker.
    const std::string &text() const { return text_; }
    const remote_progress &progress() const { return progress_; }

    // The last result line since reset(); std::monostate when there was none.
    const remote_result &result() const { return result_; }

    // A prompt that follows a result line: no text of the remote's looks so.
    bool certain() const { return after_result_; }

    // Begins a new exchange: forgets the result.
    void reset();
    // Forgets everything, for a new connection.
    void clear();

  private:
    reply_event take_line(std::string_view line);
    reply_event classify(std::string_view line);
    bool take_result(std::string_view text);

    std::string buffer_;
    std::size_t taken_ = 0;
    std::string text_;
    remote_progress progress_;
    remote_result result_;
    bool after_result_ = false;
};

} // namespace kestrel::links
