// Copying, adding, scaling and transposing boxes of modules.
#include "modules/commands.h"
#include "modules/store/cut_guard.h"
#include "modules/store/headed.h"
#include "modules/store/result_module.h"
#include "parser/call.h"
#include "server/output.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace kestrel {

namespace {

enum qualifier : int {
    q_transpose,
    q_src_x,
    q_dst_x,
    q_num_x,
    q_src_y,
    q_dst_y,
    q_num_y,
    q_src_t,
    q_dst_t,
    q_num_t,
    q_max_x,
    q_max_y,
    q_max_t,
    q_quiet,
    q_verbose,
    q_scale,
    q_add,
};

struct triple {
    int x = 0, y = 0, t = 0;
};

struct copy_request {
    int cn = 0;
    std::string from, to;
    bool transpose = false, quiet = false, verbose = false, add = false, compute = false;
    bool frame_given = false; // one frame of the source was chosen
    double scale = 1.0;
    triple src, num, dst, max; // num as in the source
    triple out;                // num as in the destination
};

copy_request copy_asked(int quals, int cn, const char *from, const char *to, const module_view &source) {
    const auto has = [quals](int q) { return (quals >> q & 1) != 0; };
    const auto value = [&](int q, int otherwise) { return has(q) ? Qualifier[q].IntArg : otherwise; };
    copy_request r;
    r.cn = cn;
    r.from = from;
    r.to = to;
    r.transpose = has(q_transpose);
    r.quiet = has(q_quiet);
    r.verbose = has(q_verbose);
    r.add = has(q_add);
    r.compute = r.add || has(q_scale);
    r.scale = has(q_scale) ? Qualifier[q_scale].DoubleArg : 1.0;
    r.frame_given = has(q_src_t);
    r.src = {value(q_src_x, 0), value(q_src_y, 0), value(q_src_t, 0)};
    r.dst = {value(q_dst_x, 0), value(q_dst_y, 0), value(q_dst_t, 0)};
    r.num = {value(q_num_x, has(q_src_x) ? 1 : source.num_x), value(q_num_y, has(q_src_y) ? 1 : source.num_y),
             value(q_num_t, has(q_src_t) ? 1 : source.num_t)};
    r.out = r.transpose ? triple{r.num.y, r.num.x, r.num.t} : r.num;
    r.max = {value(q_max_x, 0), value(q_max_y, 0), value(q_max_t, 0)};
    return r;
}

bool fits(int start, int count, int size) {
    return start >= 0 && count >= 1 && start < size && count <= size - start;
}

// ---- checks

int check_source(const copy_request &r, const module_view &s) {
    if (!fits(r.src.x, r.num.x, s.num_x)) {
        sv_printf(r.cn, "! ERROR: Src x start=%d, num=%d does not fit in image (%d, %d)\n", r.src.x, r.num.x,
                  s.num_x, s.num_y);
        return -1;
    }
    if (!fits(r.src.y, r.num.y, s.num_y)) {
        sv_printf(r.cn, "! ERROR: Src Y region start=%d, num=%d does not fit in image (%d, %d)\n", r.src.y,
                  r.num.y, s.num_x, s.num_y);
        return -1;
    }
    if (!fits(r.src.t, r.num.t, s.num_t)) {
        sv_printf(r.cn, "! ERROR: Src T region start=%d, num=%d does not fit in image (%d, %d, %d)\n",
                  r.src.t, r.num.t, s.num_x, s.num_y, s.num_t);
        return -1;
    }
    if (!mod_element_of_code(s.data_type)) {
        sv_printf(r.cn, "! ERROR: Unknow data type %d in module '%s'\n", s.data_type, r.from.c_str());
        return -1;
    }
    return 0;
}

// The messages of one dimension of the destination.
struct target_texts {
    const char *negative;
    const char *too_small;
};
constexpr target_texts x_texts = {
    "! ERROR: Dst X region start=%d should be >= 0\n",
    "! ERROR: Requested new module width %d will not accept read from %d for %d\n"};
constexpr target_texts y_texts = {
    "! ERROR: Dst Y region start=%d should be >= 0\n",
    "! ERROR: Requested new module height %d will not accept read from %d for %d\n"};
constexpr target_texts t_texts = {
    "! ERROR: Dst t region start=%d should be >= 0\n",
    "! ERROR: Requested new module num_t %d will not accept read from %d for %d\n"};

// One dimension of the destination: its start, and the size that holds it (0: as large as needed).
int check_target(int cn, const target_texts &texts, int start, int count, int &max) {
    char line[128];
    int need = 0;
    if (start < 0) {
        std::snprintf(line, sizeof line, texts.negative, start);
        sv_print(cn, line);
        return -1;
    }
    const bool overflow = __builtin_add_overflow(start, count, &need);
    if (max == 0 && !overflow)
        max = need;
    if (!overflow && max >= need)
        return 0;
    std::snprintf(line, sizeof line, texts.too_small, max, start, count);
    sv_print(cn, line);
    return -1;
}

int check_targets(copy_request &r) {
    const bool fit = check_target(r.cn, x_texts, r.dst.x, r.out.x, r.max.x) == 0 &&
                     check_target(r.cn, y_texts, r.dst.y, r.out.y, r.max.y) == 0 &&
                     check_target(r.cn, t_texts, r.dst.t, r.out.t, r.max.t) == 0;
    return fit ? 0 : -1;
}

int check_existing(const copy_request &r, const module_view &source, const module_view &d) {
    if (r.max.x > d.num_x || r.max.y > d.num_y || r.max.t > d.num_t) {
        sv_printf(r.cn,
                  "! Error, module '%s' exists but is not large enough for requested destination "
                  "Module:(%d,%d, %d) "
                  "dst (%d, %d, %d)+(%d, %d, %d), Max:(%d, %d, %d)\n",
                  r.to.c_str(), d.num_x, d.num_y, d.num_t, r.dst.x, r.dst.y, r.dst.t, r.out.x, r.out.y,
                  r.out.t, r.max.x, r.max.y, r.max.t);
        return -1;
    }
    if (d.data_type != source.data_type) {
        sv_printf(r.cn, "! Error, module '%s' exists but is wrong data type %d not %d\n", r.to.c_str(),
                  d.data_type, source.data_type);
        return -1;
    }
    sv_printf(r.cn, "# Warning: module \"%s\" already exists - overwriting\n", r.to.c_str());
    return 0;
}

// ---- the destination

constexpr long long labelled_frames_max = 1 << 20; // frames beyond this have no labels

// The destination's labels after the copy: the copied frames' from the source, the others as they were.
std::vector<std::string> labels_after(const copy_request &r, void *source, void *existing) {
    bool any = false;
    for (int t = 0; t < r.num.t && !any; ++t)
        any = !id_get_label(source, r.src.t + t).empty();
    const long long copied_end = static_cast<long long>(r.dst.t) + r.num.t;
    const long long frames =
        existing == nullptr ? copied_end : std::max<long long>(copied_end, id_labels_num(existing));
    std::vector<std::string> labels;
    for (int t = 0; any && t < std::min(frames, labelled_frames_max); ++t)
        labels.push_back(t >= r.dst.t && t < copied_end ? id_get_label(source, r.src.t + t - r.dst.t)
                         : existing != nullptr          ? id_get_label(existing, t)
                                                        : std::string());
    return labels;
}

int make_target(const copy_request &r, const module_view &source, const std::vector<std::string> &labels,
                result_module &target) {
    const int size = static_cast<int>(source.element_size);
    module_plan plan;
    plan.element = *mod_element_of_code(source.data_type); // as check_source has seen
    plan.num_x = r.max.x;
    plan.num_y = r.max.y;
    plan.num_t = r.max.t;
    plan.is_3d = r.max.t != 1 || (source.is_3d && !r.frame_given);
    plan.labels = labels;
    if (!r.quiet && plan.is_3d)
        sv_printf(r.cn, "# Creating 3-d module '%s' : (%d, %d, %d), data_type=%d, elem_size=%d\n",
                  r.to.c_str(), r.max.x, r.max.y, r.max.t, source.data_type, size);
    else if (!r.quiet)
        sv_printf(r.cn, "# Creating 2-d module '%s' : (%d, %d), data_type=%d, elem_size=%d\n", r.to.c_str(),
                  r.max.x, r.max.y, source.data_type, size);
    return target.make(r.cn, r.to.c_str(), plan);
}

// ---- elements

// `count` elements at `from` to `to`, which are `stride` elements apart.
template <class T> void move_elements(const std::byte *from, std::byte *to, int count, std::size_t stride) {
    for (int i = 0; i < count; ++i)
        std::memcpy(to + static_cast<std::size_t>(i) * stride * sizeof(T),
                    from + static_cast<std::size_t>(i) * sizeof(T), sizeof(T));
}

void compute_elements(const copy_request &r, int data_type, std::size_t size, const std::byte *from,
                      std::byte *to, int count, std::size_t stride) {
    for (int i = 0; i < count; ++i, from += size, to += stride * size) {
        const double value = mod_get_element(from, data_type) * r.scale;
        mod_put_element(to, data_type, r.add ? mod_get_element(to, data_type) + value : value);
    }
}

void copy_row(const copy_request &r, const module_view &d, const std::byte *from, std::byte *to) {
    const std::size_t stride = r.transpose ? static_cast<std::size_t>(d.num_x) : 1;
    if (r.compute)
        compute_elements(r, d.data_type, d.element_size, from, to, r.num.x, stride);
    else if (!r.transpose)
        std::memcpy(to, from, static_cast<std::size_t>(r.num.x) * d.element_size);
    else if (d.element_size == 8)
        move_elements<std::uint64_t>(from, to, r.num.x, stride);
    else
        move_elements<std::uint32_t>(from, to, r.num.x, stride);
}

// A copy of the source's box, for a destination in the same module.
std::vector<std::byte> box_copy(const copy_request &r, const module_view &s) {
    std::vector<std::byte> box;
    for (int t = 0; t < r.num.t; ++t)
        for (int y = 0; y < r.num.y; ++y) {
            const std::byte *row = s.at(r.src.x, r.src.y + y, r.src.t + t);
            box.insert(box.end(), row, row + static_cast<std::size_t>(r.num.x) * s.element_size);
        }
    return box;
}

void announce(const copy_request &r, const module_view &s) {
    if (r.quiet)
        return;
    const char *format =
        r.transpose
            ? (r.compute ? "# Transposed module add and scale src from (%d, %d, %d) for (%d, %d, %d) to dst "
                           "(%d, %d, %d)\n"
                         : "# Transposed module copy src from (%d, %d, %d) for (%d, %d, %d) to dst "
                           "(%d, %d, %d)\n")
            : (r.compute ? "# Adding/Scaling data non-transposed src=(%d, %d, %d) for (%d, %d, %d) => "
                           "(%d, %d, %d), elem_size=%d\n"
                         : "# Copying data non-transposed src=(%d, %d, %d) for (%d, %d, %d) => "
                           "(%d, %d, %d), elem_size=%d\n");
    char line[256];
    std::snprintf(line, sizeof line, format, r.src.x, r.src.y, r.src.t, r.num.x, r.num.y, r.num.t, r.dst.x,
                  r.dst.y, r.dst.t, static_cast<int>(s.element_size));
    sv_print(r.cn, line);
}

void copy_frames(const copy_request &r, const module_view &s, const module_view &d) {
    std::vector<std::byte> box;
    if (s.head == d.head)
        box = box_copy(r, s);
    const std::size_t row_bytes = static_cast<std::size_t>(r.num.x) * s.element_size;
    for (int t = 0; t < r.num.t; ++t) {
        if (r.verbose && !r.quiet) {
            sv_printf(r.cn, "# t=%d, Data copy for data type %d, disp_type=%08X, num_x=%d, num_y=%d\n",
                      r.src.t + t, s.data_type, s.is_3d ? MOD_DISP_3D : MOD_DISP_2D, r.num.x, r.num.y);
            sv_printf(r.cn, "# t=%d, dst_start_x=%d, dst_start_y=%d, dst_start_t=%d, elem_size=%d\n",
                      r.src.t + t, r.dst.x, r.dst.y, r.dst.t + t, static_cast<int>(s.element_size));
        }
        for (int y = 0; y < r.num.y; ++y) {
            const std::size_t row =
                static_cast<std::size_t>(t) * static_cast<std::size_t>(r.num.y) + static_cast<std::size_t>(y);
            const std::byte *from =
                box.empty() ? s.at(r.src.x, r.src.y + y, r.src.t + t) : box.data() + row * row_bytes;
            copy_row(r, d, from,
                     r.transpose ? d.at(r.dst.x + y, r.dst.y, r.dst.t + t)
                                 : d.at(r.dst.x, r.dst.y + y, r.dst.t + t));
        }
    }
}

} // namespace

int module_copy(int quals, int cn, const char *from, const char *to) {
    const module_link source(from);
    if (!source) {
        sv_printf(cn, "! Cannot link to module '%s' to copy\n", from);
        return -1;
    }
    module_view s;
    if (mod_look(cn, from, source.head(), s) != 0)
        return -1;
    copy_request r = copy_asked(quals, cn, from, to, s);
    if (check_source(r, s) != 0 || check_targets(r) != 0)
        return -1;
    result_module target;
    const bool existing = target.find(to);
    if (existing && (target.look(cn) != 0 || check_existing(r, s, target.view()) != 0))
        return -1;
    const auto labels = labels_after(r, source.head(), target.head());
    if (!existing && make_target(r, s, labels, target) != 0)
        return -1;
    const module_view &d = target.view();
    if (!labels.empty() && !(existing ? mod_set_labels(target.head(), labels) : d.is_3d))
        sv_printf(cn,
                  "# Warning: New module does not have sapce for labels, continuing without row labels\n");
    announce(r, s);
    const int cuts = cut_guard_count();
    copy_frames(r, s, d);
    if (cut_guard_count() != cuts)
        return -1; // the line comes with the command's end
    target.keep();
    module_announce(cn, to);
    return 0;
}

} // namespace kestrel
