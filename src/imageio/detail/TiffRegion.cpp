// Region reads of TIFF files on libtiff: only the tiles or strips under the region are decoded.
// Contiguous 8, 16 and 32-bit (integer or float) samples of grey or RGB, with or without alpha, are
// converted here; any other layout (palette, YCbCr, separate planes, other bit depths) goes
// through libtiff's RGBA reader, which decodes the whole picture.

#include <tiffio.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/Log.h"
#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/RegionReaders.h"
#include "imaging/ImagingException.h"

namespace qor::imageio::detail {

namespace {

// libtiff's messages go to handlers of each open file (never to the process-wide ones, which the
// TIFF writer uses): the last error is kept for the exception, warnings go to the debug log.
thread_local std::string tTiffError;

int onTiffError(TIFF*, void*, const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    tTiffError = std::string(module ? module : "libtiff") + ": " + text;
    return 1;
}

int onTiffWarning(TIFF*, void*, const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    QOR_LOG(LogDebug, "libtiff warning: %*: %*", module ? module : "", text);
    return 1;
}

struct TiffCloser {
    void operator()(TIFF* t) const { TIFFClose(t); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    std::string message = "cannot read TIFF '" + path + "': " + what;
    if (!tTiffError.empty()) message += " (" + tTiffError + ")";
    throw ImageLoaderException(message);
}

TiffPtr openTiff(const std::string& path) {
    tTiffError.clear();
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options, onTiffError, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(options, onTiffWarning, nullptr);
    TiffPtr t(TIFFOpenExt(path.c_str(), "rm", options));
    TIFFOpenOptionsFree(options);
    if (!t) fail(path, "not a TIFF file or not readable");
    return t;
}

// What the sample layout of the directory is, when it is one that is converted here.
struct Layout {
    int bits = 0;
    bool isFloat = false;
    int spp = 0;
    bool grey = false;
    bool alpha = false;  // the last sample is alpha
    bool direct = false;
};

Layout layoutOf(TIFF* t) {
    Layout l;
    uint16_t bits = 0, spp = 1, format = SAMPLEFORMAT_UINT, photometric = 0, planar = 1;
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric)) return l;
    l.bits = bits;
    l.spp = spp;
    l.isFloat = format == SAMPLEFORMAT_IEEEFP;
    l.grey = photometric == PHOTOMETRIC_MINISBLACK;
    const int colour = l.grey ? 1 : 3;
    l.alpha = spp > colour;
    const bool bitsOk = l.isFloat ? bits == 32 : (bits == 8 || bits == 16) &&
                                                     format == SAMPLEFORMAT_UINT;
    l.direct = planar == PLANARCONFIG_CONTIG && bitsOk &&
               (photometric == PHOTOMETRIC_RGB || l.grey) && spp >= colour && spp <= colour + 1 + 2;
    return l;
}

// Converts `count` pixels of the file's samples at `in` into RGBA of T at `out`.
template <class T, class S>
void convertPixels(const S* in, T* out, int count, const Layout& l) {
    for (int i = 0; i < count; ++i, in += l.spp, out += 4) {
        if (l.grey) {
            out[0] = out[1] = out[2] = convertSample<T>(in[0]);
            out[3] = l.alpha ? convertSample<T>(in[1]) : opaqueValue<T>();
        } else {
            for (int c = 0; c < 3; ++c) out[c] = convertSample<T>(in[c]);
            out[3] = l.alpha ? convertSample<T>(in[3]) : opaqueValue<T>();
        }
    }
}

template <class T>
void convertRun(const unsigned char* in, T* out, int count, const Layout& l) {
    if (l.isFloat)
        convertPixels(reinterpret_cast<const float*>(in), out, count, l);
    else if (l.bits == 16)
        convertPixels(reinterpret_cast<const uint16_t*>(in), out, count, l);
    else
        convertPixels(in, out, count, l);
}

// The block (tile or strip) of `size` at `origin` holds rows of `blockWidth` pixels; copies its
// part inside `rect` into `out` (which starts at rect's corner).
template <class T>
void copyBlock(const std::vector<unsigned char>& block, Vec2i origin, Vec2i size,
               const math::Recti& rect, const Layout& l, imaging::GenImageData<T, 4>& out) {
    const size_t pixelBytes = size_t(l.spp) * size_t(l.bits / 8);
    const int x0 = std::max(origin.x, rect.mins.x), x1 = std::min(origin.x + size.x, rect.maxs.x);
    const int y0 = std::max(origin.y, rect.mins.y), y1 = std::min(origin.y + size.y, rect.maxs.y);
    for (int y = y0; y < y1; ++y) {
        const unsigned char* in =
            block.data() + (size_t(y - origin.y) * size_t(size.x) + size_t(x0 - origin.x)) * pixelBytes;
        convertRun(in, out.row(y - rect.mins.y) + size_t(x0 - rect.mins.x) * 4, x1 - x0, l);
    }
}

template <class T>
void readTiles(TIFF* t, const std::string& path, const math::Recti& rect, const Layout& l,
               imaging::GenImageData<T, 4>& out) {
    uint32_t tw = 0, th = 0;
    TIFFGetField(t, TIFFTAG_TILEWIDTH, &tw);
    TIFFGetField(t, TIFFTAG_TILELENGTH, &th);
    if (tw == 0 || th == 0) fail(path, "tile size 0");
    std::vector<unsigned char> block(size_t(TIFFTileSize(t)));
    const int tx0 = rect.mins.x / int(tw), tx1 = (rect.maxs.x - 1) / int(tw);
    const int ty0 = rect.mins.y / int(th), ty1 = (rect.maxs.y - 1) / int(th);
    for (int ty = ty0; ty <= ty1; ++ty)
        for (int tx = tx0; tx <= tx1; ++tx) {
            const uint32_t index = TIFFComputeTile(t, uint32_t(tx) * tw, uint32_t(ty) * th, 0, 0);
            if (TIFFReadEncodedTile(t, index, block.data(), tmsize_t(block.size())) < 0)
                fail(path, "tile " + std::to_string(index) + " does not decode");
            copyBlock(block, Vec2i(tx * int(tw), ty * int(th)), Vec2i(int(tw), int(th)), rect, l,
                      out);
        }
}

template <class T>
void readStrips(TIFF* t, const std::string& path, const math::Recti& rect, const Layout& l,
                int width, imaging::GenImageData<T, 4>& out) {
    uint32_t rowsPerStrip = 0;
    TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
    uint32_t height = 0;
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
    rowsPerStrip = std::max<uint32_t>(1, std::min(rowsPerStrip, height));
    std::vector<unsigned char> block(size_t(TIFFStripSize(t)));
    const int s0 = rect.mins.y / int(rowsPerStrip), s1 = (rect.maxs.y - 1) / int(rowsPerStrip);
    for (int s = s0; s <= s1; ++s) {
        const tmsize_t got = TIFFReadEncodedStrip(t, uint32_t(s), block.data(), tmsize_t(block.size()));
        if (got < 0) fail(path, "strip " + std::to_string(s) + " does not decode");
        const int rows = std::min(int(rowsPerStrip), int(height) - s * int(rowsPerStrip));
        copyBlock(block, Vec2i(0, s * int(rowsPerStrip)), Vec2i(width, rows), rect, l, out);
    }
}

// libtiff's RGBA reader: the whole picture, then the region.
template <class T>
void readThroughRGBA(TIFF* t, const std::string& path, const math::Recti& rect, Vec2i size,
                     imaging::GenImageData<T, 4>& out) {
    std::vector<uint32_t> raster(size_t(size.x) * size_t(size.y));
    if (!TIFFReadRGBAImageOriented(t, uint32_t(size.x), uint32_t(size.y), raster.data(),
                                   ORIENTATION_TOPLEFT, 0))
        fail(path, "unsupported sample layout");
    for (int y = rect.mins.y; y < rect.maxs.y; ++y) {
        T* d = out.row(y - rect.mins.y);
        for (int x = rect.mins.x; x < rect.maxs.x; ++x, d += 4) {
            const uint32_t p = raster[size_t(y) * size_t(size.x) + size_t(x)];
            d[0] = convertSample<T>(uint8_t(TIFFGetR(p)));
            d[1] = convertSample<T>(uint8_t(TIFFGetG(p)));
            d[2] = convertSample<T>(uint8_t(TIFFGetB(p)));
            d[3] = convertSample<T>(uint8_t(TIFFGetA(p)));
        }
    }
}

}  // namespace

TiffInfo readTiffInfo(const std::string& path) {
    TiffPtr t = openTiff(path);
    uint32_t w = 0, h = 0;
    uint16_t orientation = ORIENTATION_TOPLEFT;
    TIFFGetField(t.get(), TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t.get(), TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(t.get(), TIFFTAG_ORIENTATION, &orientation);
    if (w == 0 || h == 0) fail(path, "no picture size");
    return TiffInfo{Vec2i(int(w), int(h)), int(orientation)};
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> readTiffRegion(const std::string& path,
                                                      const math::Recti& rect) {
    TiffPtr t = openTiff(path);
    uint32_t w = 0, h = 0;
    TIFFGetField(t.get(), TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(t.get(), TIFFTAG_IMAGELENGTH, &h);
    const Vec2i size{int(w), int(h)};
    if (rect.empty() || rect.mins.x < 0 || rect.mins.y < 0 || rect.maxs.x > size.x ||
        rect.maxs.y > size.y)
        fail(path, "region outside the picture");
    auto out = imaging::GenImageData<T, 4>::create(rect.width(), rect.height());
    const Layout l = layoutOf(t.get());
    if (!l.direct)
        readThroughRGBA(t.get(), path, rect, size, *out);
    else if (TIFFIsTiled(t.get()))
        readTiles(t.get(), path, rect, l, *out);
    else
        readStrips(t.get(), path, rect, l, size.x, *out);
    return out;
}

template SharedPtr<imaging::GenImageData<unsigned char, 4>> readTiffRegion(const std::string&,
                                                                           const math::Recti&);
template SharedPtr<imaging::GenImageData<unsigned short, 4>> readTiffRegion(const std::string&,
                                                                            const math::Recti&);
template SharedPtr<imaging::GenImageData<float, 4>> readTiffRegion(const std::string&,
                                                                   const math::Recti&);

}  // namespace qor::imageio::detail
