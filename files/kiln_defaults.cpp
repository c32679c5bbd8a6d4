#include "files/kiln_defaults.h"

#include "files/commands.h"
#include "files/kiln_header.h"
#include "parser/qualifiers.h"
#include "server/output.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace kestrel {

kiln_header_defaults_record kiln_header_defaults;

namespace {

constexpr pt_format
    saxs_format(" + %d psd-1d psd-2d delay-line-other delay-line-quad delay-line-area "
                "quill1-area128x128 quill2-quad128 quill2-area128x128 ember-other embers512 = %d");
constexpr pt_format waxs_format(" + %d psd-1d psd-2d delay-line-other delay-line-area quill2-curved128 "
                                "quill2-area128x128 ember-other emberw512 = %d");
constexpr pt_format calib_format(" + %d unknown sorrel-24 sorrel-32 kairo2 = %d");
constexpr pt_format serial_format("%d  = %d");

constexpr pt_qualifiers<saxs_format>::choice<int> saxs_codes[] = {
    {"psd-1d", 0x10000000},           {"psd-2d", 0x20000000},
    {"delay-line-other", 0x10100000}, {"delay-line-quad", 0x10100100},
    {"delay-line-area", 0x20100300},  {"quill1-area128x128", 0x20101300},
    {"quill2-quad128", 0x10102100},   {"quill2-area128x128", 0x20102300},
    {"ember-other", 0x10110000},      {"embers512", 0x10110100}};
constexpr pt_qualifiers<waxs_format>::choice<int> waxs_codes[] = {
    {"psd-1d", 0x10000000},          {"psd-2d", 0x20000000},           {"delay-line-other", 0x10100000},
    {"delay-line-area", 0x20100300}, {"quill2-curved128", 0x10102200}, {"quill2-area128x128", 0x20102300},
    {"ember-other", 0x10110000},     {"emberw512", 0x10110200}};
constexpr pt_qualifiers<calib_format>::choice<int> calib_codes[] = {
    {"unknown", 0x30000000}, {"sorrel-24", 0x30108100}, {"sorrel-32", 0x30108200}, {"kairo2", 0x30109100}};

// The integer, or what the one keyword stands for; nothing after a line.
template <const pt_format &Format, std::size_t N>
std::optional<int> code_given(int quals, int cn, int code,
                              const typename pt_qualifiers<Format>::template choice<int> (&codes)[N]) {
    const pt_qualifiers<Format> q(quals);
    const bool integer = OptionalArgumentCount > 0;
    const std::optional<int> named = q.only(codes);
    if (integer ? q.none() : named.has_value())
        return integer ? code : *named;
    sv_printf(cn, "! Must specify one and only one detector type\n");
    return std::nullopt;
}

int display_of(int cn, int code) {
    const int display = kiln_display_of(static_cast<std::uint32_t>(code));
    if (display == 0)
        sv_printf(cn, "! Unknown detector default display type = 0x%08X\n", static_cast<unsigned>(code));
    return display;
}

int confirm_saxs(int cn) {
    sv_printf(cn, "# Set default SAXS detector = %d = 0x%08X\n", kiln_header_defaults.saxs_det,
              static_cast<unsigned>(kiln_header_defaults.saxs_det));
    return 0;
}
int confirm_waxs(int cn) {
    sv_printf(cn, "# Set default WAXS detector = %d = 0x%08X\n", kiln_header_defaults.waxs_det,
              static_cast<unsigned>(kiln_header_defaults.waxs_det));
    return 0;
}

int default_saxs(int quals, int cn, int given) {
    const auto code = code_given<saxs_format>(quals, cn, given, saxs_codes);
    if (!code)
        return -1;
    kiln_header_defaults.saxs_det = *code;
    kiln_header_defaults.saxs_disp = display_of(cn, *code);
    return confirm_saxs(cn);
}

int default_waxs(int quals, int cn, int given) {
    const auto code = code_given<waxs_format>(quals, cn, given, waxs_codes);
    if (!code)
        return -1;
    kiln_header_defaults.waxs_det = *code;
    kiln_header_defaults.waxs_disp = display_of(cn, *code);
    return confirm_waxs(cn);
}

int default_calib(int quals, int cn, int given) {
    const auto code = code_given<calib_format>(quals, cn, given, calib_codes);
    if (!code)
        return -1;
    kiln_header_defaults.cal_chan = *code;
    kiln_header_defaults.cal_chan_disp = 0;
    sv_printf(cn, "# Set default Cal Chan = %d = 0x%08X\n", *code, static_cast<unsigned>(*code));
    return 0;
}

int with_serial(int code, int serial) {
    return (code & ~0xff) | (serial & 0xff);
}

int saxs_serial(int, int cn, int serial) {
    kiln_header_defaults.saxs_det = with_serial(kiln_header_defaults.saxs_det, serial);
    return confirm_saxs(cn);
}
int waxs_serial(int, int cn, int serial) {
    kiln_header_defaults.waxs_det = with_serial(kiln_header_defaults.waxs_det, serial);
    return confirm_waxs(cn);
}

int title(int, int cn, const char *text) {
    const std::string_view kept = std::string_view(text).substr(0, kiln_title_max);
    if (kept.find_first_of("\r\n") != std::string_view::npos) {
        sv_printf(cn, "! ERROR: a line of a header cannot hold a line end\n");
        return -1;
    }
    kiln_header_defaults.title[kept.copy(kiln_header_defaults.title, kiln_title_max)] = '\0';
    return 0;
}

} // namespace

constinit const PARSE_TREE row_kiln_default_saxs_det = pt_command<default_saxs>(
    "kiln-default-saxs-det", saxs_format, "Set default SAXS detector type for write-kiln-header",
    "Specify integer code or/Unknown 1-d Position sensitive detector/Unknown 2-d PSD/"
    "None standard Delayline detector/Standard HARBOR Delay line Quadrant/Standard HARBOR Delayline area/"
    "QUILL1 area with 128x128 channels/quill2 Quadrant with 128 channels/QUILL2 Area with 128x128 channels/"
    "Unknown EMBER type detector/EMBERS with 512 channels");
constinit const PARSE_TREE row_kiln_default_waxs_det = pt_command<default_waxs>(
    "kiln-default-waxs-det", waxs_format, "Set default WAXS detector type for write-kiln-header",
    "Specify integer code or/Unknown 1-d Position sensitive detector/Unknown 2d PSD/"
    "None standard Delayline detector/Standard HARBOR Delayline area/QUILL2 curved with 128 channels/"
    "QUILL2 Area with 128x128 channels/Unknown EMBER type detector/EMBERW with 512 channels");
constinit const PARSE_TREE row_kiln_default_cal_chan = pt_command<default_calib>(
    "kiln-default-cal-chan", calib_format,
    "Set default Calibration Channel detector type for write-kiln-header",
    "Specify integer code or/Unknown Calibration channel/SORREL 32 channel 24 bit scaler/SORREL 16 channel 32 bit/");
constinit const PARSE_TREE row_kiln_default_saxs_serial = pt_command<saxs_serial>(
    "kiln-default-saxs-serial", serial_format,
    "Set default SAXS detector type serial number for write-kiln-header", "Serial number 0..255");
constinit const PARSE_TREE row_kiln_default_waxs_serial = pt_command<waxs_serial>(
    "kiln-default-waxs-serial", serial_format,
    "Set default WAXS detector type serial number for write-kiln-header", "Serial number 0..255");
constinit const PARSE_TREE row_kiln_title = pt_command<title>(
    "kiln-title", "%s  = %d", "Set additonal title info for first title line", "Title Info");

} // namespace kestrel
