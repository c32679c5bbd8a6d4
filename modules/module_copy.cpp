// Copying, adding, scaling and transposing boxes of modules.
#include "modules/commands.h"
#include "modules/store/cut_guard.h"
#include "modules/store/headed.h"
#include "modules/store/result_module.h"
#include "parser/qualifiers.h"
#include "server/output.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format copy_format(
    "%s %s transpose src-x %d dst-x %d num-x %d src-y %d dst-y %d num-y %d src-t %d dst-t %d num-t %d "
    "max-x %d max-y %d max-t %d quiet verbose scale %g add = %d ");

struct triple {
    int x = 0, y = 0, t = 0;
};

struct copy_request {
    int cn = 0;
    std::string from, to;
    bool transpose = false, quiet = false, verbose = false, add = false, compute = false;
    bool frame_given = false; // one frame of the source was chosen
    double scale = 1.0;
    triple src, num, dst, max;              // num as in the source, max of the destination module
    triple out;                             // num as in the destination
    std::optional<int> max_x, max_y, max_t; // as given
};

copy_request copy_asked(int quals, int cn, const char *from, const char *to, const module_view &source) {
    const pt_qualifiers<copy_format> q(quals);
    copy_request r;
    r.cn = cn;
    r.from = from;
    r.to = to;
    r.transpose = q.given("transpose");
    r.quiet = q.given("quiet");
    r.verbose = q.given("verbose");
    r.add = q.given("add");
    r.compute = r.add || q.given("scale");
    r.scale = q.real("scale", 1.0);
    r.frame_given = q.given("src-t");
    r.src = {q.number("src-x"), q.number("src-y"), q.number("src-t")};
    r.dst = {q.number("dst-x"), q.number("dst-y"), q.number("dst-t")};
    r.num = {q.number("num-x", q.given("src-x") ? 1 : source.num_x),
             q.number("num-y", q.given("src-y") ? 1 : source.num_y),
             q.number("num-t", q.given("src-t") ? 1 : source.num_t)};
    r.out = r.transpose ? triple{r.num.y, r.num.x, r.num.t} : r.num;
    r.max_x = q.number_if_given("max-x");
    r.max_y = q.number_if_given("max-y");
    r.max_t = q.number_if_given("max-t");
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
    if (r.compute && !mod_element_of_code(s.data_type)) {
        sv_printf(r.cn, "! ERROR: Unknow data type %d in module '%s'\n", s.data_type, r.from.c_str());
        return -1;
    }
    return 0;
}

// A dimension of the destination, as its messages name it.
struct dimension {
    const char *region;
    const char *size;
};

// Its start, and the size that holds it: as asked for, or as large as needed.
int check_target(int cn, const dimension &named, int start, int count, std::optional<int> asked, int &max) {
    if (start < 0) {
        sv_printf(cn, "! ERROR: Dst %s region start=%d should be >= 0\n", named.region, start);
        return -1;
    }
    const long long need = static_cast<long long>(start) + count;
    max = asked.value_or(static_cast<int>(std::min<long long>(need, INT_MAX)));
    if (max >= need)
        return 0;
    sv_printf(cn, "! ERROR: Requested new module %s %d will not accept read from %d for %d\n", named.size,
              max, start, count);
    return -1;
}

int check_targets(copy_request &r) {
    const bool fit = check_target(r.cn, {"X", "width"}, r.dst.x, r.out.x, r.max_x, r.max.x) == 0 &&
                     check_target(r.cn, {"Y", "height"}, r.dst.y, r.out.y, r.max_y, r.max.y) == 0 &&
                     check_target(r.cn, {"t", "num_t"}, r.dst.t, r.out.t, r.max_t, r.max.t) == 0;
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
    plan.data_type = source.data_type;
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
    else if (d.element_size == 2)
        move_elements<std::uint16_t>(from, to, r.num.x, stride);
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
    const triple &n = r.num;
    const int size = static_cast<int>(s.element_size);
    if (r.transpose)
        sv_printf(r.cn, "# Transposed module %s src from (%d, %d, %d) for (%d, %d, %d) to dst (%d, %d, %d)\n",
                  r.compute ? "add and scale" : "copy", r.src.x, r.src.y, r.src.t, n.x, n.y, n.t, r.dst.x,
                  r.dst.y, r.dst.t);
    else
        sv_printf(
            r.cn,
            "# %s data non-transposed src=(%d, %d, %d) for (%d, %d, %d) => (%d, %d, %d), elem_size=%d\n",
            r.compute ? "Adding/Scaling" : "Copying", r.src.x, r.src.y, r.src.t, n.x, n.y, n.t, r.dst.x,
            r.dst.y, r.dst.t, size);
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

} // namespace

constinit const PARSE_TREE row_module_copy = pt_command<module_copy>(
    "copy", copy_format, "Copy an 'id' module to another name",
    "Old module name/New module name/swap x y/Source start x (default 0)/Destination Start X (default 0)/"
    "Num X (default=num_x, unless src-x specifed, then 1)/Source Start y (default 0)/"
    "Destination Start y (default 0)/Num y (default=num_y, unless src-y specifed, then 1)/"
    "Source Start t (default 0)/Destination Start t (default 0)/"
    "Num t (default=num_t, unless src-t specifed, then 1)/Dst Module num_x (default dst-x + num-x)/"
    "Dst Module num_y (default dst-y + num-y)/Dst Module num_t (default dst-t + num-t)/Supress Messages/"
    "More messages/Scaling data ebfore copying or adding/Add data to target image");

} // namespace kestrel
