// Data files as sources of unified handles: file open and file close.
#include "files/ascii_file.h"
#include "files/commands.h"
#include "parser/call.h"
#include "server/output.h"
#include "support/byte_order.h"
#include "support/fd.h"
#include "support/file_io.h"
#include "support/tessera.h"
#include "unified/handles/handles.h"

#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrel {

namespace {

enum qualifier : int {
    q_ascii,
    q_ascii_id,
    q_raw,
    q_tessera,
    q_nx,
    q_ny,
    q_nt,
    q_byte,
    q_short,
    q_long,
    q_float,
    q_double,
    q_int48,
    q_int64,
    q_intel,
    q_motorola,
    q_skip,
};

constexpr unsigned bit(int q) {
    return 1U << q;
}
constexpr unsigned form_bits = bit(q_ascii) | bit(q_ascii_id) | bit(q_raw) | bit(q_tessera);
constexpr unsigned type_bits =
    bit(q_byte) | bit(q_short) | bit(q_long) | bit(q_float) | bit(q_double) | bit(q_int48) | bit(q_int64);
constexpr unsigned order_bits = bit(q_intel) | bit(q_motorola);
constexpr unsigned raw_only_bits = type_bits | order_bits | bit(q_nx) | bit(q_ny) | bit(q_skip);

struct raw_layout {
    std::int64_t skip = 0;
    bool swap = false;
};

// An open file: one of the three kinds holds something.
struct data_file {
    int handle = -1;
    std::string name;
    int nx = 0, ny = 0, nt = 1;
    int type = el_none;
    std::vector<double> values; // ASCII: all of it
    unique_fd fd;               // raw and image: read where and when it is asked for
    raw_layout raw;
    std::unique_ptr<tessera_reader> tessera;
};

std::array<std::unique_ptr<data_file>, unified_max_handles> files;

std::size_t count_of(int n) {
    return static_cast<std::size_t>(n);
}

data_file *file_of(int path) {
    return path >= 0 && path < unified_max_handles ? files[count_of(path)].get() : nullptr;
}

int fault(int cn, const std::string &name, const std::string &cause) {
    sv_print(cn, "! ERROR: file '" + name + "': " + cause + "\n");
    return -1;
}

// ---- reading: ASCII

int ascii_place(int path, unified_place *place) {
    const data_file *file = file_of(path);
    if (file == nullptr)
        return -1;
    place->first = reinterpret_cast<const std::byte *>(file->values.data());
    place->row_stride = count_of(file->nx) * sizeof(double);
    place->frame_stride = place->row_stride * count_of(file->ny);
    place->nx = file->nx;
    place->ny = file->ny;
    place->nt = file->nt;
    place->owner = file->values.data();
    return 0;
}

int ascii_read(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const data_file *file = file_of(path);
    if (file == nullptr)
        return -1;
    auto *out = static_cast<double *>(buffer);
    for (int ti = t; ti < t + dt; ++ti)
        for (int yi = y; yi < y + dy; ++yi, out += dx) {
            const std::size_t row = count_of(ti) * count_of(file->ny) + count_of(yi);
            std::memcpy(out, &file->values[row * count_of(file->nx) + count_of(x)],
                        count_of(dx) * sizeof(double));
        }
    return 0;
}

// ---- reading: raw

bool read_at(const data_file &file, std::byte *to, std::size_t bytes, std::int64_t offset) {
    while (bytes > 0) {
        const ssize_t got = ::pread(file.fd.get(), to, bytes, offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            unified_explain("file '%s': %s at byte %lld", file.name.c_str(),
                            got < 0 ? std::strerror(errno) : "ends", static_cast<long long>(offset));
            return false;
        }
        to += got;
        bytes -= static_cast<std::size_t>(got);
        offset += got;
    }
    return true;
}

int raw_read(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const data_file *file = file_of(path);
    if (file == nullptr)
        return -1;
    const auto size = static_cast<std::int64_t>(element_size(file->type));
    auto *out = static_cast<std::byte *>(buffer);
    // Whole rows, and whole frames, lie together.
    const bool rows = dx == file->nx;
    const bool frames = rows && dy == file->ny;
    const int step_y = rows ? dy : 1;
    const int step_t = frames ? dt : 1;
    const std::size_t run =
        count_of(dx) * count_of(step_y) * count_of(step_t) * static_cast<std::size_t>(size);
    for (int ti = t; ti < t + dt; ti += step_t)
        for (int yi = y; yi < y + dy; yi += step_y, out += run) {
            const std::int64_t element = (static_cast<std::int64_t>(ti) * file->ny + yi) * file->nx + x;
            if (!read_at(*file, out, run, file->raw.skip + element * size))
                return -1;
        }
    if (file->raw.swap)
        swap_elements(buffer, count_of(dx) * count_of(dy) * count_of(dt), file->type);
    return 0;
}

// ---- reading: detector image

int image_read(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const data_file *file = file_of(path);
    if (file == nullptr)
        return -1;
    if (file->tessera->read(buffer, x, y, t, dx, dy, dt))
        return 0;
    unified_explain("file '%s': cannot read dataset %s", file->name.c_str(),
                    file->tessera->dataset().c_str());
    return -1;
}

int file_descriptor(int path) {
    const data_file *file = file_of(path);
    return file != nullptr ? file->fd.get() : -1;
}

void file_destroy(int path, int) {
    if (file_of(path) != nullptr)
        files[count_of(path)].reset();
}

constexpr unified_source ascii_source = {.read = ascii_read, .destroy = file_destroy, .place = ascii_place};
constexpr unified_source raw_source = {.read = raw_read, .destroy = file_destroy, .file = file_descriptor};
constexpr unified_source image_source = {
    .read = image_read, .destroy = file_destroy, .file = file_descriptor};

// ---- opening

int open_data(int cn, const std::string &name, unique_fd &fd, std::int64_t &size) {
    fd = open_regular(name.c_str(), O_RDONLY);
    struct stat status {};
    if (!fd && errno == ENOTSUP)
        return fault(cn, name, "is not a regular file");
    if (!fd || ::fstat(fd.get(), &status) != 0)
        return fault(cn, name, std::strerror(errno));
    size = status.st_size;
    return 0;
}

int open_ascii(int cn, data_file &file, bool id_row, int frames) {
    unique_fd fd;
    std::int64_t size = 0;
    if (open_data(cn, file.name, fd, size) != 0)
        return -1;
    ascii_table table;
    std::string error;
    const auto read = [&fd](std::span<char> block) {
        return static_cast<long>(read_some(fd.get(), block.data(), block.size()));
    };
    if (!read_ascii(read, id_row, table, error))
        return fault(cn, file.name, error);
    if (frames < 1 || table.ny % frames != 0 || (id_row && frames != 1))
        return fault(cn, file.name,
                     std::to_string(table.ny) + " rows cannot be " + std::to_string(frames) + " frames");
    file.nx = table.nx;
    file.ny = table.ny / frames;
    file.nt = frames;
    file.type = el_double;
    file.values = std::move(table.values);
    return 0;
}

constexpr int raw_types[] = {el_byte, el_short, el_long, el_float, el_double, el_int48, el_int64};

int open_raw(int cn, data_file &file, unsigned quals) {
    if (std::popcount(quals & type_bits) != 1 || (quals & bit(q_nx)) == 0 ||
        (quals & order_bits) == order_bits)
        return fault(cn, file.name, "raw data need nx, one element type and at most one byte order");
    const auto value = [quals](qualifier q, int otherwise) {
        return (quals & bit(q)) != 0 ? Qualifier[q].IntArg : otherwise;
    };
    file.nx = value(q_nx, 1);
    file.ny = value(q_ny, 1);
    file.nt = value(q_nt, 1);
    file.type = raw_types[std::countr_zero(quals & type_bits) - q_byte];
    file.raw.skip = value(q_skip, 0);
    file.raw.swap = (quals & bit(machine_is_intel ? q_motorola : q_intel)) != 0;
    if (file.nx < 1 || file.ny < 1 || file.nt < 1 || file.raw.skip < 0)
        return fault(cn, file.name, "sizes must be at least 1, and what is skipped at least 0");
    std::int64_t have = 0;
    if (open_data(cn, file.name, file.fd, have) != 0)
        return -1;
    std::int64_t need = element_size(file.type);
    for (const int size : {file.nx, file.ny, file.nt})
        if (__builtin_mul_overflow(need, size, &need))
            return fault(cn, file.name, "sizes are too large for any file");
    if (__builtin_add_overflow(need, file.raw.skip, &need) || have < need)
        return fault(cn, file.name, "ends at byte " + std::to_string(have) + " of " + std::to_string(need));
    if (have > need)
        sv_print(cn, "# Warning: file '" + file.name + "' has " + std::to_string(have - need) +
                         " bytes after the data\n");
    return 0;
}

int open_image(int cn, data_file &file) {
    std::int64_t size = 0;
    if (open_data(cn, file.name, file.fd, size) != 0)
        return -1;
    file.tessera = std::make_unique<tessera_reader>();
    std::string error;
    if (!file.tessera->open(file.name, error))
        return fault(cn, file.name, error);
    const tessera_shape shape = file.tessera->shape();
    file.nx = shape.nx;
    file.ny = shape.ny;
    file.nt = shape.nt;
    file.type = file.tessera->type();
    return 0;
}

int open_as(int cn, data_file &file, unsigned quals) {
    if (std::popcount(quals & form_bits) != 1) {
        sv_printf(cn, "! Must specify one and only one of ascii, ascii-id, raw or tessera\n");
        return -1;
    }
    const bool raw = (quals & bit(q_raw)) != 0;
    if (!raw && (quals & raw_only_bits) != 0)
        return fault(cn, file.name, "sizes, element type and byte order are given for raw data only");
    if (raw)
        return open_raw(cn, file, quals);
    if ((quals & bit(q_tessera)) != 0)
        return (quals & bit(q_nt)) != 0 ? fault(cn, file.name, "has its number of frames in it")
                                        : open_image(cn, file);
    const int frames = (quals & bit(q_nt)) != 0 ? Qualifier[q_nt].IntArg : 1;
    return open_ascii(cn, file, (quals & bit(q_ascii_id)) != 0, frames);
}

const unified_source &source_of(const data_file &file) {
    return file.tessera ? image_source : file.fd ? raw_source : ascii_source;
}

} // namespace

int file_open(int quals, int cn, const char *name) {
    std::size_t path = 0;
    while (path < files.size() && files[path])
        ++path;
    if (path == files.size()) {
        sv_printf(cn, "! No free file path, please close some\n");
        return -1;
    }
    auto file = std::make_unique<data_file>();
    file->name = name;
    if (open_as(cn, *file, static_cast<unsigned>(quals)) != 0)
        return -1;
    file->handle = unified_open(cn, static_cast<int>(path), file->nx, file->ny, file->nt, file->type, name,
                                source_of(*file));
    if (file->handle < 0)
        return -1;
    files[path] = std::move(file);
    return files[path]->handle;
}

int file_close(int, int cn, int handle) {
    for (const auto &file : files)
        if (file && file->handle == handle)
            return unified_close_and_destroy(cn, handle);
    sv_printf(cn, "! Handle %d is not a file\n", handle);
    return -1;
}

} // namespace kestrel
