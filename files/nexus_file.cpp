#include "files/nexus_file.h"

#include "support/hdf5_parts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t small_bytes = 4096; // arrays up to this are not worth a chunk
constexpr std::size_t chunk_words = std::size_t{1} << 18;
constexpr unsigned deflate_level = 4;

struct array_type {
    std::string_view name;
    hid_t type; // the machine's own
};

std::array<array_type, 5> array_types() {
    return {{{"u8", H5T_NATIVE_UINT8},
             {"i32", H5T_NATIVE_INT32},
             {"u32", H5T_NATIVE_UINT32},
             {"u64", H5T_NATIVE_UINT64},
             {"f64", H5T_NATIVE_DOUBLE}}};
}

// "3x2x9"; empty for what is none.
std::vector<hsize_t> extent_of(std::string_view text) {
    std::vector<hsize_t> extent;
    for (const char *at = text.data(), *end = at + text.size(); at < end; ++at) {
        hsize_t size = 0;
        const auto [stop, error] = std::from_chars(at, end, size);
        if (error != std::errc() || (stop != end && *stop != 'x'))
            return {};
        extent.push_back(size);
        at = stop;
    }
    return extent;
}

tessera_id compressed(std::span<const hsize_t> chunk) {
    auto plan = hdf5_own<H5Pclose>(H5Pcreate(H5P_DATASET_CREATE));
    H5Pset_chunk(plan.get(), static_cast<int>(chunk.size()), chunk.data());
    H5Pset_shuffle(plan.get());
    H5Pset_deflate(plan.get(), deflate_level);
    return plan;
}

std::string text_of(std::string_view view) {
    return std::string(view);
}

} // namespace

bool nexus_file::fail(const std::string &what) {
    cause_ =
        errno == ENOSPC || errno == EFBIG || errno == EDQUOT ? std::strerror(errno) : "cannot write " + what;
    return false;
}

bool nexus_file::make(const std::string &name) {
    hdf5_quiet();
    errno = 0;
    file_ = hdf5_own<H5Fclose>(H5Fcreate(name.c_str(), H5F_ACC_EXCL, H5P_DEFAULT, H5P_DEFAULT));
    if (file_.ok())
        return true;
    cause_ = errno != 0 ? std::strerror(errno) : "cannot be made";
    return false;
}

bool nexus_file::put_names(const nexus_record &record) {
    std::vector<std::string> names;
    for (std::string_view rest = record.bytes; !rest.empty();) {
        const std::size_t stop = std::min(rest.find('\n'), rest.size());
        names.emplace_back(rest.substr(0, stop));
        rest.remove_prefix(std::min(stop + 1, rest.size()));
    }
    std::vector<const char *> values;
    for (const std::string &name : names)
        values.push_back(name.c_str());
    const hsize_t count = values.size();
    const auto type = hdf5_text_type();
    const auto space = hdf5_own<H5Sclose>(H5Screate_simple(1, &count, nullptr));
    const auto place =
        hdf5_own<H5Oclose>(H5Oopen(file_.get(), text_of(record.words[1]).c_str(), H5P_DEFAULT));
    const auto id = hdf5_own<H5Aclose>(H5Acreate2(place.get(), text_of(record.words[2]).c_str(), type.get(),
                                                  space.get(), H5P_DEFAULT, H5P_DEFAULT));
    return id.ok() && H5Awrite(id.get(), type.get(), values.data()) >= 0;
}

bool nexus_file::put_array(const nexus_record &record, long type) {
    const std::vector<hsize_t> extent = extent_of(record.words[2]);
    std::size_t bytes = H5Tget_size(type);
    for (const hsize_t size : extent)
        bytes *= size;
    if (extent.empty() || bytes != record.bytes.size())
        return false;
    const auto space =
        hdf5_own<H5Sclose>(H5Screate_simple(static_cast<int>(extent.size()), extent.data(), nullptr));
    auto plan = hdf5_own<H5Pclose>(H5Pcreate(H5P_DATASET_CREATE));
    if (bytes > small_bytes) {
        std::vector<hsize_t> chunk = extent;
        const hsize_t row = std::max<hsize_t>(bytes / extent[0] / H5Tget_size(type), 1);
        chunk[0] = std::clamp<hsize_t>(chunk_words / row, 1, extent[0]);
        plan = compressed(chunk);
    }
    const auto id = hdf5_own<H5Dclose>(H5Dcreate2(file_.get(), text_of(record.words[1]).c_str(), type,
                                                  space.get(), H5P_DEFAULT, plan.get(), H5P_DEFAULT));
    return id.ok() && H5Dwrite(id.get(), type, H5S_ALL, H5S_ALL, H5P_DEFAULT, record.bytes.data()) >= 0 &&
           (record.words[3] == "-" || hdf5_text(id.get(), "units", text_of(record.words[3]), true));
}

// The name that a dataset has been given first is its `target`, under all its names.
bool nexus_file::put_link(const nexus_record &record) {
    const std::string path = text_of(record.words[1]), target = text_of(record.words[2]);
    if (H5Lcreate_hard(file_.get(), target.c_str(), file_.get(), path.c_str(), H5P_DEFAULT, H5P_DEFAULT) < 0)
        return false;
    const auto id = hdf5_own<H5Oclose>(H5Oopen(file_.get(), path.c_str(), H5P_DEFAULT));
    return id.ok() && (H5Aexists(id.get(), "target") > 0 || hdf5_text(id.get(), "target", target, true));
}

bool nexus_file::put(const nexus_record &record, bool &known) {
    const auto &words = record.words;
    const auto is = [&words](const char *kind, std::size_t count) {
        return words[0] == kind && words.size() == count;
    };
    errno = 0;
    known = true;
    bool done = false;
    if (is("group", 3))
        done = hdf5_group(file_.get(), text_of(words[1]).c_str(), text_of(words[2]).c_str()).ok();
    else if (is("text", 2))
        done = hdf5_text(file_.get(), text_of(words[1]).c_str(), text_of(record.bytes), false);
    else if (is("attribute", 3)) {
        const auto place = hdf5_own<H5Oclose>(H5Oopen(file_.get(), text_of(words[1]).c_str(), H5P_DEFAULT));
        done = place.ok() && hdf5_text(place.get(), text_of(words[2]).c_str(), text_of(record.bytes), true);
    } else if (is("names", 3))
        done = put_names(record);
    else if (is("link", 3))
        done = put_link(record);
    else {
        const auto types = array_types();
        const auto type = std::ranges::find(types, words[0], &array_type::name);
        known = type != types.end() && words.size() == 4;
        done = known && put_array(record, type->type);
    }
    return done || !known || fail(text_of(words.size() > 1 ? words[1] : words[0]));
}

bool nexus_file::make_growing(const std::string &path, long type, std::size_t second, std::size_t third,
                              const char *units, nexus_growing &made) {
    const std::size_t width = std::max<std::size_t>(third, 1);
    const int rank = second == 0 ? 1 : third == 0 ? 2 : 3;
    const hsize_t now[3] = {0, second, third};
    const hsize_t most[3] = {H5S_UNLIMITED, second, third};
    // A frame a chunk, or as many rows as make one large enough; narrow things many frames.
    const std::size_t frame = std::max<std::size_t>(second, 1) * width;
    const hsize_t chunk[3] = {
        rank < 3 ? std::clamp<std::size_t>(chunk_words / 64 / frame, 1, 1024) : 1,
        std::clamp<std::size_t>(chunk_words / width, 1, std::max<std::size_t>(second, 1)), width};
    errno = 0;
    const auto space = hdf5_own<H5Sclose>(H5Screate_simple(rank, now, most));
    const auto plan = compressed({chunk, static_cast<std::size_t>(rank)});
    made.second = second;
    made.third = third;
    made.memory_type = type;
    made.dataset = hdf5_own<H5Dclose>(
        H5Dcreate2(file_.get(), path.c_str(), type, space.get(), H5P_DEFAULT, plan.get(), H5P_DEFAULT));
    return (made.dataset.ok() && (*units == '\0' || hdf5_text(made.dataset.get(), "units", units, true))) ||
           fail(path);
}

bool nexus_file::append(const nexus_growing &to, std::size_t frame, const void *values) {
    const int rank = to.second == 0 ? 1 : to.third == 0 ? 2 : 3;
    const hsize_t extent[3] = {frame + 1, to.second, to.third};
    const hsize_t start[3] = {frame, 0, 0};
    const hsize_t count[3] = {1, to.second, to.third};
    errno = 0;
    if (H5Dset_extent(to.dataset.get(), extent) < 0)
        return fail("a frame");
    const auto in_file = hdf5_own<H5Sclose>(H5Dget_space(to.dataset.get()));
    const auto in_memory = hdf5_own<H5Sclose>(H5Screate_simple(rank, count, nullptr));
    return (H5Sselect_hyperslab(in_file.get(), H5S_SELECT_SET, start, nullptr, count, nullptr) >= 0 &&
            H5Dwrite(to.dataset.get(), to.memory_type, in_memory.get(), in_file.get(), H5P_DEFAULT, values) >=
                0) ||
           fail("a frame");
}

bool nexus_file::close() {
    errno = 0;
    return (H5Fflush(file_.get(), H5F_SCOPE_GLOBAL) >= 0 && file_.close() >= 0) || fail("the file's end");
}

} // namespace kestrel
