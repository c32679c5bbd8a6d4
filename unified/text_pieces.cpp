#include "unified/text_pieces.h"

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrel {

namespace {

// Pieces ahead of the one that is taken next, for each thread: enough that a slow one stops no other.
constexpr int ahead = 3;

struct piece_slot {
    std::unique_ptr<char[]> room;
    std::size_t length = 0;
    bool made = false;
};

class piece_line {
  public:
    piece_line(const text_pieces &pieces, int threads)
        : pieces_(pieces), slots_(static_cast<std::size_t>(std::min(threads * ahead, pieces.count))) {
        for (piece_slot &slot : slots_)
            slot.room.reset(new char[pieces.room]); // touched as far as it is used
    }

    void help() {
        std::unique_lock guard(lock_);
        while (!stop_ && next_ < pieces_.count) {
            if (has_room())
                make_one(guard);
            else
                changed_.wait(guard);
        }
    }

    // The calling thread: takes what is made, makes what is not.
    int take_all() {
        std::unique_lock guard(lock_);
        while (!stop_ && taken_ < pieces_.count) {
            if (slot_of(taken_).made)
                take_one(guard);
            else if (next_ < pieces_.count && has_room())
                make_one(guard);
            else
                changed_.wait(guard);
        }
        return result_;
    }

    void stop() {
        const std::lock_guard guard(lock_);
        stop_ = true;
        changed_.notify_all();
    }

  private:
    piece_slot &slot_of(int piece) { return slots_[static_cast<std::size_t>(piece) % slots_.size()]; }
    bool has_room() const { return next_ < taken_ + static_cast<int>(slots_.size()); }

    void make_one(std::unique_lock<std::mutex> &guard) {
        const int piece = next_++;
        piece_slot &slot = slot_of(piece);
        guard.unlock();
        slot.length = pieces_.make(pieces_.user, piece, slot.room.get());
        guard.lock();
        slot.made = true;
        changed_.notify_all();
    }

    void take_one(std::unique_lock<std::mutex> &guard) {
        piece_slot &slot = slot_of(taken_);
        guard.unlock();
        const int result = pieces_.take(pieces_.user, slot.room.get(), slot.length);
        guard.lock();
        slot.made = false;
        ++taken_;
        result_ = result;
        stop_ = stop_ || result != 0;
        changed_.notify_all();
    }

    const text_pieces &pieces_;
    std::vector<piece_slot> slots_;
    std::mutex lock_; // guards what follows, and `made` of the slots
    std::condition_variable changed_;
    int next_ = 0, taken_ = 0; // the piece to be made, to be taken next
    int result_ = 0;
    bool stop_ = false;
};

} // namespace

int unified_make_text(const text_pieces &pieces) {
    constexpr int worth_a_thread = 16; // pieces
    const int most = std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
    const int threads = std::clamp(pieces.count / worth_a_thread, 1, most);
    piece_line line(pieces, threads);
    std::vector<std::jthread> helpers;
    struct stopper { // before the helpers are waited for, however this ends
        piece_line &line;
        ~stopper() { line.stop(); }
    } const stop_at_end{line};
    try {
        helpers.reserve(static_cast<std::size_t>(threads));
        while (static_cast<int>(helpers.size()) + 1 < threads)
            helpers.emplace_back([&line] { line.help(); });
    } catch (const std::system_error &) { // no more threads can be had: the rest is this one's
    } catch (const std::bad_alloc &) {
    }
    return line.take_all();
}

} // namespace kestrel
