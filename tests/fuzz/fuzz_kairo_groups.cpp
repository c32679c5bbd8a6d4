// A file of frame groups: what is handed on is lines that a server takes, up to the closing one; and a unit that takes
// them has the frames that they say, or a reason.
#include "instruments/timing/groups.h"
#include "server/script_file.h"
#include "server/session.h"
#include "sim/timing_unit/frame_table.h"
#include "support/file_io.h"

#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>

using namespace kestrel;

namespace {

void check(bool holds) {
    if (!holds)
        std::abort();
}

constexpr int most_frames = 1000;

void take(frame_table &table, const std::string &line) {
    check(!line.empty() && line.size() <= sv_line_max && line.find_first_of("\r\n") == std::string::npos);
    const std::size_t before = table.frames.size();
    std::string why;
    const bool good = add_group(table, line, most_frames, why);
    check(good == why.empty() && (good ? table.frames.size() > before : table.frames.size() == before));
    check(table.frames.size() <= most_frames && !(good && closes_table(line)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    unique_fd fd(::memfd_create("groups", 0));
    if (!fd || !write_all(fd.get(), {reinterpret_cast<const char *>(data), size}) ||
        ::lseek(fd.get(), 0, SEEK_SET) != 0)
        return 0;
    script_file file(std::move(fd));
    frame_table table;
    std::size_t handed = 0;
    bool closed = false;
    const groups_read read =
        read_groups([&](std::string &line) { return file.read_text(line, sv_line_max + 1); },
                    [&](const std::string &line) {
                        check(!closed);
                        take(table, line);
                        closed = group_first_integer(line) < 0;
                        check(closed == closes_table(line)); // or one would wait for the other
                        ++handed;
                    });
    check(closed == (read.end == groups_end::closed) && handed == read.groups.size() + (closed ? 1 : 0));
    check(static_cast<std::size_t>(read.group) == read.groups.size() + 1);
    stretch_dead_times(table);
    return 0;
}
