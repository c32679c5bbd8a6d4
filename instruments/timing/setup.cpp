// `kairo setup`, `setup-groups` and `generate`: the frame table of the unit.
#include "instruments/links/clients.h"
#include "instruments/timing/commands.h"
#include "instruments/timing/forward.h"
#include "instruments/timing/frame_times.h"
#include "instruments/timing/groups.h"
#include "instruments/timing/kairo.h"
#include "server/input.h"
#include "server/output.h"
#include "server/script_file.h"
#include "server/session.h"
#include "support/file_io.h"

#include <fcntl.h>
#include <optional>
#include <string>

namespace kestrel {

namespace {

using links::line_sent;
using links::link_kairo;

int setup(int, int cn, const char *) {
    sv_printf(cn, "! KAIRO 1 not supported\n");
    return -1;
}

// ---------------------------------------------------------------- groups

constexpr pt_format groups_format(" help ext-start ext-inh cycles %d file %s no-min-20us silent sequence %s "
                                  "auto-rearm ext-falling = %d");
using groups_quals = pt_qualifiers<groups_format>;

constexpr const char *groups_help =
    "# File format is as follows:\n"
    "# num_frames dead_time live_time dead_port live_port dead_pause live_pause\n"
    "# Followed by last line:\n# -1 0 0 0 0 0 0\n"
    "# Where num_frames       = Number of frames in this group\n"
    "# Dead_time, Live_time   = time as floating point seconds\n"
    "# Dead_port, Live_port   = port data as integer (0<=port<=255)\n"
    "# Dead_pause, Live_pause = pause bit (0<=pause<=1)\n";

// The lines of the file, or those that the session sends.
class group_source {
  public:
    int open(int cn, const std::string &name) {
        unique_fd fd = open_regular(name.c_str(), O_RDONLY);
        if (!fd) {
            sv_printf(cn, "! Couldn't open file %s for reading.\n", name.c_str());
            return -1;
        }
        file_.emplace(std::move(fd));
        return 0;
    }

    bool next(int cn, std::string &line) {
        if (file_)
            return file_->read_text(line, sv_line_max + 1);
        char typed[sv_line_max + 2];
        if (!sv_getline(cn, typed, sizeof typed))
            return false;
        line = typed;
        return true;
    }

  private:
    std::optional<script_file> file_;
};

// The lines on their way. A remote that has refused, or is lost, gets no more of them; those that the session still sends
// are no commands, and go nowhere.
class group_sender {
  public:
    explicit group_sender(int cn) : cn_(cn) {}

    void send(const std::string &line) {
        if (sent_ == line_sent::sent)
            sent_ = links::send_string(cn_, link_kairo, line);
    }

    // The remote's result. One that refused may have taken lines for commands, whose replies nobody waits for: the link
    // begins anew.
    int result() {
        const int frames = sent_ == line_sent::failed ? -1 : links::wait_for(cn_, link_kairo);
        if (frames < 0)
            links::disconnect_from(cn_, link_kairo);
        return frames;
    }

  private:
    int cn_;
    line_sent sent_ = line_sent::sent;
};

int send_groups(int cn, group_source &source) {
    group_sender sender(cn);
    const groups_read read = read_groups([&](std::string &line) { return source.next(cn, line); },
                                         [&](const std::string &line) { sender.send(line); });
    if (read.end == groups_end::run_out)
        sv_printf(cn, "! Runout of KAIRO data at group %d \n", read.group);
    if (read.end == groups_end::too_long)
        sv_printf(cn, "! ERROR: KAIRO group %d is longer than %zu characters\n", read.group, sv_line_max);
    if (read.end != groups_end::closed)
        sender.send("-1");
    const int frames = sender.result();
    if (read.end != groups_end::closed || frames < 0)
        return -1;
    kairo_summary_of(read.groups);
    return kairo_fetch_frames(cn);
}

int setup_groups(int quals, int cn) {
    const groups_quals q(quals);
    if (!kairo_ready(cn))
        return -1;
    if (q.given("help")) {
        sv_print(cn, groups_help);
        return 0;
    }
    const auto text = kairo_text<groups_format>(cn, quals, "kairo setup-groups", {"help", "file"});
    group_source source;
    if (!text || (q.given("file") && source.open(cn, q.text("file")) != 0))
        return -1;
    kairo_summary_unknown();
    if (kairo.debug)
        sv_printf(cn, "# Sending '%s'\n", text->c_str());
    if (links::send_nowait(cn, link_kairo, *text) != 0)
        return -1;
    return send_groups(cn, source);
}

// ---------------------------------------------------------------- equal frames

constexpr pt_format generate_format("%d %d %g %g %d help ext-start silent ext-falling = %d");

int generate(int quals, int cn, int laps, int pairs, double dead, double live, int pause) {
    if (!kairo_ready(cn))
        return -1;
    const auto text =
        kairo_text<generate_format>(cn, quals,
                                    "kairo generate" + kairo_number(laps) + kairo_number(pairs) +
                                        kairo_number(dead) + kairo_number(live) + kairo_number(pause));
    return text ? kairo_generate(cn, laps, *text) : -1;
}

} // namespace

int kairo_generate(int cn, int laps, const std::string &text) {
    kairo_summary_unknown();
    kairo.num_laps = laps;
    if (kairo_send(cn, text) < 0) {
        sv_printf(cn, "! ERROR performing '%s' command on remote KAIRO\n", text.c_str());
        return -1;
    }
    return kairo_fetch_frames(cn) < 0 ? -1 : 0;
}

constinit const PARSE_TREE row_kairo_setup =
    pt_command<setup>("setup", "+%s help = %d", "set-up KAIRO frames (not supported)", "File/Display help");
constinit const PARSE_TREE row_kairo_setup_groups = pt_command<setup_groups>(
    "setup-groups", groups_format,
    "set-up KAIRO frames using series of groups, directly or from a local file",
    "Display the format of groups/Enable external start/Enable external inhibit/Number of cycles/"
    "Local file of groups (default: the lines that follow)/Do not force dead times of at least 20 us/Disable messages/"
    "Name of the sequence/Arm again after each run/Ext Start falling (IKAIRO)");
constinit const PARSE_TREE row_kairo_generate = pt_command<generate>(
    "generate", generate_format, "generate a set of identical timeframes",
    "laps/frame pairs/dead time/live time/pause/Display Help for KAIRO2/Enable external start/Disable messages/"
    "Ext Start falling (IKAIRO)");

} // namespace kestrel
