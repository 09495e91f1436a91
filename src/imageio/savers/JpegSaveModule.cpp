// The JPEG writer of the save modules, on the codec's encoder: 8-bit RGB rows, the quality of
// "ffm_J_sldr_JPEGQlty" (90 when unset), optimal Huffman tables up to 4 Mpixel, the ICC profile in APP2 markers
// when "ffm_J_chck_EmbedICC" is 1, EXIF and XMP in APP1 markers.

#include <algorithm>
#include <memory>
#include <string>

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/detail/JpegCodec.h"
#include "imageio/savers/SaveModule.h"

namespace qor::imageio {

namespace {

constexpr char kXmpHeader[] = "http://ns.adobe.com/xap/1.0/";  // with its terminating zero
constexpr size_t kLargestMarker = 65533;
constexpr long long kLargestOptimizedPixels = 4ll << 20;

class JpegSaveModule final : public SaveModule {
public:
    int acceptedDataType(int dataType) const override {
        return dataType == DtRGB8 || dataType == DtRGBA8 ? DtRGB8 : 0;
    }

protected:
    bool write(const std::string& path, RowProvider& rows, int) override {
        detail::JpegExtras extras;
        extras.inputChannels = 3;
        // Optimal Huffman tables need the whole picture's coefficients in memory before the
        // first byte is written: only for pictures small enough for that not to matter.
        extras.optimizeCoding =
            (long long)rows.size().x * rows.size().y <= kLargestOptimizedPixels;
        if (_metadata) {
            // A block larger than one marker can hold is left out.
            std::string exif, xmp;
            detail::encodeMetadata(*_metadata, &exif, xmp);
            if (!exif.empty() && exif.size() + 6 <= kLargestMarker)
                extras.app1.push_back(std::string("Exif\0\0", 6) + exif);
            if (!xmp.empty() && xmp.size() + sizeof(kXmpHeader) <= kLargestMarker)
                extras.app1.push_back(std::string(kXmpHeader, sizeof(kXmpHeader)) + xmp);
        }
        const SharedPtr<const imaging::ColorProfile> profile =
            embeddedProfile("ffm_J_chck_EmbedICC");
        if (profile) extras.icc = &profile->data();
        const math::GenVec<int, 2> size = rows.size();
        const size_t rowBytes = size_t(size.x) * 3;
        int y = 0;
        Function0<const unsigned char*> nextRow = [&]() -> const unsigned char* {
            const void* row = rows.getRow(rowBytes, DtRGB8, math::Recti(0, y, size.x, 1));
            ++y;
            return static_cast<const unsigned char*>(row);
        };
        RandomAccessFileStd file(path, RandomAccessFileStd::ModeCreate);
        bool stopped = false;
        const int quality = std::clamp(parameter("ffm_J_sldr_JPEGQlty", 90), 0, 100);
        if (detail::encodeJpeg(file, size, nextRow, quality, extras, &stopped)) return true;
        if (stopped) return false;
        throw ImageSaverException("JPEG encoding of " + path + " failed (see the log)");
    }
};

}  // namespace

std::unique_ptr<SaveModule> makeJpegSaveModule() { return std::make_unique<JpegSaveModule>(); }

}  // namespace qor::imageio
