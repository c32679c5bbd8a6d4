#include "unified/read_pipeline.h"

#include "modules/store/cut_guard.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"
#include "support/byte_order.h"
#include "unified/corrections.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <new>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t changed_block = 256 * 1024;        // source and result of a block fit the cache
constexpr std::size_t unchanged_block = 8 * 1024 * 1024; // a call of the destination
constexpr auto progress_interval = std::chrono::milliseconds(500);

std::size_t count_of(int n) {
    return static_cast<std::size_t>(n);
}

std::size_t elements_of(const unified_box &b) {
    return count_of(b.dx) * count_of(b.dy) * count_of(b.dt);
}

int dimensions_of(const unified_box &b) {
    return (b.dx != 1) + (b.dy != 1) + (b.dt != 1);
}

// The largest part of the box, from its start, that has at most `limit` elements: whole frames, else lines of
// one frame, else one line (a part of it where the box is 1-D). With `columns`: all y and t of some x.
unified_box part_of(unified_box box, std::size_t limit, bool columns) {
    const auto fit = [&](int have, std::size_t each) {
        return static_cast<int>(std::clamp<std::size_t>(limit / each, 1, count_of(have)));
    };
    if (columns) {
        box.dx = fit(box.dx, count_of(box.dy) * count_of(box.dt));
        return box;
    }
    const bool line = dimensions_of(box) <= 1;
    const std::size_t row = count_of(box.dx);
    const std::size_t frame = row * count_of(box.dy);
    if (frame <= limit) {
        box.dt = fit(box.dt, frame);
        return box;
    }
    box.dt = 1;
    box.dy = fit(box.dy, row);
    if (line)
        box.dx = fit(box.dx, 1);
    return box;
}

// Calls f(start, count) for one stretch of `count` after the other, each of `step` or what is left, until one
// fails.
template <class F> int for_each_stretch(int count, int step, F &&f) {
    int result = 0;
    for (int done = 0; done < count && result == 0; done += std::min(step, count - done))
        result = f(done, std::min(step, count - done));
    return result;
}

// Calls f with one part after the other, in the box's order, until one fails.
template <class F> int for_each_part(const unified_box &box, const unified_box &part, F &&f) {
    return for_each_stretch(box.dt, part.dt, [&](int t, int dt) {
        return for_each_stretch(box.dy, part.dy, [&](int y, int dy) {
            return for_each_stretch(box.dx, part.dx, [&](int x, int dx) {
                return f(unified_box{box.x + x, box.y + y, box.t + t, dx, dy, dt});
            });
        });
    });
}

// Elements of a box where they lie: in the source itself, or in the copy of a piece.
struct located {
    const std::byte *first = nullptr;
    std::size_t row_stride = 0;
    std::size_t frame_stride = 0;
    std::unique_lock<std::recursive_mutex> lock; // of the source

    const std::byte *row(int y, int t) const {
        return first + count_of(y) * row_stride + count_of(t) * frame_stride;
    }
    bool packed(const unified_box &b, std::size_t size) const {
        return (b.dy * static_cast<long long>(b.dt) == 1 || row_stride == count_of(b.dx) * size) &&
               (b.dt == 1 || frame_stride == count_of(b.dy) * row_stride);
    }
};

struct raw_deleter {
    void operator()(std::byte *p) const { ::operator delete(p); }
};

class reading {
  public:
    reading(int cn, const read_request &request, _unif_format &format, UnifOutput &output)
        : cn_(cn), request_(request), format_(format), output_(output),
          source_(unified_info_of(request.handle).value_or(unified_info())) {}

    int prepare();
    int run(std::size_t piece_bytes);

  private:
    unified_box choose_piece(std::size_t piece_bytes);
    void announce(const unified_box &piece) const;
    int read_piece(const unified_box &piece);
    int fill_buffer(const unified_box &piece);
    int emit(const unified_box &piece);
    int emit_block(const unified_box &piece, const unified_box &block);
    bool locate(const unified_box &piece, const unified_box &block, located &where) const;
    void change(const std::byte *from, std::byte *to, const unified_box &block, int y, int t);
    int write(const std::byte *elements, const unified_box &block);
    void show_progress(bool always);
    int source_gone() const;
    int failed(const char *what) const;

    int cn_;
    const read_request &request_;
    _unif_format &format_;
    UnifOutput &output_;
    unified_info source_;
    corrector corrector_;
    std::vector<double> row_;                        // a row on its way through the corrections
    std::vector<std::byte> scratch_;                 // a changed block
    std::unique_ptr<std::byte, raw_deleter> buffer_; // a piece that could not be had in place
    int source_type_ = el_none;
    std::size_t source_size_ = 0;
    bool use_readgel_ = false;
    bool unchanged_ = false; // elements leave as they are
    bool in_place_ = false;  // and are taken where they lie
    int cuts_ = cut_guard_count();
    long long done_ = 0; // elements that have left
    std::chrono::steady_clock::time_point shown_ = std::chrono::steady_clock::now();
};

int reading::prepare() {
    use_readgel_ = format_.type == form_type::gel && source_.reads_gel;
    source_type_ = use_readgel_ ? static_cast<int>(el_short) : source_.data_type;
    source_size_ = count_of(element_size(source_type_));
    const int to_type = format_.needs_conversion != 0 ? format_.data_type_required : source_type_;
    if (corrector_.prepare(cn_, request_.handle, request_.box, request_.dead_time) != 0)
        return -1;
    const bool computed = request_.scale.active || corrector_.active();
    if (computed && to_type == el_int48) {
        sv_printf(cn_,
                  "! int48 data can only be scaled or corrected when they become long, float or double\n");
        return -1;
    }
    if (format_.startfn(request_.box, to_type, output_) < 0) {
        sv_printf(cn_, "! Failed when calling the initialization function for this output format.\n");
        return -1;
    }
    output_.source_fd = unified_source_file(request_.handle);
    if (output_.init(format_) < 0) {
        const int error = errno;
        format_.stopfn(true);
        sv_printf(cn_, "! Error when opening a file or a module (errno %d).\n", error);
        return -1;
    }
    unchanged_ = source_type_ == to_type && !computed && (request_.swap_bytes == 0 || source_size_ == 1);
    const auto look = use_readgel_ ? std::nullopt : unified_look_at(request_.handle, request_.box);
    in_place_ = look && (output_.owner() == nullptr || look->owner != output_.owner());
    return 0;
}

// ---- pieces

// The piece to read at a time, and the memory for it where the source cannot be looked at in place. A piece
// of no elements means that there is none.
unified_box reading::choose_piece(std::size_t piece_bytes) {
    const unified_box &box = request_.box;
    const bool columns = format_.transpose_read != 0;
    // Source and destination may be one module: then all is read before anything is written.
    if (!in_place_ && output_.owner() != nullptr && source_.shows_elements)
        piece_bytes = SIZE_MAX;
    for (std::size_t limit = piece_bytes / source_size_;; limit /= 2) {
        const unified_box piece = part_of(box, limit, columns);
        if (in_place_)
            return piece;
        const std::size_t count = elements_of(piece);
        buffer_.reset(static_cast<std::byte *>(::operator new(count *source_size_, std::nothrow)));
        if (buffer_)
            return piece;
        if (dimensions_of(box) == 0) {
            sv_printf(cn_, "! Currently we must be able to allocate enough memory for complete 0D images\n");
            return {};
        }
        if (piece_bytes == SIZE_MAX || limit == 0) {
            sv_printf(cn_, "! Failed to allocate enough memory even for one pixel (1D) or line (2D/3D).\n");
            return {};
        }
    }
}

void reading::announce(const unified_box &piece) const {
    const unified_box &box = request_.box;
    if (elements_of(piece) == elements_of(box)) {
        sv_printf(cn_, "# Got RAM required in one go (%zu bytes).\n", elements_of(box) * source_size_);
        return;
    }
    const int cut = piece.dx != box.dx ? 1 : piece.dy != box.dy ? 2 : 3;
    sv_printf(cn_, "# Reading image in pieces.\n# Dimension %d, blk_dx=%d, blk_dy %d, blk_dt=%d.\n", cut,
              piece.dx, piece.dy, piece.dt);
}

int reading::run(std::size_t piece_bytes) {
    const unified_box piece = choose_piece(piece_bytes);
    if (elements_of(piece) == 0)
        return -1;
    announce(piece);
    return for_each_part(request_.box, piece, [&](const unified_box &now) { return read_piece(now); });
}

int reading::read_piece(const unified_box &piece) {
    located where;
    if (!locate(piece, piece, where))
        return source_gone();
    sv_printf(cn_, "# Calling read with path %d, mem 0x%X, (%d,%d,%d), (%d,%d,%d)\n", source_.path,
              static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(where.first)), piece.x, piece.y, piece.t,
              piece.dx, piece.dy, piece.dt);
    where = {};
    if (!in_place_ && fill_buffer(piece) != 0)
        return failed("read");
    sv_printf(cn_, "# Calling processing, do_scaling=%d, do_convert=%d, swap_bytes=%d\n",
              request_.scale.active ? 1 : 0, source_type_ != format_.data_type ? 1 : 0, request_.swap_bytes);
    sv_printf(cn_, "# Calling Write\n");
    if (emit(piece) != 0)
        return -1;
    if (cut_guard_count() != cuts_)
        return source_gone();
    show_progress(true);
    sv_printf(cn_, "# Finished write\n");
    return 0;
}

int reading::fill_buffer(const unified_box &b) {
    sv_flush_all(cn_);
    if (!use_readgel_)
        return app_unified_read(cn_, request_.handle, buffer_.get(), b.x, b.y, b.t, b.dx, b.dy, b.dt);
    return unified_read_gel(request_.handle, buffer_.get(), b);
}

// ---- blocks

int reading::emit(const unified_box &piece) {
    const std::size_t bytes = unchanged_ ? unchanged_block : changed_block;
    const unified_box block = part_of(piece, bytes / source_size_, format_.transpose_read != 0);
    return for_each_part(piece, block, [&](const unified_box &now) { return emit_block(piece, now); });
}

bool reading::locate(const unified_box &piece, const unified_box &block, located &where) const {
    if (in_place_) {
        auto look = unified_look_at(request_.handle, block);
        if (!look)
            return false;
        where = {look->first, look->row_stride, look->frame_stride, std::move(look->lock)};
        return true;
    }
    where.row_stride = count_of(piece.dx) * source_size_;
    where.frame_stride = count_of(piece.dy) * where.row_stride;
    where.first = buffer_.get() + count_of(block.x - piece.x) * source_size_;
    where.first = where.row(block.y - piece.y, block.t - piece.t);
    return true;
}

int reading::emit_block(const unified_box &piece, const unified_box &block) {
    located where;
    if (!locate(piece, block, where))
        return source_gone();
    if (unchanged_ && where.packed(block, source_size_))
        return write(where.first, block);
    const auto row_bytes = count_of(block.dx) * count_of(format_.size);
    scratch_.resize(row_bytes * count_of(block.dy) * count_of(block.dt));
    std::byte *to = scratch_.data();
    for (int t = 0; t < block.dt; ++t)
        for (int y = 0; y < block.dy; ++y, to += row_bytes)
            change(where.row(y, t), to, block, y, t);
    if (where.lock.owns_lock())
        where.lock.unlock();
    return write(scratch_.data(), block);
}

// One row of a block: corrections, conversion with scaling, byte order.
void reading::change(const std::byte *from, std::byte *to, const unified_box &block, int y, int t) {
    const std::size_t count = count_of(block.dx);
    if (corrector_.active()) {
        row_.resize(count);
        convert_elements(from, source_type_, row_.data(), el_double, count);
        corrector_.apply(row_, block.x, block.y + y, block.t + t);
        convert_elements(row_.data(), el_double, to, format_.data_type, count, request_.scale);
    } else {
        convert_elements(from, source_type_, to, format_.data_type, count, request_.scale);
    }
    if (request_.swap_bytes != 0)
        swap_elements(to, count, format_.data_type);
}

int reading::write(const std::byte *elements, const unified_box &block) {
    if (sv_poll_quit(cn_) != 0) {
        sv_printf(cn_, "! Read interrupted\n");
        return failed("write");
    }
    if (format_.writefn(elements, block.dx, block.dy, block.dt) != 0)
        return failed("write");
    done_ += static_cast<long long>(elements_of(block));
    show_progress(false);
    return 0;
}

void reading::show_progress(bool always) {
    const auto now = std::chrono::steady_clock::now();
    if (!always && now - shown_ < progress_interval)
        return;
    shown_ = now;
    // Counted in lines, elements where there is but one, in so many at a time that the numbers fit.
    const auto total = static_cast<long long>(elements_of(request_.box));
    const long long line = total == request_.box.dx ? 1 : request_.box.dx;
    const long long unit = std::max(line, (total - 1) / INT_MAX + 1);
    sv_timebar(cn_, static_cast<int>(done_ / unit), static_cast<int>(total / unit), "Outputing Data");
}

int reading::source_gone() const {
    sv_printf(cn_, "! The source's data are no longer there, or no longer as large\n");
    return failed("read");
}

int reading::failed(const char *what) const {
    sv_printf(cn_, "! Error during %s\n", what);
    return -1;
}

} // namespace

int run_read(int cn, const read_request &request, _unif_format &format, UnifOutput &output,
             std::size_t piece_bytes) {
    reading now(cn, request, format, output);
    if (now.prepare() != 0)
        return -1;
    bool ok = false;
    try {
        ok = now.run(piece_bytes) == 0;
    } catch (const std::bad_alloc &) { // ends the command above; nothing half made stays
        format.stopfn(true);
        output.term(true);
        throw;
    }
    ok = format.stopfn(!ok) == 0 && ok;
    ok = output.term(!ok) == 0 && ok;
    return ok ? 0 : -1;
}

} // namespace kestrel
