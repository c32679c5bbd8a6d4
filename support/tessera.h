// support: the detector image container, an HDF5 file that standard NeXus tools open. Over the HDF5 library;
// used by one thread at a time.
//
// What is written:  /entry            NXentry, @default "data"
//                   /entry/title      text
//                   /entry/data       NXdata, @signal "data"
//                   /entry/data/data  [nt][ny][nx] ([ny][nx] for one frame), @data_type 4, 1 or 3
//                   /entry/details    NXcollection of the source's own texts, if it has any
// What is read: such a file, or the first 2-D or 3-D numeric dataset (by name) of any HDF5 file.
#pragma once

#include "support/element.h"

#include <cstddef>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kestrel {

// The container's own numbers for its element types.
enum class tessera_type : int { float32 = 1, float64 = 3, uint16 = 4 };

// Names and values that a source adds to the header.
using tessera_details = std::vector<std::pair<std::string, std::string>>;

// An HDF5 identifier and the call that gives it back.
class tessera_id {
  public:
    using closer = int (*)(long);
    tessera_id() = default;
    tessera_id(long id, closer close) : id_(id), close_(close) {}
    tessera_id(tessera_id &&other) noexcept : id_(std::exchange(other.id_, -1)), close_(other.close_) {}
    tessera_id &operator=(tessera_id &&other) noexcept {
        std::swap(id_, other.id_);
        std::swap(close_, other.close_);
        return *this;
    }
    tessera_id(const tessera_id &) = delete;
    tessera_id &operator=(const tessera_id &) = delete;
    ~tessera_id() { close(); }

    long get() const { return id_; }
    bool ok() const { return id_ >= 0; }
    int close() { return id_ >= 0 ? close_(std::exchange(id_, -1)) : 0; }

  private:
    long id_ = -1;
    closer close_ = nullptr;
};

struct tessera_shape {
    int nx = 0;
    int ny = 0;
    int nt = 0;
};

class tessera_writer {
  public:
    // Makes the file anew. False when it cannot be made.
    bool open(const std::string &name, tessera_type type, tessera_shape shape, const std::string &title,
              const tessera_details &details = {});
    // The next elements in the order x, y, t; a multiple of nx of them. False past the end or on failure.
    bool write(const void *elements, std::size_t count);
    bool close(); // false when something did not reach the file
    // Lines of nx elements written and to be written.
    long long lines_written() const { return next_line_; }
    long long lines_total() const { return static_cast<long long>(shape_.ny) * shape_.nt; }

  private:
    bool write_lines(const std::byte *at, int frame, int line, int lines);

    std::string name_;
    tessera_id file_;
    tessera_id data_;
    tessera_shape shape_;
    tessera_type type_ = tessera_type::float32;
    long long next_line_ = 0;
};

class tessera_reader {
  public:
    // The cause of a failure is left in `error`, in words.
    // `dataset`: which to read; empty for the one that is found.
    bool open(const std::string &name, const std::string &dataset, std::string &error);
    tessera_shape shape() const { return shape_; }
    element_type type() const { return type_; } // the type that read() hands out
    const std::string &dataset() const { return dataset_; }
    // Fills the buffer with a box, x fastest, then y, then t. The box must lie within the shape.
    bool read(void *buffer, int x, int y, int t, int dx, int dy, int dt) const;
    // Reads everything once and keeps nothing: whether it can be read.
    bool read_all(std::string &error) const;

  private:
    tessera_shape piece() const;
    bool open_dataset(const std::string &dataset, std::string &error);
    bool take_dataset(std::string &error);

    tessera_id file_;
    tessera_id data_;
    tessera_shape shape_;
    element_type type_ = el_none;
    int rank_ = 0;
    std::string dataset_;
};

} // namespace kestrel
