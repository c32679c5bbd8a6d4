// GEL: a 16-bit TIFF image with the tags that gel scanners write, made as a temporary file and then sent.
#include "server/output.h"
#include "support/fd.h"
#include "support/file_io.h"
#include "unified/form.h"
#include "unified/line_assembler.h"

#include <fcntl.h>
#include <tiffio.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr const char *gel_file = ".utemp.gel";
constexpr const char *programming_error = "! Programming error in SERVER/unifgel.c at line %d.\n";

struct tiff_closer {
    void operator()(TIFF *tiff) const { TIFFClose(tiff); }
};

struct gel_state {
    std::unique_ptr<TIFF, tiff_closer> tiff;
    std::uint32_t width = 0; // samples of a scan line
    std::uint32_t lines = 0;
    std::uint32_t written = 0;
    line_assembler assembler{1};
};

// The library does not know the scanners' own tags until it is told.
const TIFFFieldInfo gel_fields[] = {
    {TIFFTAG_MD_SCALEPIXEL, 1, 1, TIFF_RATIONAL, FIELD_CUSTOM, 1, 0, const_cast<char *>("MDScalePixel")},
    {TIFFTAG_MD_LABNAME, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char *>("MDLabName")},
    {TIFFTAG_MD_SAMPLEINFO, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char *>("MDSampleInfo")},
    {TIFFTAG_MD_PREPDATE, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char *>("MDPrepDate")},
    {TIFFTAG_MD_PREPTIME, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char *>("MDPrepTime")},
    {TIFFTAG_MD_FILEUNITS, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char *>("MDFileUnits")},
};

void set_tags(TIFF *tiff, std::uint32_t width, std::uint32_t lines) {
    TIFFMergeFieldInfo(tiff, gel_fields, std::size(gel_fields));
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, lines);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, 1);
    TIFFSetField(tiff, TIFFTAG_FILLORDER, 1);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, 1);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(tiff, TIFFTAG_ORIENTATION, 1);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, 1);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tiff, 0));
    TIFFSetField(tiff, TIFFTAG_XRESOLUTION, 114.0);
    TIFFSetField(tiff, TIFFTAG_YRESOLUTION, 114.0);
    TIFFSetField(tiff, TIFFTAG_SOFTWARE, "Unified read system");
    TIFFSetField(tiff, TIFFTAG_HOSTCOMPUTER, "OS9-680x0 system");
    TIFFSetField(tiff, TIFFTAG_MD_LABNAME, "Varnholm LAB");
    TIFFSetField(tiff, TIFFTAG_MD_SAMPLEINFO, "Sample info goes here");
    TIFFSetField(tiff, TIFFTAG_MD_PREPDATE, "Prep date ...");
    TIFFSetField(tiff, TIFFTAG_MD_PREPTIME, "Prep time");
    TIFFSetField(tiff, TIFFTAG_MD_FILEUNITS, "Counts");
    TIFFSetField(tiff, TIFFTAG_MD_SCALEPIXEL, 1.0);
}

int gel_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    form_start(format, box, data_type, output);
    if (element_size(data_type) != 2) {
        sv_printf(output.cn, "! Unified library cannot supply 16-bit sized information.\n");
        return -1;
    }
    auto state = std::make_shared<gel_state>();
    state->width = static_cast<std::uint32_t>(box.dx == 1 ? box.dy : box.dx);
    state->lines = static_cast<std::uint32_t>(box.dx == 1 || box.dy == 1 ? box.dt : box.dy);
    state->assembler = line_assembler(static_cast<std::size_t>(state->width) * 2);
    ::unlink(gel_file);
    TIFFSetErrorHandler(nullptr); // the session gets lines of its own
    TIFFSetWarningHandler(nullptr);
    state->tiff.reset(TIFFOpen(gel_file, "w"));
    if (!state->tiff) {
        sv_printf(output.cn, "! Cannot open temporary TIFF file for output.\n");
        return -1;
    }
    set_tags(state->tiff.get(), state->width, state->lines);
    format.specific = std::move(state);
    return 0;
}

bool write_line(gel_state &state, int cn, const std::byte *line) {
    if (state.written >= state.lines) {
        sv_printf(cn, programming_error, 173);
        sv_printf(cn, "! Scan lines in the image: %d  Scan lines written: %d.\n",
                  static_cast<int>(state.lines), static_cast<int>(state.written) + 1);
        return false;
    }
    // The library may swap the bytes of what it is given only where the file's order is not the machine's,
    // which it is here: the buffer stays as it is.
    if (TIFFWriteScanline(state.tiff.get(), const_cast<std::byte *>(line), state.written, 0) < 0) {
        sv_printf(cn, "! TIFFWriteScanline failed on line %d.\n", static_cast<int>(state.written));
        return false;
    }
    ++state.written;
    return true;
}

int gel_write(_unif_format &format, const void *buffer, int dx, int dy, int dt) {
    auto &state = *static_cast<gel_state *>(format.specific.get());
    const auto count =
        static_cast<std::size_t>(dx) * static_cast<std::size_t>(dy) * static_cast<std::size_t>(dt);
    const auto one_line = static_cast<std::size_t>(state.width) * 2;
    const bool done = state.assembler.add(
        static_cast<const std::byte *>(buffer), count * 2, [&](const std::byte *lines, std::size_t n) {
            for (std::size_t i = 0; i < n; ++i)
                if (!write_line(state, format.output->cn, lines + i * one_line))
                    return false;
            return true;
        });
    return done ? 0 : -1;
}

int gel_stop(_unif_format &format, bool failed) {
    auto &state = *static_cast<gel_state *>(format.specific.get());
    const int cn = format.output->cn;
    if (!failed && state.written < state.lines) {
        sv_printf(cn, programming_error, 110);
        sv_printf(cn, "! Total scan lines: %d  Wrote: %d.\n", static_cast<int>(state.lines),
                  static_cast<int>(state.written));
        failed = true;
    }
    if (!failed && TIFFFlush(state.tiff.get()) == 0) {
        sv_printf(cn, "! TIFFWriteScanline failed on line %d.\n", static_cast<int>(state.written));
        failed = true;
    }
    state.tiff.reset();
    if (failed) {
        ::unlink(gel_file);
        return -1;
    }
    return send_file(*format.output, gel_file, "! Failed to re-read temporary file %s.\n",
                     "! Failed when writing GEL to output.\n");
}

} // namespace

int send_file(UnifOutput &output, const char *name, const char *reread_error, const char *write_error) {
    constexpr std::size_t block_size = 4096;
    const unique_fd fd(::open(name, O_RDONLY | O_CLOEXEC));
    std::byte block[block_size];
    ssize_t got = fd ? 1 : -1;
    while (got > 0) {
        got = read_some(fd.get(), block, sizeof block);
        if (got > 0 && output.write(output, block, static_cast<std::size_t>(got)) != 0) {
            sv_print(output.cn, write_error);
            return -1;
        }
    }
    if (got == 0)
        return 0;
    char line[256];
    std::snprintf(line, sizeof line, reread_error, name);
    sv_print(output.cn, line);
    return -1;
}

void gel_setup_format(_unif_format &format) {
    format.type = form_type::gel;
    format.startfn = gel_start;
    format.stopfn = gel_stop;
    format.writefn = gel_write;
    format.needs_conversion = 1;
    format.data_type_required = el_short;
    format.swapping = swap_never;
    format.max_dimension = 2;
}

} // namespace kestrel
