// instruments/links: what another server of our own kind says, read byte by byte. Knows no socket and no
// session.
//
// A reply is any number of lines and then the prompt "> " at the start of a line. A line's first character
// tells what it is: "#" information, "!" error, "@" progress, "~" the question; anything else is text. "* "
// and a value is the command's result in the last line before the prompt, and text anywhere else.
#pragma once

#include "parser/value.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace kestrel::links {

// Holds the longest result; a longer line is handed on in pieces.
inline constexpr std::size_t reply_line_max = string_value_max + 16;

// A remote's result. A string result may be null; a reply that ends in "* " and no value has none that counts.
struct remote_null {};
struct remote_unknown {};
using remote_result = std::variant<std::monostate, int, double, std::string, remote_null, remote_unknown>;

// Parses what follows "* " in a result line; nothing when it is no result.
std::optional<remote_result> parse_result(std::string_view text);

enum class reply_event { more, information, error, progress, question, text, prompt };

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

    // The next thing that was said. `more`: nothing complete is left. A prompt and a question come only where
    // nothing follows them in what was fed; the caller decides whether more may still come (certain() says
    // that nothing follows this prompt).
    reply_event next();

    // The text of the last event, without its marker.
    const std::string &text() const { return text_; }
    const remote_progress &progress() const { return progress_; }

    // What the last line says; std::monostate when that is no result.
    const remote_result &result() const { return result_; }

    // A prompt that follows a result line: no text of the remote's looks so.
    bool certain() const { return after_result_; }

    // Since the exchange began a result was seen behind a prompt: an earlier one has ended the reply, and lines that were
    // sent for the command were taken for commands.
    bool ended_before() const { return ended_before_; }

    // Begins a new exchange: forgets the result.
    void reset();
    // Forgets everything, for a new connection.
    void clear();

  private:
    reply_event take_line(std::string_view line);
    reply_event take_piece();
    reply_event take_held();
    reply_event classify(std::string_view line);
    reply_event as_text(std::string_view line);
    bool take_result(std::string_view text);

    std::string buffer_;
    std::size_t taken_ = 0;
    std::size_t searched_ = 0; // no line end up to here
    std::string text_;
    std::string held_; // a result line, which is a text once another line follows
    remote_progress progress_;
    remote_result result_;
    bool after_result_ = false;
    bool ended_before_ = false;
    bool in_reply_ = false;  // since reset(), no prompt yet
    bool at_prompt_ = false; // and has said something since, without another prompt
    bool in_pieces_ = false; // what comes up to the next line end continues a long line
};

} // namespace kestrel::links
