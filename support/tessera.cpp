#include "support/tessera.h"

#include "support/fd.h"
#include "support/hdf5_parts.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <hdf5.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr std::size_t header_room = 64 * 1024; // for groups, attributes, texts

// Has the disk keep room for the file, without making it longer. The library cannot be trusted with a file
// system that fills up between its writes. A file system that cannot promise is taken at its word.
bool reserve(const std::string &name, std::size_t bytes) {
    const unique_fd fd(::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (!fd)
        return false;
    return ::fallocate(fd.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(bytes)) == 0 ||
           errno == EOPNOTSUPP;
}

// Gives back what was reserved and not used.
void give_back(const std::string &name) {
    struct stat status {};
    if (::stat(name.c_str(), &status) == 0)
        static_cast<void>(!::truncate(name.c_str(), status.st_size));
}

bool put_int(hid_t place, const char *name, int value) {
    const auto space = hdf5_own<H5Sclose>(H5Screate(H5S_SCALAR));
    const auto id =
        hdf5_own<H5Aclose>(H5Acreate2(place, name, H5T_NATIVE_INT, space.get(), H5P_DEFAULT, H5P_DEFAULT));
    return id.ok() && H5Awrite(id.get(), H5T_NATIVE_INT, &value) >= 0;
}

bool put_details(hid_t entry, const tessera_details &details) {
    if (details.empty())
        return true;
    const auto group = hdf5_group(entry, "details", "NXcollection");
    if (!group.ok())
        return false;
    for (const auto &[name, value] : details)
        if (!hdf5_text(group.get(), name.c_str(), value, false))
            return false;
    return true;
}

hid_t file_type(tessera_type type) {
    switch (type) {
    case tessera_type::uint16:
        return H5T_STD_U16LE;
    case tessera_type::float64:
        return H5T_IEEE_F64LE;
    default:
        return H5T_IEEE_F32LE;
    }
}

hid_t memory_type(tessera_type type) {
    switch (type) {
    case tessera_type::uint16:
        return H5T_NATIVE_UINT16;
    case tessera_type::float64:
        return H5T_NATIVE_DOUBLE;
    default:
        return H5T_NATIVE_FLOAT;
    }
}

hid_t memory_type(element_type type) {
    switch (type) {
    case el_byte:
        return H5T_NATIVE_UINT8;
    case el_short:
        return H5T_NATIVE_UINT16;
    case el_long:
        return H5T_NATIVE_UINT32;
    case el_int64:
        return H5T_NATIVE_INT64;
    case el_float:
        return H5T_NATIVE_FLOAT;
    default:
        return H5T_NATIVE_DOUBLE;
    }
}

std::size_t element_bytes(tessera_type type) {
    return type == tessera_type::uint16 ? 2 : type == tessera_type::float64 ? 8 : 4;
}

} // namespace

bool tessera_writer::open(const std::string &name, tessera_type type, tessera_shape shape,
                          const std::string &title, const tessera_details &details) {
    hdf5_quiet();
    shape_ = shape;
    type_ = type;
    next_line_ = 0;
    name_ = name;
    const std::size_t bytes =
        static_cast<std::size_t>(lines_total()) * static_cast<std::size_t>(shape.nx) * element_bytes(type) +
        header_room;
    if (!reserve(name, bytes))
        return false;
    file_ = hdf5_own<H5Fclose>(H5Fcreate(name.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT));
    if (!file_.ok() || !reserve(name, bytes) || !hdf5_text(file_.get(), "default", "entry", true))
        return false;
    const auto entry = hdf5_group(file_.get(), "entry", "NXentry");
    if (!entry.ok() || !hdf5_text(entry.get(), "default", "data", true) ||
        !hdf5_text(entry.get(), "title", title, false) || !put_details(entry.get(), details))
        return false;
    const auto group = hdf5_group(entry.get(), "data", "NXdata");
    if (!group.ok() || !hdf5_text(group.get(), "signal", "data", true))
        return false;
    const int rank = shape.nt > 1 ? 3 : 2;
    const hsize_t dims[3] = {static_cast<hsize_t>(shape.nt), static_cast<hsize_t>(shape.ny),
                             static_cast<hsize_t>(shape.nx)};
    const auto space = hdf5_own<H5Sclose>(H5Screate_simple(rank, dims + (3 - rank), nullptr));
    data_ = hdf5_own<H5Dclose>(
        H5Dcreate2(group.get(), "data", file_type(type), space.get(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
    return data_.ok() && put_int(data_.get(), "data_type", static_cast<int>(type));
}

bool tessera_writer::write_lines(const std::byte *at, int frame, int line, int lines) {
    const int rank = shape_.nt > 1 ? 3 : 2;
    const hsize_t start[3] = {static_cast<hsize_t>(frame), static_cast<hsize_t>(line), 0};
    const hsize_t count[3] = {1, static_cast<hsize_t>(lines), static_cast<hsize_t>(shape_.nx)};
    const auto in_file = hdf5_own<H5Sclose>(H5Dget_space(data_.get()));
    const auto in_memory = hdf5_own<H5Sclose>(H5Screate_simple(2, count + 1, nullptr));
    return H5Sselect_hyperslab(in_file.get(), H5S_SELECT_SET, start + (3 - rank), nullptr, count + (3 - rank),
                               nullptr) >= 0 &&
           H5Dwrite(data_.get(), memory_type(type_), in_memory.get(), in_file.get(), H5P_DEFAULT, at) >= 0;
}

bool tessera_writer::write(const void *elements, std::size_t count) {
    const auto *at = static_cast<const std::byte *>(elements);
    const auto width = static_cast<std::size_t>(shape_.nx);
    if (!data_.ok() || width == 0 || count % width != 0)
        return false;
    auto lines = static_cast<long long>(count / width);
    if (next_line_ + lines > lines_total())
        return false;
    while (lines > 0) {
        const int line = static_cast<int>(next_line_ % shape_.ny);
        const int here = static_cast<int>(std::min<long long>(lines, shape_.ny - line));
        if (!write_lines(at, static_cast<int>(next_line_ / shape_.ny), line, here))
            return false;
        at += static_cast<std::size_t>(here) * width * element_bytes(type_);
        next_line_ += here;
        lines -= here;
    }
    return true;
}

bool tessera_writer::close() {
    const bool data = data_.close() >= 0;
    const bool file = file_.close() >= 0;
    give_back(name_);
    return data && file;
}

// ---- reading

namespace {

// Numeric elements as one of our types: unsigned integers stay what they are, signed ones become doubles
// (which hold 32 bits exactly) or 64-bit integers, half floats become floats.
element_type our_type(hid_t type) {
    const H5T_class_t kind = H5Tget_class(type);
    const std::size_t size = H5Tget_size(type);
    if (kind == H5T_FLOAT)
        return size <= 4 ? el_float : el_double;
    if (kind != H5T_INTEGER)
        return el_none;
    if (size > 4)
        return el_int64;
    if (H5Tget_sign(type) != H5T_SGN_NONE)
        return el_double;
    return size == 1 ? el_byte : size == 2 ? el_short : el_long;
}

struct search {
    std::string found;
};

bool is_image(hid_t dataset) {
    const auto space = hdf5_own<H5Sclose>(H5Dget_space(dataset));
    const int rank = H5Sget_simple_extent_ndims(space.get());
    const auto type = hdf5_own<H5Tclose>(H5Dget_type(dataset));
    return (rank == 2 || rank == 3) && type.ok() && our_type(type.get()) != el_none;
}

herr_t look_at(hid_t root, const char *name, const H5O_info_t *info, void *user) {
    if (info->type != H5O_TYPE_DATASET)
        return 0;
    const auto dataset = hdf5_own<H5Dclose>(H5Dopen2(root, name, H5P_DEFAULT));
    if (!dataset.ok() || !is_image(dataset.get()))
        return 0;
    static_cast<search *>(user)->found = name;
    return 1;
}

} // namespace

bool tessera_reader::take_dataset(std::string &error) {
    // Data in other files: any file of the machine, a pipe to wait at, or a missing one that would read as
    // zeros.
    const auto made = hdf5_own<H5Pclose>(H5Dget_create_plist(data_.get()));
    if (H5Pget_external_count(made.get()) != 0 || H5Pget_layout(made.get()) == H5D_VIRTUAL) {
        error = "dataset " + dataset_ + " keeps its data in other files";
        return false;
    }
    const auto space = hdf5_own<H5Sclose>(H5Dget_space(data_.get()));
    const auto type = hdf5_own<H5Tclose>(H5Dget_type(data_.get()));
    rank_ = H5Sget_simple_extent_ndims(space.get());
    hsize_t dims[3] = {1, 1, 1};
    if ((rank_ != 2 && rank_ != 3) ||
        H5Sget_simple_extent_dims(space.get(), dims + (3 - rank_), nullptr) < 0) {
        error = "cannot read the size of dataset " + dataset_;
        return false;
    }
    for (const hsize_t dim : dims)
        if (dim == 0 || dim > INT_MAX) {
            error = "dataset " + dataset_ + " has a dimension of " + std::to_string(dim);
            return false;
        }
    shape_ = {static_cast<int>(dims[2]), static_cast<int>(dims[1]), static_cast<int>(dims[0])};
    type_ = our_type(type.get());
    return true;
}

bool tessera_reader::open(const std::string &name, const std::string &dataset, std::string &error) {
    hdf5_quiet();
    file_ = hdf5_own<H5Fclose>(H5Fopen(name.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT));
    if (!file_.ok()) {
        error = "cannot be opened as an HDF5 file";
        return false;
    }
    if (!dataset.empty())
        return open_dataset(dataset, error);
    search s;
    H5Ovisit2(file_.get(), H5_INDEX_NAME, H5_ITER_INC, look_at, &s, H5O_INFO_BASIC);
    if (s.found.empty()) {
        error = "holds no 2-D or 3-D numeric dataset";
        return false;
    }
    return open_dataset("/" + s.found, error);
}

bool tessera_reader::open_dataset(const std::string &dataset, std::string &error) {
    dataset_ = dataset;
    data_ = hdf5_own<H5Dclose>(H5Dopen2(file_.get(), dataset.c_str(), H5P_DEFAULT));
    if (!data_.ok() || !is_image(data_.get())) {
        error = "has no 2-D or 3-D numeric dataset '" + dataset + "'";
        return false;
    }
    return take_dataset(error);
}

bool tessera_reader::read(void *buffer, int x, int y, int t, int dx, int dy, int dt) const {
    const hsize_t start[3] = {static_cast<hsize_t>(t), static_cast<hsize_t>(y), static_cast<hsize_t>(x)};
    const hsize_t count[3] = {static_cast<hsize_t>(dt), static_cast<hsize_t>(dy), static_cast<hsize_t>(dx)};
    const int skip = 3 - rank_;
    const auto in_file = hdf5_own<H5Sclose>(H5Dget_space(data_.get()));
    const auto in_memory = hdf5_own<H5Sclose>(H5Screate_simple(3, count, nullptr));
    return H5Sselect_hyperslab(in_file.get(), H5S_SELECT_SET, start + skip, nullptr, count + skip, nullptr) >=
               0 &&
           H5Dread(data_.get(), memory_type(type_), in_memory.get(), in_file.get(), H5P_DEFAULT, buffer) >= 0;
}

// A box to read in one go: whole chunks, since the library unpacks a chunk anew for each part of it, and as many as
// make reading cheap.
tessera_shape tessera_reader::piece() const {
    constexpr long long enough = 1 << 20; // elements
    const long long all[3] = {shape_.nx, shape_.ny, shape_.nt};
    hsize_t chunk[3] = {1, 1, 1};
    const auto made = hdf5_own<H5Pclose>(H5Dget_create_plist(data_.get()));
    if (H5Pget_layout(made.get()) == H5D_CHUNKED)
        H5Pget_chunk(made.get(), rank_, chunk + (3 - rank_));
    long long box[3];
    for (int i = 0; i < 3; ++i)
        box[i] = std::min(static_cast<long long>(chunk[2 - i]), all[i]);
    for (int i = 0; i < 3; ++i) {
        const long long others = box[(i + 1) % 3] * box[(i + 2) % 3];
        const long long times = std::max(1LL, enough / std::max(1LL, others * box[i]));
        box[i] = std::min(box[i] * times, all[i]);
    }
    return {static_cast<int>(box[0]), static_cast<int>(box[1]), static_cast<int>(box[2])};
}

bool tessera_reader::read_all(std::string &error) const {
    const auto [nx, ny, nt] = piece();
    const auto buffer = std::make_unique_for_overwrite<std::byte[]>(
        static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny) * static_cast<std::size_t>(nt) *
        static_cast<std::size_t>(element_size(type_)));
    for (long long t = 0; t < shape_.nt; t += nt)
        for (long long y = 0; y < shape_.ny; y += ny)
            for (long long x = 0; x < shape_.nx; x += nx)
                if (!read(buffer.get(), static_cast<int>(x), static_cast<int>(y), static_cast<int>(t),
                          static_cast<int>(std::min<long long>(nx, shape_.nx - x)),
                          static_cast<int>(std::min<long long>(ny, shape_.ny - y)),
                          static_cast<int>(std::min<long long>(nt, shape_.nt - t)))) {
                    error = "cannot read dataset " + dataset_;
                    return false;
                }
    return true;
}

} // namespace kestrel
