// `file write-kiln-header`: the header of a run, numbered by the index of its folder and noted in the folder's log.
#include "files/commands.h"
#include "files/kiln_defaults.h"
#include "files/kiln_header.h"
#include "files/kiln_place.h"
#include "instruments/timing/kairo.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"
#include "support/base64.h"
#include "support/ftp.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format
    kiln_format("%s %d + %s saxs-x %d saxs-y %d waxs-x %d waxs-y %d calib %d query on %s user %s password %s "
                "first %s var %s over intel saxs-det %d waxs-det %d cal-det %d time-v1 extra0 %s extra1 %s "
                "extra2 %s extra3 %s extra4 %s extra5 %s extra6 %s extra7 %s extra8 %s extra9 %s = %s");
using kiln_quals = pt_qualifiers<kiln_format>;

struct kiln_request {
    kiln_header header;
    std::string folder; // of a numbered header
    std::string path;   // of the header
    std::string variable;
    char letter = 0; // of a numbered header
    bool over = false, query = false;
};

bool refuse(int cn, const char *line) {
    sv_printf(cn, "%s", line);
    return false;
}

// ---------------------------------------------------------------- what the line says

bool one_line(int cn, std::string_view text) {
    return text.find_first_of("\r\n") == std::string_view::npos ||
           refuse(cn, "! ERROR: a line of a header cannot hold a line end\n");
}

bool take_texts(int cn, const kiln_quals &q, const char *comment, kiln_header &h) {
    constexpr kiln_quals::text_word words[] = {"extra0", "extra1", "extra2", "extra3", "extra4",
                                               "extra5", "extra6", "extra7", "extra8", "extra9"};
    h.title = kiln_header_defaults.title;
    h.comment = comment ? comment : "";
    for (const auto &word : words) {
        if (const char *text = q.text(word, nullptr))
            h.extras.emplace_back(text);
    }
    return one_line(cn, h.comment) &&
           std::all_of(h.extras.begin(), h.extras.end(),
                       [cn](const std::string &text) { return one_line(cn, text); });
}

bool take_sizes(int cn, const kiln_quals &q, int frames, kiln_header &h) {
    h.frames = frames;
    h.saxs.pixels = q.number("saxs-x");
    h.saxs.rasters = q.number("saxs-y");
    h.waxs.pixels = q.number("waxs-x");
    h.waxs.rasters = q.number("waxs-y");
    h.calib_channels = q.number("calib");
    if (std::min({h.frames, h.saxs.pixels, h.saxs.rasters, h.waxs.pixels, h.waxs.rasters, h.calib_channels}) <
        0)
        return refuse(cn, "! ERROR: the sizes of a header cannot be negative\n");
    if (h.saxs.rasters > 0 && h.saxs.pixels == 0)
        return refuse(cn, "! If Using 2D saxs, must specify both saxs X and Y resolution\n");
    if (h.waxs.rasters > 0 && h.waxs.pixels == 0)
        return refuse(cn, "! If Using 2D WAXS, must specify both saxs X and Y resolution\n");
    return true;
}

void override_detector(int cn, std::optional<int> code, kiln_detector &detector) {
    if (!code)
        return;
    detector.code = *code;
    detector.display = kiln_display_of(static_cast<std::uint32_t>(*code));
    if (detector.display == 0)
        sv_printf(cn, "! Unknown SAXS detector default display type = 0x%08X\n",
                  static_cast<unsigned>(*code));
}

void take_detectors(int cn, const kiln_quals &q, kiln_header &h) {
    const kiln_header_defaults_record &usual = kiln_header_defaults;
    h.saxs.code = usual.saxs_det;
    h.saxs.display = usual.saxs_disp;
    h.waxs.code = usual.waxs_det;
    h.waxs.display = usual.waxs_disp;
    h.calib_code = q.number("cal-det", usual.cal_chan);
    h.calib_display = q.given("cal-det") ? 0 : usual.cal_chan_disp;
    override_detector(cn, q.number_if_given("saxs-det"), h.saxs);
    override_detector(cn, q.number_if_given("waxs-det"), h.waxs);
    h.intel = q.given("intel");
    h.time_v1 = q.given("time-v1");
}

// The password comes as `enc-password` makes it.
std::optional<ftp_account> account_of(int cn, const kiln_quals &q) {
    if (q.count({"on", "user", "password"}) != 3) {
        refuse(cn, "! Must specify all of on machine user uid password xxx for ftp\n");
        return std::nullopt;
    }
    const auto password = base64_decode(q.text("password"));
    if (!password || std::find(password->begin(), password->end(), 0) != password->end()) {
        refuse(cn, "! ERROR: Password decoding failed\n");
        return std::nullopt;
    }
    return ftp_account{q.text("on"), q.text("user"), std::string(password->begin(), password->end())};
}

std::unique_ptr<kiln_place> place_of(int cn, const kiln_quals &q) {
    if (q.count({"on", "user", "password"}) == 0)
        return kiln_local_place(cn);
    const auto account = account_of(cn, q);
    return account ? kiln_ftp_place(cn, *account) : nullptr;
}

char upper_letter(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Without `first`: the path of the header.
bool take_path(int cn, const std::string &given, kiln_request &r) {
    const std::size_t name_at = given.rfind('/') + 1; // npos + 1 is the start
    if (r.query)
        return refuse(cn, "! ERROR: If query option is specified, first letter must be specified\n");
    if (!kiln_is_name(std::string_view(given).substr(name_at))) {
        sv_printf(cn, "! Wrong format for KILN header file name '%s', expected 'xnn000.mdd'\n",
                  given.substr(name_at).c_str());
        return false;
    }
    r.path = given;
    r.path[name_at] = upper_letter(given[name_at]);
    r.header.name = r.path.substr(name_at);
    return true;
}

// With `first`: the folder, and the letter.
bool take_folder(int cn, const char *given, const char *first, kiln_request &r) {
    r.folder = *given == '\0' ? "." : given;
    r.letter = upper_letter(*first);
    if (r.letter >= 'A' && r.letter <= 'Z')
        return true;
    sv_printf(cn, "! ERROR: first should begin with a letter, not '%s'\n", first);
    return false;
}

// ---------------------------------------------------------------- numbering

std::string index_path(const kiln_request &r) {
    return r.folder + "/" + r.letter + "INDEX.NDX";
}

pt_string current_name(const kiln_request &r, kiln_place &place) {
    const auto index = place.read_index(index_path(r));
    if (!index)
        return std::nullopt;
    return index->sequence < 0 ? "" : kiln_name(r.letter, index->sequence, index->stamp);
}

bool draw_name(int cn, kiln_place &place, const std::tm &when, kiln_request &r) {
    const std::string path = index_path(r);
    if (place.lock_index(path) != 0)
        return false;
    const auto last = place.read_index(path);
    if (!last)
        return false;
    if (last->sequence == kiln_sequence_max)
        return refuse(cn, "! Sequence number has read 99, pick a new first letter\n");
    const kiln_index next{last->sequence + 1, kiln_stamp(when)};
    if (place.write_index(path, next) != 0)
        return false;
    r.header.name = kiln_name(r.letter, next.sequence, next.stamp);
    r.path = r.folder + "/" + r.header.name;
    return true;
}

// ---------------------------------------------------------------- writing

bool set_variables(int cn, const kiln_request &r) {
    constexpr struct {
        char kind;
        const char *suffix;
    } kinds[] = {{kiln_saxs, ".saxs"}, {kiln_calib, ".calib"}, {kiln_waxs, ".waxs"}, {kiln_times, ".time"}};
    for (const kiln_line &line : kiln_lines(r.header)) {
        for (const auto &[kind, suffix] : kinds) {
            if (line.file == kiln_data_name(r.header.name, kind) &&
                set_string_variable(cn, r.variable + suffix, line.file, true) != 0)
                return false;
        }
    }
    return true;
}

kiln_written write_log(kiln_place &place, const std::tm &when, const kiln_request &r) {
    if (r.letter == 0)
        return kiln_written::done;
    const std::string entry = kiln_log_entry(r.header, when, place.line_end(), kairo_summary());
    return place.append_log(r.folder + "/" + r.letter + "INFO.LOG", entry);
}

pt_string write(int cn, kiln_place &place, const std::tm &when, const kiln_request &r) {
    const kiln_written written =
        place.write_header(r.path, kiln_text(r.header, when, place.line_end()), r.over);
    if (written == kiln_written::refused)
        return std::nullopt;
    const bool good = written == kiln_written::done;
    const kiln_written logged = good ? write_log(place, when, r) : kiln_written::failed;
    if (logged == kiln_written::failed) {
        const unsigned error = static_cast<unsigned>(errno);
        sv_printf(cn, "! ERRORS (%d) writing KILN header file '%s', errno=0x%08X\n", 1, r.path.c_str(),
                  error);
    }
    if (logged != kiln_written::done || (!r.variable.empty() && !set_variables(cn, r)))
        return std::nullopt;
    return r.header.name;
}

pt_string write_kiln_header(int quals, int cn, const char *name, int frames, const char *comment) {
    const kiln_quals q(quals);
    kiln_request r;
    r.query = q.given("query");
    r.over = q.given("over");
    r.variable = q.text("var");
    if (!take_sizes(cn, q, frames, r.header))
        return std::nullopt;
    const std::unique_ptr<kiln_place> place = place_of(cn, q);
    if (!place || !take_texts(cn, q, comment, r.header))
        return std::nullopt;
    take_detectors(cn, q, r.header);
    if (!(q.given("first") ? take_folder(cn, name, q.text("first"), r) : take_path(cn, name, r)))
        return std::nullopt;
    sv_flush_all(cn);
    if (r.query)
        return current_name(r, *place);
    const std::tm when = kiln_local_time();
    if (r.letter != 0 && !draw_name(cn, *place, when, r))
        return std::nullopt;
    return write(cn, *place, when, r);
}

} // namespace

constinit const PARSE_TREE row_write_kiln_header = pt_command<write_kiln_header>(
    "write-kiln-header", kiln_format, "Write KILN header file",
    "Header file name or path with First letter/Number of time frames/Comment line/SAXS pixels/SAXS rasters/"
    "WAXS pixels/WAXS rasters/Calibration Channels/Query Current state of index file/FTP to machine/User ID/"
    "Password/Specify First letter (returns next seq number)/Variable to store file names/"
    "Overwrite existing files/Intel Byte Order/Override saxs detector type index/"
    "Override WAXS detector type index/Override Cal chan detector type/Write Version 1 (8 row) time File/"
    "Extra lines to add/Extra lines to add/Extra lines to add/Extra lines to add/Extra lines to add/"
    "Extra lines to add/Extra lines to add/Extra lines to add/Extra lines to add/Extra lines to add");

} // namespace kestrel
