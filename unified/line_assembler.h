// unified: elements arrive in pieces of any size and leave in whole lines. Knows spans only.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

namespace kestrel {

// Joins pieces to lines of `line` bytes; whole lines pass through without a copy.
class line_assembler {
  public:
    explicit line_assembler(std::size_t line) : line_(line) { pending_.reserve(line); }

    // Calls f(bytes, lines) for the lines that are complete now; false as soon as f is false.
    template <class F> bool add(const std::byte *bytes, std::size_t count, F &&f) {
        if (!pending_.empty()) {
            const std::size_t take = std::min(count, line_ - pending_.size());
            pending_.insert(pending_.end(), bytes, bytes + take);
            bytes += take;
            count -= take;
            if (pending_.size() < line_)
                return true;
            const bool taken = f(pending_.data(), std::size_t{1});
            pending_.clear();
            if (!taken)
                return false;
        }
        const std::size_t lines = count / line_;
        if (lines > 0 && !f(bytes, lines))
            return false;
        pending_.insert(pending_.end(), bytes + lines * line_, bytes + count);
        return true;
    }

  private:
    std::size_t line_;
    std::vector<std::byte> pending_;
};

} // namespace kestrel
