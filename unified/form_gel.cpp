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

// More scan lines than the image has, and fewer. The numbers belong to texts that users know; they name no
// line of this file.
constexpr const char *too_many_lines = "! Programming error in SERVER/unifgel.c at line 173.\n";
constexpr const char *too_few_lines = "! Programming error in SERVER/unifgel.c at line 110.\n";

struct tiff_closer {
    void operator()(TIFF *tiff) const { TIFFClose(tiff); }
};

class gel_form final : public form_worker {
  public:
    int start(const _unif_format &format, const unified_box &box) override;
    int write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) override;
    int stop(const _unif_format &format, bool failed) override;

  private:
    bool write_line(int cn, const std::byte *line);

    std::unique_ptr<TIFF, tiff_closer> tiff_;
    std::uint32_t width_ = 0; // samples of a scan line
    std::uint32_t lines_ = 0;
    std::uint32_t written_ = 0;
    line_assembler assembler_{1};
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

int gel_form::start(const _unif_format &format, const unified_box &box) {
    const UnifOutput &output = *format.output;
    if (format.size != 2) {
        sv_printf(output.cn, "! Unified library cannot supply 16-bit sized information.\n");
        return -1;
    }
    width_ = static_cast<std::uint32_t>(box.dx == 1 ? box.dy : box.dx);
    lines_ = static_cast<std::uint32_t>(box.dx == 1 || box.dy == 1 ? box.dt : box.dy);
    assembler_ = line_assembler(static_cast<std::size_t>(width_) * 2);
    ::unlink(gel_file);
    TIFFSetErrorHandler(nullptr); // the session gets lines of its own
    TIFFSetWarningHandler(nullptr);
    tiff_.reset(TIFFOpen(gel_file, "w"));
    if (!tiff_) {
        sv_printf(output.cn, "! Cannot open temporary TIFF file for output.\n");
        return -1;
    }
    set_tags(tiff_.get(), width_, lines_);
    return 0;
}

bool gel_form::write_line(int cn, const std::byte *line) {
    if (written_ >= lines_) {
        sv_print(cn, too_many_lines);
        sv_printf(cn, "! Scan lines in the image: %d  Scan lines written: %d.\n", static_cast<int>(lines_),
                  static_cast<int>(written_) + 1);
        return false;
    }
    // The library may swap the bytes of what it is given only where the file's order is not the machine's,
    // which it is here: the buffer stays as it is.
    if (TIFFWriteScanline(tiff_.get(), const_cast<std::byte *>(line), written_, 0) < 0) {
        sv_printf(cn, "! TIFFWriteScanline failed on line %d.\n", static_cast<int>(written_));
        return false;
    }
    ++written_;
    return true;
}

int gel_form::write(const _unif_format &format, const std::byte *elements, int dx, int dy, int dt) {
    const auto one_line = static_cast<std::size_t>(width_) * 2;
    const bool done =
        assembler_.add(elements, form_elements(dx, dy, dt) * 2, [&](const std::byte *lines, std::size_t n) {
            for (std::size_t i = 0; i < n; ++i)
                if (!write_line(format.output->cn, lines + i * one_line))
                    return false;
            return true;
        });
    return done ? 0 : -1;
}

int gel_form::stop(const _unif_format &format, bool failed) {
    const int cn = format.output->cn;
    if (!failed && written_ < lines_) {
        sv_print(cn, too_few_lines);
        sv_printf(cn, "! Total scan lines: %d  Wrote: %d.\n", static_cast<int>(lines_),
                  static_cast<int>(written_));
        failed = true;
    }
    if (!failed && TIFFFlush(tiff_.get()) == 0) {
        sv_printf(cn, "! TIFFWriteScanline failed on line %d.\n", static_cast<int>(written_));
        failed = true;
    }
    tiff_.reset();
    if (failed) {
        ::unlink(gel_file);
        return -1;
    }
    return send_file(*format.output, gel_file, "GEL");
}

} // namespace

int send_file(UnifOutput &output, const char *name, const char *kind) {
    constexpr std::size_t block_size = 4096;
    const unique_fd fd(::open(name, O_RDONLY | O_CLOEXEC));
    std::byte block[block_size];
    ssize_t got = fd ? 1 : -1;
    while (got > 0) {
        got = read_some(fd.get(), block, sizeof block);
        if (got > 0 && output.write(block, static_cast<std::size_t>(got)) != 0) {
            sv_printf(output.cn, "! Failed when writing %s to output.\n", kind);
            return -1;
        }
    }
    if (got == 0)
        return 0;
    sv_printf(output.cn, "! Failed to re-read temporary file %s.\n", name);
    return -1;
}

void gel_setup_format(_unif_format &format) {
    format.type = form_type::gel;
    format.needs_conversion = 1;
    format.data_type_required = el_short;
    format.swapping = swap_never;
    format.max_dimension = 2;
    format.worker = std::make_unique<gel_form>();
}

} // namespace kestrel
