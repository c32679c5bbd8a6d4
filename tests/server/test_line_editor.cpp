// The line editor against a terminal: whatever keys come, the screen shows prompt and line, and the cursor
// stands where the next character goes.
#include "server/input_machine.h"
#include "server/line_editor.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <random>

namespace kestrel {
namespace {

// A VT100 of endless height, as far as the editor uses it: autowrap waits at the margin.
class terminal {
  public:
    explicit terminal(std::size_t cols) : cols_(cols) {}

    void write(std::string_view bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            if (bytes[i] == '\x1b')
                i = escape(bytes, i + 1);
            else
                put(bytes[i]);
        }
    }

    // The rows from `top` to the last one that holds anything.
    std::vector<std::string> rows(std::size_t top) const {
        std::vector<std::string> result;
        for (const auto &[row, text] : rows_) {
            if (row < top || text.empty())
                continue;
            result.resize(row - top + 1);
            result.back() = text;
        }
        return result;
    }

    std::size_t row = 0;
    std::size_t column = 0;
    int beeps = 0;
    std::string unknown;

  private:
    void put(char c) {
        if (c == '\a') {
            ++beeps;
        } else if (c == '\r') {
            column = 0;
            waiting_ = false;
        } else if (c == '\n') {
            ++row;
            waiting_ = false;
        } else {
            show(c);
        }
    }

    void show(char c) {
        if (waiting_) {
            ++row;
            column = 0;
            waiting_ = false;
        }
        std::string &text = rows_[row];
        text.resize(std::max(text.size(), column + 1), ' ');
        text[column] = c;
        if (column + 1 == cols_)
            waiting_ = true;
        else
            ++column;
    }

    std::size_t escape(std::string_view bytes, std::size_t i) {
        std::size_t number = 0;
        for (++i; i < bytes.size() && bytes[i] >= '0' && bytes[i] <= '9'; ++i)
            number = number * 10 + static_cast<std::size_t>(bytes[i] - '0');
        switch (i < bytes.size() ? bytes[i] : '?') {
        case 'A':
            row -= std::min(row, number);
            break;
        case 'B':
            row += number;
            break;
        case 'C':
            column = std::min(column + number, cols_ - 1);
            break;
        case 'H':
            row = column = 0;
            break;
        case 'J':
            erase(number);
            break;
        default:
            unknown += bytes.substr(i, 1);
        }
        waiting_ = false;
        return i;
    }

    void erase(std::size_t kind) {
        if (kind == 2)
            rows_.clear();
        else if (rows_.contains(row))
            rows_[row].resize(std::min(rows_[row].size(), column));
        rows_.erase(rows_.upper_bound(row), rows_.end());
    }

    std::size_t cols_;
    std::map<std::size_t, std::string> rows_;
    bool waiting_ = false;
};

std::vector<std::string> wrapped(const std::string &text, std::size_t cols) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i < text.size(); i += cols)
        result.push_back(text.substr(i, cols));
    return result;
}

class line_editor : public testing::TestWithParam<std::size_t> {};

TEST_P(line_editor, keeps_the_screen_true_under_random_keys) {
    static const std::vector<std::string> keys = {
        "a",    "b",    " ",    "\x01",   "\x02",   "\x05",   "\x06",   "\x08",    "\x0b", "\x0c", "\x10",
        "\x0e", "\x14", "\x17", "\x1b[A", "\x1b[B", "\x1b[C", "\x1b[D", "\x1b[3~", "\r",   "\x15"};
    std::mt19937 random(static_cast<unsigned>(GetParam()));
    const auto c = std::make_unique<client_descriptor>();
    c->echo_mode = 1;
    c->cols = GetParam();
    terminal screen(c->cols);
    screen.write(c->prompt);
    std::size_t top = 0;
    for (int i = 0; i < 3000; ++i) {
        // Letters are likelier, so that lines grow over several rows.
        const std::string &key = keys[random() % 3 != 0 ? random() % 3 : random() % keys.size()];
        std::string reply;
        std::string notice;
        std::size_t used = 0;
        for (std::string_view rest = key; !rest.empty(); rest.remove_prefix(used)) {
            if (sv_input_feed(*c, rest, used, {reply, notice}) == input_event::line) {
                screen.write(reply + std::string(c->prompt));
                reply.clear();
                sv_ln_start(*c);
                top = screen.row;
            }
        }
        screen.write(reply);
        if (key == "\x0c")
            top = 0;
        const std::size_t cursor = c->plen + c->pos;
        ASSERT_EQ(screen.rows(top), wrapped(std::string(c->prompt) + c->input, c->cols)) << "key " << i;
        ASSERT_EQ(screen.row - top, cursor / c->cols) << "key " << i;
        ASSERT_EQ(screen.column, cursor % c->cols) << "key " << i;
        ASSERT_EQ(screen.unknown, "");
    }
}

INSTANTIATE_TEST_SUITE_P(widths, line_editor, testing::Values(3, 5, 10, 40, 80));

TEST(line_editor, starts_the_reply_below_the_last_row) {
    const auto c = std::make_unique<client_descriptor>();
    c->echo_mode = 1;
    c->cols = 10;
    terminal screen(10);
    screen.write(c->prompt);
    std::string reply;
    std::string notice;
    std::size_t used = 0;
    EXPECT_EQ(sv_input_feed(*c, "0123456789012345678901234\x01\r", used, {reply, notice}), input_event::line);
    screen.write(reply);
    EXPECT_EQ(screen.row, 3U);
    EXPECT_EQ(screen.column, 0U);
}

TEST(line_editor, shows_a_typed_password_as_stars) {
    const auto c = std::make_unique<client_descriptor>();
    c->echo_mode = 1;
    c->cols = 80;
    terminal screen(80);
    screen.write(c->prompt);
    std::string reply;
    std::string notice;
    std::size_t used = 0;
    sv_input_feed(*c, "ftp password 'secrex\bt' x\x01\x06", used, {reply, notice});
    screen.write(reply);
    EXPECT_EQ(screen.rows(0), std::vector<std::string>{"> ftp password '******' x"});
    EXPECT_STREQ(c->input, "ftp password 'secret' x");
    EXPECT_EQ(reply.find("sec"), std::string::npos);
}

} // namespace
} // namespace kestrel
