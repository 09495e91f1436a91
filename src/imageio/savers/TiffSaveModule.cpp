// The TIFF writer of the save modules, on libtiff: RGB or RGBA (unassociated alpha) in 8 or 16-bit
// integers, 16-bit (half) or 32-bit floating point; LZW ("ffm_T_rb_UseLZW") or Deflate
// ("ffm_T_rb_UseZIP") with the horizontal predictor, or no compression; strips of about 256 KiB;
// BigTIFF when the picture may pass 4 GiB. The ICC profile goes into its tag when
// "ffm_T_chck_EmbedICC" is 1, the metadata into an XMP packet and the image directory's tags.

#include <tiffio.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Log.h"
#include "imageio/savers/SaveModule.h"

namespace qor::imageio {

namespace {

// libtiff reports errors through a process-wide handler; each message is kept for the thread
// that caused it, so the exception can name it.
thread_local std::string tLastTiffError;

void tiffErrorHandler(const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof(text), format, args);
    tLastTiffError = std::string(module ? module : "libtiff") + ": " + text;
}

void installTiffErrorHandler() {
    static std::once_flag once;
    std::call_once(once, [] { TIFFSetErrorHandler(tiffErrorHandler); });
}

struct TiffCloser {
    void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};

class TiffSaveModule final : public SaveModule {
public:
    int acceptedDataType(int dataType) const override {
        switch (dataType) {
            case DtRGB8: case DtRGBA8: case DtRGB16: case DtRGBA16: case DtRGB16F: case DtRGBA16F:
            case DtRGB32F: case DtRGBA32F: return dataType;
            default: return 0;
        }
    }

protected:
    bool write(const std::string& path, RowProvider& rows, int dataType) override {
        installTiffErrorHandler();
        tLastTiffError.clear();
        const math::GenVec<int, 2> size = rows.size();
        const int channels = moduleChannels(dataType);
        const int bytes = moduleBytesPerChannel(dataType);
        const bool isFloat = dataType == DtRGB16F || dataType == DtRGBA16F ||
                             dataType == DtRGB32F || dataType == DtRGBA32F;
        const uint64_t rowBytes = uint64_t(size.x) * channels * bytes;
        const bool big = rowBytes * uint64_t(size.y) > (uint64_t(1) << 31);
        std::unique_ptr<TIFF, TiffCloser> tiff(TIFFOpen(path.c_str(), big ? "w8" : "w"));
        if (!tiff) fail(path, "cannot create the file");
        TIFF* t = tiff.get();
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(size.x));
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(size.y));
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(channels));
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(bytes * 8));
        TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, isFloat ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(t, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
        if (channels == 4) {
            const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
            TIFFSetField(t, TIFFTAG_EXTRASAMPLES, 1, &extra);
        }
        uint16_t compression = COMPRESSION_NONE;
        if (parameter("ffm_T_rb_UseLZW", 0))
            compression = COMPRESSION_LZW;
        else if (parameter("ffm_T_rb_UseZIP", 0))
            compression = COMPRESSION_ADOBE_DEFLATE;
        TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
        // Floating point predictor for floats; libtiff's is for 16, 24 and 32 bits.
        if (compression != COMPRESSION_NONE && !(isFloat && bytes == 2))
            TIFFSetField(t, TIFFTAG_PREDICTOR, isFloat ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL);
        const uint32_t rowsPerStrip =
            uint32_t(std::max<uint64_t>(1, std::min<uint64_t>(size.y, (256 * 1024) / std::max<uint64_t>(rowBytes, 1))));
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
        TIFFSetField(t, TIFFTAG_SOFTWARE, "qor");
        if (SharedPtr<const imaging::ColorProfile> profile = embeddedProfile("ffm_T_chck_EmbedICC"))
            TIFFSetField(t, TIFFTAG_ICCPROFILE, uint32_t(profile->size()), profile->data().data());
        if (_metadata) writeMetadata(t);

        // The predictors difference a scanline in the buffer they are given: each row is copied
        // first, so that the provider's pixels (a cached tile, the caller's image) stay as they are.
        const bool predicted = compression != COMPRESSION_NONE;
        std::vector<unsigned char> scratch(predicted ? size_t(rowBytes) : 0);
        for (int y = 0; y < size.y; ++y) {
            const void* row = rows.getRow(size_t(rowBytes), dataType, math::Recti(0, y, size.x, 1));
            if (!row) return false;
            void* line = const_cast<void*>(row);
            if (predicted) line = std::memcpy(scratch.data(), row, scratch.size());
            if (TIFFWriteScanline(t, line, uint32_t(y), 0) < 0)
                fail(path, "cannot write row " + std::to_string(y));
        }
        if (!TIFFWriteDirectory(t)) fail(path, "cannot write the directory");
        TIFF* raw = tiff.release();
        TIFFFlush(raw);
        TIFFClose(raw);
        if (!tLastTiffError.empty()) fail(path, "");
        return true;
    }

private:
    void writeMetadata(TIFF* t) const {
        const Metadata::RawMap& raw = _metadata->rawMap();
        auto text = [&](const char* key, ttag_t tag) {
            auto it = raw.find(Metadata::String(key));
            if (it != raw.end() && !it->second.view().empty())
                TIFFSetField(t, tag, std::string(it->second.view()).c_str());
        };
        text("tiff:Make", TIFFTAG_MAKE);
        text("tiff:Model", TIFFTAG_MODEL);
        text("tiff:DateTime", TIFFTAG_DATETIME);
        text("tiff:Artist", TIFFTAG_ARTIST);
        text("tiff:Copyright", TIFFTAG_COPYRIGHT);
        text("tiff:ImageDescription", TIFFTAG_IMAGEDESCRIPTION);
        // A TIFF written by scanlines has no room for an EXIF directory: every key, EXIF ones
        // included, goes into the XMP packet, which readers convert back.
        std::string xmp;
        detail::encodeMetadata(*_metadata, nullptr, xmp);
        if (!xmp.empty()) TIFFSetField(t, TIFFTAG_XMLPACKET, uint32_t(xmp.size()), xmp.data());
    }

    [[noreturn]] static void fail(const std::string& path, const std::string& what) {
        std::string message = "TIFF writing of " + path + " failed";
        if (!what.empty()) message += ": " + what;
        if (!tLastTiffError.empty()) message += " (" + tLastTiffError + ")";
        throw ImageSaverException(message);
    }
};

}  // namespace

std::unique_ptr<SaveModule> makeTiffSaveModule() { return std::make_unique<TiffSaveModule>(); }

}  // namespace qor::imageio
