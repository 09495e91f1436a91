// The JPEG codec on libjpeg: the decoder core with its reductions and region of interest, the
// encoder core, and the public loadJpeg and saveJpeg forms.
//
// libjpeg reports errors through error_exit, which long-jumps back into the function that called
// setjmp (see detail/JpegIO.h). The state of a call therefore lives on the heap, reached through a
// pointer that does not change after setjmp, and the frames that call into libjpeg hold no object
// with a destructor while they do.

#include "imageio/detail/JpegCodec.h"

#include <jerror.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/FileRegion.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageIO.h"
#include "imageio/MetadataReader.h"
#include "imageio/detail/JpegIO.h"
#include "imageio/detail/OutputFile.h"

namespace qor::imageio {

namespace {

using Vec2i = math::GenVec<int, 2>;
using detail::JpegErrorManager;

// Grey of the rows that a failed decode never reached: what libjpeg makes of missing data.
constexpr unsigned char MissingGrey = 128;

// Where compressed data come from.
struct JpegInput {
    explicit JpegInput(RandomAccessFile& f) : file(&f) {}
    JpegInput(const void* d, uint64_t byteCount) : data(d), size(static_cast<size_t>(byteCount)) {}

    RandomAccessFile* file = nullptr;
    const void* data = nullptr;
    size_t size = 0;

    std::string name() const { return file ? file->name() : std::string("memory"); }
    void install(j_decompress_ptr cinfo) const {
        if (file)
            detail::jpegRAFdatasrc(cinfo, *file);
        else
            detail::jpegMEMdatasrc(cinfo, data, size);
    }
};

// ---------------------------------------------------------------- decoding

struct DecodeState {
    JpegErrorManager err;
    jpeg_decompress_struct cinfo;
    bool started = false;  // scanlines are being read
    bool cmyk = false;     // the output is CMYK, to be turned into RGB here
    bool adobeInverted = false;
    math::Recti roi;  // clipped to the output; empty for the whole picture
    std::vector<JSAMPLE> line;
    ImagePtr image;
    int rowsDone = 0;  // target rows filled so far
    detail::JpegDecodeReport* report = nullptr;  // failures go here instead of the log when set
    int denominator = 0;  // the reduction asked for; 0 to pick it from the size wanted
};

void configureDecoder(DecodeState& s, Vec2i size, ImageQuality quality) {
    jpeg_decompress_struct& c = s.cinfo;
    if (s.denominator > 0) {
        c.scale_num = 1;
        c.scale_denom = static_cast<unsigned>(s.denominator);
    } else if (size != Vec2i(0, 0)) {
        c.scale_num = 1;
        c.scale_denom = static_cast<unsigned>(
            detail::jpegScaleDenominator(Vec2i(int(c.image_width), int(c.image_height)), size));
    }
    if (c.jpeg_color_space == JCS_CMYK || c.jpeg_color_space == JCS_YCCK) {
        // libjpeg turns CMYK into nothing but CMYK; the RGB conversion is done per row here.
        c.out_color_space = JCS_CMYK;
        s.cmyk = true;
        s.adobeInverted = c.saw_Adobe_marker;
    } else {
        // R, G, B and an alpha of 255 straight from libjpeg-turbo's colour converter: the same
        // samples as JCS_RGB, without a pass of our own to widen them.
        c.out_color_space = JCS_EXT_RGBA;
    }
    c.dct_method = quality == ImageQualityBest ? JDCT_FLOAT : JDCT_IFAST;
    c.do_fancy_upsampling = FALSE;
    c.do_block_smoothing = FALSE;
    c.quantize_colors = FALSE;
}

// Pictures of at least this many bytes are decoded into memory backed by huge pages.
constexpr size_t HugePageTargetBytes = size_t(8) << 20;

// Asks the kernel to back the pages of a large target with huge pages, before anything is written
// to it. A fresh target of a 24-megapixel picture is 96 MB that the kernel otherwise hands out,
// clears and later takes back 4 kB at a time, which costs as much as a third of the decode; with
// 2 MB pages it is a few dozen faults. Only advice: where the kernel has no huge pages, nothing
// changes.
void adviseHugePages(Image4ub& image) {
    const size_t bytes = image.byteStride() * size_t(image.height());
    if (bytes < HugePageTargetBytes) return;
    const auto page = uintptr_t(::sysconf(_SC_PAGESIZE));
    const auto begin = (reinterpret_cast<uintptr_t>(image.data()) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<uintptr_t>(image.data()) + bytes) & ~(page - 1);
    if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

// Sizes the line buffer and the target after jpeg_start_decompress. False (logged) when the region
// of interest lies outside the picture. Throws std::bad_alloc.
bool allocateTarget(DecodeState& s, const math::Recti& roi, const std::string& name) {
    const int width = int(s.cinfo.output_width);
    const int height = int(s.cinfo.output_height);
    if (!roi.empty()) {
        s.roi = roi & math::Recti(0, 0, width, height);
        if (s.roi.empty()) {
            QOR_LOG(LogWarning, "decodeJpegCore: region %* lies outside the %*x%* picture of '%*'",
                    roi, width, height, name);
            return false;
        }
    }
    if (!s.roi.empty() || s.cmyk) s.line.resize(size_t(width) * size_t(s.cinfo.output_components));
    s.image = s.roi.empty() ? Image4ub::create(width, height)
                            : Image4ub::create(s.roi.width(), s.roi.height());
    adviseHugePages(*s.image);
    return true;
}

void convertRow(const DecodeState& s, const JSAMPLE* in, unsigned char* out, int count) {
    if (!s.cmyk) {
        std::memcpy(out, in, size_t(count) * 4);  // already R, G, B, 255
        return;
    }
    // Adobe writes CMYK inverted (0 is full ink); others write it plain.
    for (int x = 0; x < count; ++x, in += 4, out += 4) {
        const int k = s.adobeInverted ? in[3] : 255 - in[3];
        for (int c = 0; c < 3; ++c) {
            const int ink = s.adobeInverted ? in[c] : 255 - in[c];
            out[c] = static_cast<unsigned char>((ink * k + 127) / 255);
        }
        out[3] = 255;
    }
}

// The whole picture in RGBA: libjpeg writes straight into the target rows, as many a call as it
// recommends (rec_outbuf_height, at most 4), so that its merged 2x2 upsampler writes both of its
// rows in place instead of through a spare row. A long jump loses at most the rows of that call.
void readRowsDirect(DecodeState& s) {
    j_decompress_ptr c = &s.cinfo;
    constexpr int MostRowsPerRead = 4;
    JSAMPROW rows[MostRowsPerRead];
    const int perRead = std::clamp(c->rec_outbuf_height, 1, MostRowsPerRead);
    while (c->output_scanline < c->output_height) {
        const int y = int(c->output_scanline);
        const int count = std::min(perRead, int(c->output_height) - y);
        for (int i = 0; i < count; ++i) rows[i] = s.image->row(y + i);
        const int got = int(jpeg_read_scanlines(c, rows, JDIMENSION(count)));
        if (got == 0) break;
        s.rowsDone = y + got;
    }
}

// Reads the scanlines into the target. Holds no object with a destructor: libjpeg may long-jump
// out of jpeg_read_scanlines.
void readRows(DecodeState& s) {
    if (s.roi.empty() && !s.cmyk) {
        readRowsDirect(s);
        return;
    }
    j_decompress_ptr c = &s.cinfo;
    const int components = c->output_components;
    while (c->output_scanline < c->output_height) {
        const int y = int(c->output_scanline);
        if (!s.roi.empty() && y >= s.roi.maxs.y) break;
        JSAMPROW row = s.line.data();
        if (jpeg_read_scanlines(c, &row, 1) != 1) break;
        if (s.roi.empty()) {
            convertRow(s, row, s.image->row(y), int(c->output_width));
            s.rowsDone = y + 1;
        } else if (y >= s.roi.mins.y) {
            convertRow(s, row + size_t(s.roi.mins.x) * components, s.image->row(y - s.roi.mins.y),
                       s.roi.width());
            s.rowsDone = y - s.roi.mins.y + 1;
        }
    }
}

// Rows never reached become opaque grey, so that no uninitialised memory is handed out.
void fillMissingRows(DecodeState& s) {
    if (!s.image) return;
    for (int y = s.rowsDone; y < s.image->height(); ++y) {
        unsigned char* row = s.image->row(y);
        std::memset(row, MissingGrey, size_t(s.image->width()) * 4);
        for (int x = 0; x < s.image->width(); ++x) row[4 * x + 3] = 255;
    }
}

// A file without a JPEG header, told to the report or the log.
[[gnu::noinline]] void noImage(DecodeState& s, const std::string& name) {
    if (s.report)
        s.report->failure = "no image";
    else
        QOR_LOG(LogWarning, "decodeJpegCore: no image in '%*'", name);
}

// Tells the report, when there is one, that the data broke off before the last row. Kept out of
// line: a string built in the frame of the setjmp could be clobbered by the long jump.
[[gnu::noinline]] void noteMissingData(DecodeState& s) {
    if (!s.report || (!s.err.dataMissing && s.rowsDone >= s.image->height())) return;
    s.report->dataMissing = true;
    s.report->failure = detail::jpegMessage(reinterpret_cast<j_common_ptr>(&s.cinfo));
}

// After a long jump: log, keep what was read when scanlines had started, destroy the object.
[[gnu::noinline]] ImagePtr decodeFailed(DecodeState& s, const std::string& name) {
    const std::string message =
        detail::jpegMessage(reinterpret_cast<j_common_ptr>(&s.cinfo)) + " ('" + name + "')";
    if (s.report) {
        s.report->failure = detail::jpegMessage(reinterpret_cast<j_common_ptr>(&s.cinfo));
        s.report->dataMissing = s.started;
    }
    if (s.started) {
        if (!s.report)
            QOR_LOG(LogWarning, "decodeJpegCore: libjpeg failed after decompression with: %*",
                    message);
        fillMissingRows(s);
    } else {
        if (!s.report) QOR_LOG(LogWarning, "decodeJpegCore: libjpeg failed with: %*", message);
        s.image.reset();
    }
    jpeg_destroy_decompress(&s.cinfo);
    return std::move(s.image);
}

ImagePtr decodeJpegCore(const JpegInput& input, Vec2i size, ImageQuality quality,
                        const math::Recti& roi, detail::JpegDecodeReport* report = nullptr,
                        int denominator = 0) {
    const std::string name = input.name();
    const std::unique_ptr<DecodeState> state = std::make_unique<DecodeState>();
    DecodeState& s = *state;
    s.report = report;
    s.denominator = denominator;
    s.cinfo.err = detail::initJpegErrorManager(s.err);
    if (setjmp(s.err.jump)) return decodeFailed(s, name);

    jpeg_create_decompress(&s.cinfo);
    input.install(&s.cinfo);
    if (jpeg_read_header(&s.cinfo, TRUE) != JPEG_HEADER_OK) {
        noImage(s, name);
        jpeg_destroy_decompress(&s.cinfo);
        return nullptr;
    }
    configureDecoder(s, size, quality);
    jpeg_start_decompress(&s.cinfo);
    bool allocated = false;
    try {
        allocated = allocateTarget(s, roi, name);
    } catch (...) {
        jpeg_destroy_decompress(&s.cinfo);
        throw;
    }
    if (!allocated) {
        jpeg_destroy_decompress(&s.cinfo);
        return nullptr;
    }
    s.started = true;
    readRows(s);
    noteMissingData(s);
    fillMissingRows(s);
    if (s.roi.empty()) jpeg_finish_decompress(&s.cinfo);
    jpeg_destroy_decompress(&s.cinfo);
    return std::move(s.image);
}

ImagePtr decodeAndReduce(const JpegInput& input, Vec2i size, ImageQuality quality,
                         const math::Recti& roi) {
    ImagePtr image = decodeJpegCore(input, size, quality, roi);
    if (image && roi.empty() && size != Vec2i(0, 0) &&
        (size.x < image->width() || size.y < image->height()))
        image = scaleTrilinear_destructive(std::move(image), size.x, size.y, ScaleFitInside);
    return image;
}

// The picture size from the JPEG header; (0, 0) when there is no header.
struct HeaderState {
    JpegErrorManager err;
    jpeg_decompress_struct cinfo;
};

Vec2i jpegHeaderSize(RandomAccessFile& file) {
    const std::unique_ptr<HeaderState> state = std::make_unique<HeaderState>();
    HeaderState& s = *state;
    s.cinfo.err = detail::initJpegErrorManager(s.err);
    if (setjmp(s.err.jump)) {
        QOR_LOG(LogDebug, "readJpegMetadata: no JPEG header in '%*': %*", file.name(),
                detail::jpegMessage(reinterpret_cast<j_common_ptr>(&s.cinfo)));
        jpeg_destroy_decompress(&s.cinfo);
        return Vec2i(0, 0);
    }
    jpeg_create_decompress(&s.cinfo);
    detail::jpegRAFdatasrc(&s.cinfo, file);
    Vec2i size(0, 0);
    if (jpeg_read_header(&s.cinfo, TRUE) == JPEG_HEADER_OK)
        size = Vec2i(int(s.cinfo.image_width), int(s.cinfo.image_height));
    jpeg_destroy_decompress(&s.cinfo);
    return size;
}

// ---------------------------------------------------------------- encoding

// Where compressed data go.
struct JpegOutput {
    RandomAccessFile* file = nullptr;
    bool fixedSize = false;
    void* buffer = nullptr;
    size_t size = 0;
    size_t* written = nullptr;

    std::string name() const { return file ? file->name() : std::string("memory"); }
    void install(j_compress_ptr cinfo) const {
        if (file)
            detail::jpegRAFdatadst(cinfo, *file, fixedSize);
        else
            detail::jpegMEMdatadst(cinfo, buffer, size, written);
    }
};

using RowSource = Function0<const unsigned char*>;

struct EncodeState {
    JpegErrorManager err;
    jpeg_compress_struct cinfo;
    std::vector<JSAMPLE> row;
    bool stopped = false;  // the row source ran dry
    int inputChannels = 4;
    const detail::JpegExtras* extras = nullptr;
};

// Feeds the rows, alpha dropped. Holds no object with a destructor while libjpeg runs.
void writeRows(EncodeState& s, const RowSource& nextRow) {
    j_compress_ptr c = &s.cinfo;
    while (c->next_scanline < c->image_height) {
        const unsigned char* pixels = nextRow ? nextRow() : nullptr;
        if (!pixels) {
            s.stopped = true;
            return;
        }
        if (s.inputChannels == 3) {
            JSAMPROW rows[1] = {const_cast<JSAMPLE*>(pixels)};
            jpeg_write_scanlines(c, rows, 1);
            continue;
        }
        JSAMPLE* out = s.row.data();
        for (JDIMENSION x = 0; x < c->image_width; ++x, pixels += 4, out += 3) {
            out[0] = pixels[0];
            out[1] = pixels[1];
            out[2] = pixels[2];
        }
        JSAMPROW rows[1] = {s.row.data()};
        jpeg_write_scanlines(c, rows, 1);
    }
}

bool encodeFailed(EncodeState& s, const std::string& name) {
    QOR_LOG(LogError, "encodeJpegCore: libjpeg failed with: %*",
            detail::jpegMessage(reinterpret_cast<j_common_ptr>(&s.cinfo)) + " ('" + name + "')");
    jpeg_destroy_compress(&s.cinfo);
    return false;
}

// Writes the APP1 blocks and the ICC profile of the extras after the start of compression.
void writeExtras(EncodeState& s) {
    if (!s.extras) return;
    for (const std::string& block : s.extras->app1)
        jpeg_write_marker(&s.cinfo, JPEG_APP0 + 1, reinterpret_cast<const JOCTET*>(block.data()),
                          unsigned(block.size()));
    if (s.extras->icc && !s.extras->icc->empty())
        jpeg_write_icc_profile(&s.cinfo, s.extras->icc->data(), unsigned(s.extras->icc->size()));
}

bool encodeJpegCore(const JpegOutput& output, Vec2i size, const RowSource& nextRow, bool floatDct,
                    int quality, const detail::JpegExtras* extras = nullptr,
                    bool* stopped = nullptr) {
    QOR_ASSERT_TEXT(0 <= quality && quality <= 100, "0 <= quality && quality <= 100");
    const std::string name = output.name();
    if (size.x <= 0 || size.y <= 0) {
        QOR_LOG(LogError, "encodeJpegCore: nothing to encode, size %*x%* ('%*')", size.x, size.y,
                name);
        return false;
    }
    const std::unique_ptr<EncodeState> state = std::make_unique<EncodeState>();
    EncodeState& s = *state;
    if (extras) {
        s.extras = extras;
        s.inputChannels = extras->inputChannels;
    }
    s.cinfo.err = detail::initJpegErrorManager(s.err);
    if (setjmp(s.err.jump)) return encodeFailed(s, name);

    jpeg_create_compress(&s.cinfo);
    output.install(&s.cinfo);
    s.cinfo.image_width = JDIMENSION(size.x);
    s.cinfo.image_height = JDIMENSION(size.y);
    s.cinfo.input_components = 3;
    s.cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&s.cinfo);
    jpeg_set_quality(&s.cinfo, quality, FALSE);
    if (floatDct) s.cinfo.dct_method = JDCT_FLOAT;
    if (extras) s.cinfo.optimize_coding = extras->optimizeCoding ? TRUE : FALSE;
    jpeg_start_compress(&s.cinfo, TRUE);
    writeExtras(s);
    try {
        s.row.resize(size_t(size.x) * 3);
    } catch (...) {
        jpeg_destroy_compress(&s.cinfo);
        throw;
    }
    try {
        writeRows(s, nextRow);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "encodeJpegCore: the row source failed with: %* ('%*')", e.what(), name);
        jpeg_destroy_compress(&s.cinfo);
        return false;
    }
    if (stopped) {
        // The caller takes a stop as an answer of its own (a cancel), not as a failure.
        *stopped = s.stopped;
        if (s.stopped) {
            jpeg_destroy_compress(&s.cinfo);
            return false;
        }
    }
    jpeg_finish_compress(&s.cinfo);
    jpeg_destroy_compress(&s.cinfo);
    return !s.stopped;
}

bool encodeImage(const JpegOutput& output, const ConstImagePtr& image, int quality) {
    if (!image) {
        QOR_LOG(LogError, "saveJpeg: no image to save to '%*'", output.name());
        return false;
    }
    int y = 0;
    RowSource rows = [&image, &y]() -> const unsigned char* {
        return y < image->height() ? image->row(y++) : nullptr;
    };
    try {
        return encodeJpegCore(output, Vec2i(image->width(), image->height()), rows, true, quality);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "saveJpeg: failed to save '%*': %*", output.name(), e.what());
        return false;
    }
}

bool encodeRows(const JpegOutput& output, const Vec2i& size, const RowSource& nextRow,
                int quality) {
    try {
        return encodeJpegCore(output, size, nextRow, false, quality);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "saveJpeg: failed to save '%*': %*", output.name(), e.what());
        return false;
    }
}

JpegOutput fileOutput(RandomAccessFile& file) {
    JpegOutput output;
    output.file = &file;
    output.fixedSize = dynamic_cast<FileRegion*>(&file) != nullptr;
    return output;
}

bool loadJpegFrom(const JpegInput& input, Vec2i size, ImageQuality quality, ImagePtr* image) {
    if (!image) return false;
    image->reset();
    try {
        *image = decodeAndReduce(input, size, quality, math::Recti());
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "loadJpeg: failed to load '%*': %*", input.name(), e.what());
        image->reset();
    }
    return *image != nullptr;
}

}  // namespace

namespace detail {

bool encodeJpeg(RandomAccessFile& file, math::GenVec<int, 2> size,
                const Function0<const unsigned char*>& nextRow, int quality,
                const JpegExtras& extras, bool* stopped) {
    JpegOutput output;
    output.file = &file;
    return encodeJpegCore(output, size, nextRow, false, quality, &extras, stopped);
}

int jpegScaleDenominator(Vec2i full, Vec2i wanted) {
    const int w = wanted.x, h = wanted.y;
    if (w == 0 || h == 0) return 1;
    for (int denominator : {8, 4, 2})
        if (w < full.x / denominator || h < full.y / denominator) return denominator;
    return 1;
}

ImagePtr decodeJpeg(RandomAccessFile& file, Vec2i size, ImageQuality quality,
                    const math::Recti& roi) {
    return decodeAndReduce(JpegInput(file), size, quality, roi);
}

ImagePtr decodeJpegReduced(RandomAccessFile& file, int denominator, ImageQuality quality,
                           JpegDecodeReport* report) {
    return decodeJpegCore(JpegInput(file), Vec2i(0, 0), quality, math::Recti(), report,
                          denominator);
}

ImagePtr decodeJpeg(const void* data, size_t byteCount, Vec2i size, ImageQuality quality,
                    const math::Recti& roi) {
    return decodeAndReduce(JpegInput(data, byteCount), size, quality, roi);
}

Vec2i readJpegSize(RandomAccessFile& file) { return jpegHeaderSize(file); }

SharedPtr<Metadata> readJpegMetadata(RandomAccessFile& file) {
    const Vec2i size = jpegHeaderSize(file);
    SharedPtr<Metadata> metadata = readMetadata(file);
    if (metadata && size.x > 0 && size.y > 0) metadata->set(MetadataField::Imagesize, size);
    return metadata;
}

}  // namespace detail

bool loadJpeg(RandomAccessFile& file, Vec2i size, ImageQuality quality, ImagePtr* image) {
    return loadJpegFrom(JpegInput(file), size, quality, image);
}

bool loadJpeg(const void* data, uint64_t byteCount, Vec2i size, ImageQuality quality,
              ImagePtr* image) {
    return loadJpegFrom(JpegInput(data, byteCount), size, quality, image);
}

bool saveJpeg(RandomAccessFile& file, ConstImagePtr image, int quality) {
    return encodeImage(fileOutput(file), image, quality);
}

bool saveJpeg(void* buffer, uint64_t byteCount, ConstImagePtr image, int quality,
              uint64_t* bytesWritten) {
    size_t written = 0;
    JpegOutput output;
    output.buffer = buffer;
    output.size = static_cast<size_t>(byteCount);
    output.written = &written;
    const bool ok = encodeImage(output, image, quality);
    if (bytesWritten) *bytesWritten = ok ? written : 0;
    return ok;
}

bool saveJpegUnlocked(const FastString<char>& path, ConstImagePtr image, int quality) {
    return detail::writeNewFile(
        path, false, "saveJpeg: failed to create file: %*",
        [&](RandomAccessFile& file) { return encodeImage(fileOutput(file), image, quality); });
}

bool saveJpeg(const FastString<char>& path, ConstImagePtr image, int quality) {
    return detail::writeNewFile(
        path, true, "saveJpeg: failed to create file: %*",
        [&](RandomAccessFile& file) { return encodeImage(fileOutput(file), image, quality); });
}

bool saveJpegUnlocked(const FastString<char>& path, const Vec2i& size, const RowSource& nextRow,
                      int quality) {
    return detail::writeNewFile(path, false, "saveJpeg: failed to create file: %*",
                                [&](RandomAccessFile& file) {
                                    return encodeRows(fileOutput(file), size, nextRow, quality);
                                });
}

bool saveJpeg(const FastString<char>& path, const Vec2i& size, const RowSource& nextRow,
              int quality) {
    return detail::writeNewFile(path, true, "saveJpeg: failed to create file: %*",
                                [&](RandomAccessFile& file) {
                                    return encodeRows(fileOutput(file), size, nextRow, quality);
                                });
}

}  // namespace qor::imageio
