// JpegBandReader: one libjpeg decoder kept from band to band.
//
// libjpeg's error_exit long-jumps (see JpegIO.h): the decoder lives on the heap and the functions
// that call setjmp hold no object with a destructor.

#include "imageio/detail/JpegBandReader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/detail/JpegIO.h"

namespace qor::imageio::detail {

namespace {

// Grey of the lines that a failed decode never reached, as decodeJpeg fills them.
constexpr unsigned char MissingGrey = 128;

// A band of a wide picture is tens of megabytes that the kernel would fault in 4 kB at a time as
// libjpeg writes it; 2 MB pages cut that to a few dozen faults. Only advice.
void preferHugePages(Image4ub& band) {
    const size_t bytes = band.byteStride() * size_t(band.height());
    const auto page = uintptr_t(::sysconf(_SC_PAGESIZE));
    const auto begin = (reinterpret_cast<uintptr_t>(band.data()) + page - 1) & ~(page - 1);
    const auto end = (reinterpret_cast<uintptr_t>(band.data()) + bytes) & ~(page - 1);
    if (end >= begin + (uintptr_t(2) << 20))
        ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

}  // namespace

struct JpegBandReader::State {
    JpegErrorManager err;
    jpeg_decompress_struct cinfo;
    uint64_t fileSize = 0;
    std::vector<JSAMPLE> scratch;  // one line, for the lines above a band
    int bandLinesDone = 0;         // lines of the current band filled so far
};

JpegBandReader::JpegBandReader(std::string path, ImageQuality quality, int scaleDenominator)
    : _path(std::move(path)), _quality(quality), _scaleDenominator(scaleDenominator) {}

JpegBandReader::~JpegBandReader() { stop(); }

void JpegBandReader::stop() {
    if (!_state) return;
    jpeg_destroy_decompress(&_state->cinfo);
    _state.reset();
}

namespace {

// Reads the header of the JPEG in `file` into s.cinfo, created here. False, with s.cinfo
// destroyed again, for a file that the band reads do not serve (see readsFile). Holds no object
// with a destructor, as it calls setjmp.
template <class S>
bool readServedHeader(S& s, RandomAccessFile& file) {
    s.cinfo.err = initJpegErrorManager(s.err);
    if (setjmp(s.err.jump)) {
        jpeg_destroy_decompress(&s.cinfo);
        return false;  // the caller's own decode logs what is wrong with the file
    }
    jpeg_create_decompress(&s.cinfo);
    jpegRAFdatasrc(&s.cinfo, file);
    jpeg_decompress_struct& c = s.cinfo;
    if (jpeg_read_header(&c, TRUE) != JPEG_HEADER_OK || c.progressive_mode ||
        c.jpeg_color_space == JCS_CMYK || c.jpeg_color_space == JCS_YCCK) {
        jpeg_destroy_decompress(&c);
        return false;
    }
    return true;
}

}  // namespace

bool JpegBandReader::readsFile(const std::string& path) {
    try {
        RandomAccessFileStd file(path);
        const auto state = std::make_unique<State>();
        if (!readServedHeader(*state, file)) return false;
        jpeg_destroy_decompress(&state->cinfo);
        return true;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return false;  // no such file: whoever reads it reports that
    }
}

bool JpegBandReader::start(RandomAccessFile& file) {
    auto state = std::make_unique<State>();
    State& s = *state;
    if (!readServedHeader(s, file)) return false;
    if (setjmp(s.err.jump)) {  // the jump of the header read ended with its frame
        jpeg_destroy_decompress(&s.cinfo);
        return false;
    }
    jpeg_decompress_struct& c = s.cinfo;
    // As decodeJpeg decodes at full size; a denominator above 1 has libjpeg scale its DCTs.
    c.scale_num = 1;
    c.scale_denom = unsigned(_scaleDenominator);
    c.out_color_space = JCS_EXT_RGBA;
    c.dct_method = _quality == ImageQualityBest ? JDCT_FLOAT : JDCT_IFAST;
    c.do_fancy_upsampling = FALSE;
    c.do_block_smoothing = FALSE;
    c.quantize_colors = FALSE;
    jpeg_start_decompress(&c);
    s.fileSize = file.size();
    s.scratch.resize(size_t(c.output_width) * size_t(c.output_components));
    _state = std::move(state);
    return true;
}

namespace {

// Decodes down to line `top`, then lines [top, top + band.height()) into `band`, as many a call
// as libjpeg recommends. Counts the band's lines in s.bandLinesDone and every decoded line in
// *decoded. False after a libjpeg failure, whose message the object keeps.
template <class S>
bool decodeLines(S& s, Image4ub& band, int top, long long* decoded) {
    if (setjmp(s.err.jump)) return false;
    j_decompress_ptr c = &s.cinfo;
    while (int(c->output_scanline) < top) {
        JSAMPROW row = s.scratch.data();
        if (jpeg_read_scanlines(c, &row, 1) != 1) return false;
        ++*decoded;
    }
    constexpr int MostLinesPerCall = 4;
    JSAMPROW rows[MostLinesPerCall];
    const int perCall = std::clamp(c->rec_outbuf_height, 1, MostLinesPerCall);
    const int bottom = top + band.height();
    while (int(c->output_scanline) < bottom) {
        const int y = int(c->output_scanline);
        const int count = std::min(perCall, bottom - y);
        for (int i = 0; i < count; ++i) rows[i] = band.row(y - top + i);
        const int got = int(jpeg_read_scanlines(c, rows, JDIMENSION(count)));
        if (got == 0) return false;
        s.bandLinesDone = y + got - top;
        *decoded += got;
    }
    return true;
}

}  // namespace

ImagePtr JpegBandReader::read(int top, int height) {
    if (_unusable || top < 0 || height <= 0) return nullptr;
    RandomAccessFileStd file(_path);
    if (_state && (int(_state->cinfo.output_scanline) > top || file.size() != _state->fileSize))
        stop();
    if (_state) {
        jpegRAFdatasrcRebind(&_state->cinfo, file);
    } else if (!start(file)) {
        _unusable = true;
        return nullptr;
    }
    const int width = int(_state->cinfo.output_width);
    const int lines = int(_state->cinfo.output_height);
    if (top + height > lines) return nullptr;
    ImagePtr band = Image4ub::create(width, height);
    preferHugePages(*band);
    _state->bandLinesDone = 0;
    if (!decodeLines(*_state, *band, top, &_linesDecoded)) {
        QOR_LOG(LogWarning, "JpegBandReader: libjpeg failed in '%*': %*", _path,
                jpegMessage(reinterpret_cast<j_common_ptr>(&_state->cinfo)));
        for (int y = _state->bandLinesDone; y < height; ++y) {
            unsigned char* row = band->row(y);
            std::memset(row, MissingGrey, size_t(width) * 4);
            for (int x = 0; x < width; ++x) row[4 * x + 3] = 255;
        }
        stop();
        _unusable = true;
        return band;
    }
    if (int(_state->cinfo.output_scanline) >= lines) stop();
    return band;
}

}  // namespace qor::imageio::detail
