#include "imagecache/thumbnails/ThumbnailMaker.h"

#include <cmath>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "base/Exception.h"
#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageLoader.h"
#include "imageio/PngMemoryEncoder.h"
#include "imageio/VideoThumbnail.h"
#include "imageio/detail/ExifThumbnail.h"
#include "imageio/detail/JpegCodec.h"
#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/PathExtension.h"
#include "imaging/ColorProfile.h"
#include "imaging/ColorTransform.h"
#include "imaging/ImagingException.h"

namespace qor::imagecache {

namespace {

using imageio::Image4ub;
using imageio::ImagePtr;
using Vec2i = math::GenVec<int, 2>;

// Why a thumbnail could not be made; makeThumbnail logs it with the path.
using ThumbnailFailure = Exception;

// The size the header claims, before any pixel is decoded: (0, 0) where this format's header is
// not read here (ImageLoader reads it then). Throws ThumbnailFailure for a JPEG without a header.
Vec2i headerSize(RandomAccessFile& file, const imageio::ImageDecoder& decoder,
                 const unsigned char* head, size_t length) {
    if (decoder.format() == imageio::FileFormatJpeg) {
        const Vec2i size = imageio::detail::readJpegSize(file);
        if (size.x <= 0 || size.y <= 0) throw ThumbnailFailure("no readable JPEG header");
        return size;
    }
    // PNG: the signature, then IHDR's length and type, then width and height big-endian.
    if (decoder.format() == imageio::FileFormatPng && length >= 24 &&
        std::memcmp(head + 12, "IHDR", 4) == 0) {
        const auto bigEndian = [&](size_t at) {
            return int((uint32_t(head[at]) << 24 | uint32_t(head[at + 1]) << 16 |
                        uint32_t(head[at + 2]) << 8 | uint32_t(head[at + 3])) &
                       0x7fffffffu);
        };
        return Vec2i(bigEndian(16), bigEndian(20));
    }
    return Vec2i(0, 0);
}

void refuseBomb(Vec2i size) {
    if (uint64_t(size.x) * uint64_t(size.y) > kMaxPixels)
        throw ThumbnailFailure(formatLog("the header claims %*x%* pixels, more than %* allowed",
                                         size.x, size.y, kMaxPixels));
}

// Whether a preview of `preview` pixels has the proportions of the `full` picture (within one
// pixel of the preview's scale): cameras letterbox thumbnails of other proportions with bars.
bool sameProportions(Vec2i preview, Vec2i full) {
    const double scale = double(preview.x) / double(full.x);
    return std::abs(double(full.y) * scale - double(preview.y)) <= 1.0 + scale;
}

// A JPEG fitted inside `target` (stored orientation): the EXIF thumbnail when it is at least as
// large and of the same proportions, else the picture decoded at the smallest DCT reduction that
// is still at least `target`. A broken thumbnail is logged and passed over.
ImagePtr decodeJpegFitted(RandomAccessFile& file, const std::string& path,
                          const imageio::ImageLoader& loader, Vec2i target) {
    const long thumbLocation = loader.getMetadata()->thumbLocation();
    if (thumbLocation != 0) {
        imageio::detail::JpegDecodeReport report;
        ImagePtr thumb = imageio::detail::decodeExifThumbnail(
            file, thumbLocation, Vec2i(0, 0), imageio::ImageQualityThumbnail, &report);
        if (!thumb) {
            QOR_LOG(LogWarning,
                    "makeThumbnail: broken EXIF thumbnail in '%*' (%*): decoding the "
                    "picture instead",
                    path, report.failure.empty() ? "no JPEG" : report.failure);
        } else if (thumb->width() >= target.x && thumb->height() >= target.y &&
                   sameProportions(Vec2i(thumb->width(), thumb->height()), loader.storedSize())) {
            return thumb;
        }
    }
    // libjpeg's reductions give ceil(W / d) x ceil(H / d); the largest d that still covers the
    // target on both sides.
    const Vec2i full = loader.storedSize();
    int denominator = 8;
    while (denominator > 1 && ((full.x + denominator - 1) / denominator < target.x ||
                               (full.y + denominator - 1) / denominator < target.y))
        denominator /= 2;
    imageio::detail::JpegDecodeReport report;
    ImagePtr image =
        imageio::detail::decodeJpegReduced(file, denominator, imageio::ImageQualityFast, &report);
    if (report.dataMissing)
        throw ThumbnailFailure("truncated or damaged JPEG data (" + report.failure + ")");
    if (!image) throw ThumbnailFailure("the JPEG does not decode (" + report.failure + ")");
    return image;
}

// Any other picture through its decoder, a preview it holds first (a camera raw file's), as the
// decoder contract has it: fitted inside `box` ((0, 0): full size), stored orientation; `target`
// is that fit. Throws imageio::ImageLoaderException.
ImagePtr decodeOtherFitted(const imageio::ImageLoader& loader, Vec2i box, Vec2i target) {
    SharedPtr<imageio::Metadata> decoded;  // what was decoded: a preview or the picture
    ImagePtr image = loader.decodeFitted(box, imageio::ImageQualityThumbnail, &decoded);
    // A preview smaller than the target gives way to the picture.
    const Vec2i source = decoded ? decoded->size() : Vec2i(0, 0);
    if (image && (source.x < target.x || source.y < target.y) && source != loader.storedSize())
        image = loader.decodeFitted(box, imageio::ImageQualityFast);
    return image;
}

// Converts `image` from the file's embedded RGB profile to sRGB, in place. A profile that cannot
// be used leaves the pixels as they are (logged).
void convertToSRGB(Image4ub& image, const imageio::ImageLoader& loader, const std::string& path) {
    const SharedPtr<imaging::ColorProfile> profile = loader.getColorProfile();
    const SharedPtr<imaging::ColorProfile> sRGB = imaging::ColorProfile::sRGB();
    if (!profile || profile->colorSpace() != imaging::ColorProfile::CsRGB || *profile == *sRGB)
        return;
    try {
        imaging::ColorTransform::create(profile, sRGB, 0.0, imaging::ColorTransform::IntentDefault,
                                        imaging::PfRGBA8)
            ->apply(image);
    } catch (const imaging::ColorProfileException& e) {
        QOR_LOG(LogWarning, "makeThumbnail: the colour profile of '%*' is left unconverted: %*",
                path, e.what());
    }
}

// The picture upright.
ImagePtr orient(const ImagePtr& image, int orientation) {
    if (orientation <= 1 || orientation > 8) return image;
    const Vec2i stored(image->width(), image->height());
    const Vec2i upright = imageio::detail::uprightSize(stored, orientation);
    return imageio::detail::orientRegion(*image, math::Recti(Vec2i(0, 0), stored), orientation,
                                         stored, math::Recti(Vec2i(0, 0), upright));
}

ImagePtr makePictureThumbnail(RandomAccessFile& file, const std::string& path,
                              const imageio::ImageDecoder& decoder, const unsigned char* head,
                              size_t length, int maxSide) {
    refuseBomb(headerSize(file, decoder, head, length));
    std::unique_ptr<imageio::ImageLoader> loader;
    try {
        loader = std::make_unique<imageio::ImageLoader>(FastString<char>(path));
    } catch (const imageio::ImageLoaderException& e) {
        throw ThumbnailFailure(e.what());
    }
    refuseBomb(loader->storedSize());

    // Fitted inside the box, but never larger than the picture; `stored` is the same size before
    // the orientation turns it.
    const Vec2i upright = loader->size();
    const bool fits = upright.x <= maxSide && upright.y <= maxSide;
    // Fitting is symmetric in the sides, so the square box fits the stored picture alike.
    const Vec2i box = fits ? Vec2i(0, 0) : Vec2i(maxSide, maxSide);
    const Vec2i target = fits ? upright : imageio::fitInside(upright, box);
    const Vec2i stored = imageio::detail::uprightSize(target, loader->orientation());

    ImagePtr image;
    if (loader->format() == imageio::ImageLoader::FormatJpeg) {
        image = decodeJpegFitted(file, path, *loader, stored);
    } else {
        try {
            image = decodeOtherFitted(*loader, box, stored);
        } catch (const imageio::ImageLoaderException& e) {
            throw ThumbnailFailure(e.what());
        }
    }
    if (!image) throw ThumbnailFailure("no picture in the file");
    // Decoders reduce to a scale near the target; the area average gives the exact fit.
    if (image->width() != stored.x || image->height() != stored.y)
        image = imageio::scaleTrilinear_destructive(std::move(image), stored.x, stored.y,
                                                    imageio::ScaleExact);
    convertToSRGB(*image, *loader, path);
    return orient(image, loader->orientation());
}

ImagePtr makeVideoThumbnail(const std::string& path, int maxSide) {
    ImagePtr image;
    // Up to the size class asked (the video module's own limit is the grid's 256), never enlarged.
    const imageio::VideoThumbnailLimits limits{maxSide, false};
    if (!imageio::loadVideoThumbnail(FastString<char>(path), Vec2i(maxSide, maxSide), &image,
                                     nullptr, limits))
        throw ThumbnailFailure("the video cannot be opened");
    if (!image) throw ThumbnailFailure("no frame of the video decodes");
    return image;
}

// What makeThumbnail does, throwing ThumbnailFailure (or what the libraries throw) for a file it
// cannot make a thumbnail of. Holds the file's shared path lock throughout.
ImagePtr makeOrThrow(const std::string& path, int maxSide) {
    if (maxSide <= 0) throw ThumbnailFailure(formatLog("no size to fit in (%*)", maxSide));
    static const bool listsFilled = (imageio::initSupportedItemsList(), true);
    (void)listsFilled;

    std::unique_ptr<LockedFileGeneric<RandomAccessFileStd>> file;
    try {
        file = std::make_unique<LockedFileGeneric<RandomAccessFileStd>>(
            path, FilesystemScopedLock::Shared);
    } catch (const std::exception& e) {
        throw ThumbnailFailure(std::string("cannot be read: ") + e.what());
    }
    if (file->size() == 0) throw ThumbnailFailure("the file is empty");

    unsigned char head[imageio::DecoderHeadLength] = {};
    const size_t length = file->readAt(0, head, sizeof head);
    const FastString<char> name(path);
    const imageio::ImageDecoder* decoder =
        imageio::findDecoder(head, length, imageio::detail::upperExtension(name));
    if (decoder) return makePictureThumbnail(*file, path, *decoder, head, length, maxSide);
    if (imageio::getItemType(name) == imageio::ItemTypeVideo)
        return makeVideoThumbnail(path, maxSide);
    throw ThumbnailFailure("not a picture or video that can be read");
}

}  // namespace

imageio::ImagePtr makeThumbnail(const std::string& path, int maxSide, std::string* error) {
    std::string reason;
    {
        // The decoders' own lines (a reader's "Premature end of file", say) do not name the
        // file; on failure the first of them goes into this function's one line instead.
        ThreadLogDiversion decoderLines;
        try {
            ImagePtr image = makeOrThrow(path, maxSide);
            if (image) {
                decoderLines.release();
                return image;
            }
            reason = "no picture in the file";
        } catch (const std::bad_alloc&) {
            decoderLines.release();
            throw;
        } catch (const std::exception& e) {
            reason = e.what();
        }
        const std::string cause = decoderLines.firstLine();
        if (!cause.empty() && reason.find(cause) == std::string::npos) reason += " (" + cause + ")";
    }
    const std::string line = formatLog("makeThumbnail: no thumbnail of '%*': %*", path, reason);
    QOR_LOG(LogWarning, "%*", line);
    if (error) *error = line;
    return nullptr;
}

std::string encodeThumbnail(const imageio::Image4ub& image) {
    bool opaque = true;
    for (int y = 0; y < image.height() && opaque; ++y) {
        const unsigned char* row = image.row(y);
        for (int x = 0; x < image.width(); ++x)
            if (row[4 * x + 3] != 255) {
                opaque = false;
                break;
            }
    }
    std::string bytes;
    if (!opaque) {
        std::string failure;
        // Thumbnails are written once and read often; level 6 is zlib's balance of size and time.
        if (!imageio::encodePngRgba(imaging::RgbaRows{image.width(), image.height(), 8,
                                                      image.row(0), image.byteStride()},
                                    6, &bytes, &failure)) {
            QOR_LOG(LogError, "encodeThumbnail: PNG of %*x%* failed: %*", image.width(),
                    image.height(), failure);
            bytes.clear();
        }
        return bytes;
    }
    // A JPEG at quality 90 takes far less than the raw pixels; the bound covers any content.
    const uint64_t capacity = uint64_t(image.width()) * uint64_t(image.height()) * 4 + 65536;
    const std::unique_ptr<unsigned char[]> buffer(new unsigned char[capacity]);
    uint64_t written = 0;
    // saveJpeg takes a shared handle; this one borrows the caller's image without owning it.
    const imageio::ConstImagePtr borrowed(std::shared_ptr<void>(), &image);
    if (!imageio::saveJpeg(buffer.get(), capacity, borrowed, 90, &written)) {
        QOR_LOG(LogError, "encodeThumbnail: JPEG of %*x%* failed", image.width(), image.height());
        return bytes;
    }
    bytes.assign(reinterpret_cast<const char*>(buffer.get()), size_t(written));
    return bytes;
}

imageio::ImagePtr decodeThumbnail(const std::string& bytes) {
    static constexpr unsigned char pngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    ImagePtr image;
    if (bytes.size() >= 8 && std::memcmp(data, pngSignature, 8) == 0) {
        RandomAccessFileMemory file(data, bytes.size());
        if (!imageio::loadPng(file, &image, nullptr)) return nullptr;  // loadPng logged why
        return image;
    }
    std::string reason = "neither JPEG nor PNG";
    if (bytes.size() >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
        RandomAccessFileMemory file(data, bytes.size());
        imageio::detail::JpegDecodeReport report;
        image = imageio::detail::decodeJpegReduced(file, 1, imageio::ImageQualityBest, &report);
        if (image && !report.dataMissing) return image;
        reason = "broken JPEG (" + report.failure + ")";
    }
    QOR_LOG(LogWarning, "decodeThumbnail: %* bytes are no thumbnail: %*", bytes.size(), reason);
    return nullptr;
}

}  // namespace qor::imagecache
