// Data files as sources of unified handles: file open and file close.
#include "files/ascii_file.h"
#include "files/commands.h"
#include "files/image_trial.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "support/byte_order.h"
#include "support/fd.h"
#include "support/file_io.h"
#include "support/tessera.h"
#include "unified/handles/handles.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format open_format(
    "%s ascii ascii-id raw tessera nx %d ny %d nt %d byte short long float double int48 int64 intel motorola "
    "skip %d dataset %s = %d");
using open_quals = pt_qualifiers<open_format>;

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

constexpr open_quals::choice<int> raw_types[] = {
    {"byte", el_byte},     {"short", el_short}, {"long", el_long},  {"float", el_float},
    {"double", el_double}, {"int48", el_int48}, {"int64", el_int64}};

bool raw_words_given(const open_quals &q) {
    return q.count({"byte", "short", "long", "float", "double", "int48", "int64", "intel", "motorola", "nx",
                    "ny", "skip"}) > 0;
}

int open_raw(int cn, data_file &file, const open_quals &q) {
    const std::optional<int> type = q.only(raw_types);
    if (!type || !q.given("nx") || q.count({"intel", "motorola"}) > 1)
        return fault(cn, file.name, "raw data need nx, one element type and at most one byte order");
    file.nx = q.number("nx", 1);
    file.ny = q.number("ny", 1);
    file.nt = q.number("nt", 1);
    file.type = *type;
    file.raw.skip = q.number("skip");
    file.raw.swap = machine_is_intel ? q.given("motorola") : q.given("intel");
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

int open_image(int cn, data_file &file, const std::string &dataset) {
    std::int64_t size = 0;
    if (open_data(cn, file.name, file.fd, size) != 0)
        return -1;
    std::string error = try_image(file.fd.get(), dataset);
    if (!error.empty())
        return fault(cn, file.name, error);
    // By its descriptor: the name may stand for another file by now.
    file.tessera = std::make_unique<tessera_reader>();
    if (!file.tessera->open("/proc/self/fd/" + std::to_string(file.fd.get()), dataset, error))
        return fault(cn, file.name, error);
    const tessera_shape shape = file.tessera->shape();
    file.nx = shape.nx;
    file.ny = shape.ny;
    file.nt = shape.nt;
    file.type = file.tessera->type();
    return 0;
}

int open_as(int cn, data_file &file, const open_quals &q) {
    if (q.count({"ascii", "ascii-id", "raw", "tessera"}) != 1) {
        sv_printf(cn, "! Must specify one and only one of ascii, ascii-id, raw or tessera\n");
        return -1;
    }
    if (!q.given("raw") && raw_words_given(q))
        return fault(cn, file.name, "sizes, element type and byte order are given for raw data only");
    if (!q.given("tessera") && q.given("dataset"))
        return fault(cn, file.name, "only an HDF5 file has datasets");
    if (q.given("raw"))
        return open_raw(cn, file, q);
    if (q.given("tessera"))
        return q.given("nt") ? fault(cn, file.name, "has its number of frames in it")
                             : open_image(cn, file, q.text("dataset"));
    return open_ascii(cn, file, q.given("ascii-id"), q.number("nt", 1));
}

const unified_source &source_of(const data_file &file) {
    return file.tessera ? image_source : file.fd ? raw_source : ascii_source;
}

// ---- commands

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
    if (open_as(cn, *file, open_quals(quals)) != 0)
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

} // namespace

constinit const PARSE_TREE row_file_open = pt_command<file_open>(
    "open", open_format, "Open a unified path to a data file",
    "File name/Rows of numbers/Rows of numbers after an identification row/"
    "Binary data of given size and type/Detector image file, or any HDF5 file/Width (raw)/"
    "Height (raw, default 1)/Frames (raw, ascii; default 1)/8-bit data/16-bit data/32-bit data/"
    "floating point data/Double prec floating data/48-bit data/64-bit data/Low byte first (raw)/"
    "High byte first (raw)/Bytes before the data (raw)/Which data (tessera; default the first image)");
constinit const PARSE_TREE row_file_close =
    pt_command<file_close>("close", "%d = %d", "Close a unified path to a data file", "Unified handle");

} // namespace kestrel
