// ImageLoader: the format roads of region reads, orientation, metadata and the embedded profile.

#include "imageio/ImageLoader.h"

#include <exception>
#include <new>
#include <string>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/MetadataReader.h"
#include "imageio/detail/Exiv2Setup.h"
#include "imageio/detail/JpegCodec.h"
#include "imageio/detail/LoaderImageSource.h"
#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/MetadataText.h"
#include "imageio/detail/PathExtension.h"
#include "imageio/detail/PngBandReader.h"
#include "imageio/detail/RandomAccessFileIo.h"
#include "imageio/detail/RegionReaders.h"
#include "imaging/ImagingException.h"

namespace qor::imageio {

namespace {

using Vec2i = math::GenVec<int, 2>;

[[noreturn]] void fail(const FastString<char>& path, const std::string& what) {
    throw ImageLoaderException("ImageLoader: cannot read '" + std::string(path.view()) +
                               "': " + what);
}

// `rect` of a PNG, decoded from the top down to the rectangle's last line and no further, with
// `S`-bit samples. Null when the file is not read by lines (interlaced, or no PNG header): the
// whole-picture road reads or reports it. Throws ImageLoaderException naming the path when libpng
// fails in the lines.
template <class S>
SharedPtr<imaging::GenImageData<S, 4>> pngRegion(const FastString<char>& path, Vec2i storedSize,
                                                 const math::Recti& rect) {
    SharedPtr<imaging::GenImageData<S, 4>> lines;
    detail::PngBandReader reader(std::string(path.view()), false);
    try {
        lines = reader.read<S>(rect.mins.y, rect.height());
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return nullptr;
    }
    if (!reader.failure().empty()) fail(path, reader.failure());
    if (!lines) return nullptr;
    auto region = detail::orientRegion(
        *lines, math::Recti(0, rect.mins.y, lines->width(), rect.height()), 1, storedSize, rect);
    if (!region) fail(path, "the decoded lines are narrower than the picture's header says");
    return region;
}

// The road of the formats read here; every other format is its decoder's.
ImageLoader::Format formatOf(const ImageDecoder& decoder) {
    switch (decoder.format()) {
        case FileFormatJpeg:
            return ImageLoader::FormatJpeg;
        case FileFormatPng:
            return ImageLoader::FormatPng;
        case FileFormatTiff:
            return ImageLoader::FormatTiff;
        case FileFormatExr:
            return ImageLoader::FormatExr;
        default:
            return ImageLoader::FormatRegistry;
    }
}

ImageQuality qualityOf(const FastString<char>& path, int imageType) {
    if (imageType == ImageLoader::ImageTypeFull) return ImageQualityBest;
    if (imageType == ImageLoader::ImageTypeDraft) return ImageQualityFast;
    fail(path, "unknown image type " + std::to_string(imageType));
}

}  // namespace

ImageLoader::ImageLoader(const String& path, bool asStored) : _path(path) {
    // The file is opened once here: its first bytes choose the decoder, and the metadata and (for
    // the registry's formats) the decoder's header read come from the same open file.
    try {
        RandomAccessFileStd file(path.view());
        unsigned char head[DecoderHeadLength];
        const size_t length = file.readAt(0, head, sizeof head);
        _decoder = findDecoder(head, length, detail::upperExtension(path));
        if (!_decoder) fail(path, length == 0 ? "empty file" : "no decoder recognises its content");
        _format = formatOf(*_decoder);
        if (_format == FormatJpeg)
            _metadata = detail::readJpegMetadata(file);
        else if (_format != FormatExr)
            _metadata = readMetadata(file);
        if (_format == FormatRegistry) {
            // What the decoder gives (a camera raw file's preview, for one) is the picture.
            SharedPtr<Metadata> decoded;
            if (!_decoder->decode(file, path, Vec2i(0, 0), ImageQualityBest, nullptr, &decoded,
                                  {}) ||
                !decoded)
                fail(path, std::string("the ") + _decoder->name() + " decoder cannot read it");
            _storedSize = decoded->size();
        }
    } catch (const ImageLoaderException&) {
        throw;
    } catch (const std::exception& e) {
        fail(path, e.what());
    }
    if (!_metadata) _metadata = std::make_shared<Metadata>();

    switch (_format) {
        case FormatTiff: {
            const detail::TiffInfo info = detail::readTiffInfo(std::string(path.view()));
            _storedSize = info.size;
            _fileOrientation = info.orientation;
            break;
        }
        case FormatExr: _storedSize = detail::readExrSize(std::string(path.view())); break;
        case FormatRegistry:
            break;
        default: _storedSize = _metadata->size(); break;
    }
    if (_storedSize.x <= 0 || _storedSize.y <= 0) {
        // A header that the metadata reader did not understand: decode to know the size.
        _storedSize = Vec2i(0, 0);
        if (_format == FormatJpeg || _format == FormatPng) {
            const ImagePtr whole = decodeThrough(Vec2i(0, 0), ImageQualityFast, {});
            _storedSize = Vec2i(whole->width(), whole->height());
        }
        if (_storedSize.x <= 0 || _storedSize.y <= 0) fail(path, "no picture size");
    }
    _metadata->set(MetadataField::Imagesize, _storedSize);

    // Registry decoders give their pictures as stored, and the orientation is applied here,
    // except those that turn their pictures themselves: libheif applies the container's
    // rotation, LibRaw turns what it develops (and the raw decoder the preview to match).
    // The file read keeps the EXIF orientation as its "tiff:Orientation" key; the typed field
    // (which also writes that key) is set only by code that changed the metadata afterwards.
    int orientation = 0;
    String text;
    if (!_metadata->get(MetadataField::Orientation, orientation) &&
        _metadata->get(String("tiff:Orientation"), text))
        orientation = detail::metaInt(text.view());
    if (orientation >= 1 && orientation <= 8) _fileOrientation = orientation;
    if (_fileOrientation < 1 || _fileOrientation > 8) _fileOrientation = 1;
    const bool turnedByDecoder =
        _format == FormatRegistry &&
        (_decoder->format() == FileFormatHeif || _decoder->format() == FileFormatRaw);
    _orientation = asStored || turnedByDecoder || _format == FormatExr ? 1 : _fileOrientation;
    _size = orientedSize(_storedSize, _orientation);
}

Vec2i ImageLoader::orientedSize(Vec2i size, int orientation) {
    return detail::uprightSize(size, orientation);
}

ImagePtr ImageLoader::decodeThrough(Vec2i size, ImageQuality quality, const math::Recti& rect,
                                    SharedPtr<Metadata>* decoded) const {
    ImagePtr image;
    try {
        RandomAccessFileStd file(_path.view());
        _decoder->decode(file, _path, size, quality, &image, decoded, rect);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        fail(_path, e.what());
    }
    if (!image) fail(_path, std::string("the ") + _decoder->name() + " decoder cannot decode it");
    return image;
}

ImagePtr ImageLoader::decodeFitted(Vec2i size, ImageQuality quality,
                                   SharedPtr<Metadata>* decoded) const {
    return decodeThrough(size, quality, {}, decoded);
}

SharedPtr<imaging::ColorProfile> ImageLoader::getColorProfile() const {
    if (_format == FormatExr) return nullptr;  // linear light, no ICC profile
    detail::ensureExiv2Initialized();
    try {
        RandomAccessFileStd file(_path.view());
        const std::unique_ptr<Exiv2::Image> image =
            detail::openExiv2Image(std::make_unique<detail::RandomAccessFileIo>(file));
        if (!image) return nullptr;
        image->readMetadata();
        if (!image->iccProfileDefined()) return nullptr;
        const Exiv2::DataBuf* icc = image->iccProfile();
        if (!icc || icc->size_ <= 0) return nullptr;
        return imaging::ColorProfile::fromMemory(icc->pData_, size_t(icc->size_));
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "ImageLoader: no usable ICC profile in '%*': %*", _path, e.what());
    } catch (...) {
        QOR_LOG(LogWarning, "ImageLoader: no usable ICC profile in '%*'", _path);
    }
    return nullptr;
}

ImagePtr ImageLoader::readStored8(int imageType, const math::Recti& rect) const {
    const ImageQuality quality = qualityOf(_path, imageType);
    switch (_format) {
        case FormatJpeg: {
            ImagePtr image;
            try {
                RandomAccessFileStd file(_path.view());
                image = detail::decodeJpeg(file, Vec2i(0, 0), quality, rect);
            } catch (const std::bad_alloc&) {
                throw;
            } catch (const std::exception& e) {
                fail(_path, e.what());
            }
            if (!image) fail(_path, "the JPEG does not decode");
            return image;
        }
        case FormatTiff: return detail::readTiffRegion<unsigned char>(std::string(_path.view()), rect);
        case FormatExr: return detail::readExrRegion<unsigned char>(std::string(_path.view()), rect);
        case FormatPng:
            if (ImagePtr region = pngRegion<unsigned char>(_path, _storedSize, rect)) return region;
            return decodeThrough(Vec2i(0, 0), quality, rect);
        default:
            return decodeThrough(Vec2i(0, 0), quality, rect);
    }
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> ImageLoader::readStored(int imageType,
                                                               const math::Recti& rect) const {
    if constexpr (std::is_same_v<T, unsigned char>) {
        return readStored8(imageType, rect);
    } else {
        if (_format == FormatTiff)
            return detail::readTiffRegion<T>(std::string(_path.view()), rect);
        if (_format == FormatExr) return detail::readExrRegion<T>(std::string(_path.view()), rect);
        if (_format == FormatPng) {
            // 16-bit rows keep a 16-bit file's samples.
            if (const auto region = pngRegion<unsigned short>(_path, _storedSize, rect)) {
                if constexpr (std::is_same_v<T, unsigned short>)
                    return region;
                else
                    return detail::convertImage<T>(*region);
            }
        }
        return detail::convertImage<T>(*readStored8(imageType, rect));
    }
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> ImageLoader::read(int imageType,
                                                         const math::Recti& asked) const {
    const math::Recti whole(0, 0, _size.x, _size.y);
    const math::Recti rect = asked.empty() ? whole : asked;
    if (!whole.contains(rect))
        fail(_path, "rectangle (" + std::to_string(rect.mins.x) + ", " + std::to_string(rect.mins.y) +
                        ", " + std::to_string(rect.maxs.x) + ", " + std::to_string(rect.maxs.y) +
                        ") is not inside the " + std::to_string(_size.x) + "x" +
                        std::to_string(_size.y) + " picture");
    if (_orientation == 1) {
        auto region = readStored<T>(imageType, rect);
        // A decoder that read another size than the header told gives a region of another size.
        if (!region || region->width() != rect.width() || region->height() != rect.height())
            fail(_path, "the decoded picture is not of the size its header says");
        return region;
    }
    const math::Recti stored = detail::storedRect(_orientation, _storedSize, rect);
    const auto region = readStored<T>(imageType, stored);
    auto upright = region ? detail::orientRegion(*region, stored, _orientation, _storedSize, rect)
                          : nullptr;
    if (!upright) fail(_path, "the decoded picture is not of the size its header says");
    return upright;
}

ImagePtr ImageLoader::getImage4ub(int imageType, const math::Recti& rect) const {
    return read<unsigned char>(imageType, rect);
}

SharedPtr<imaging::GenImageData<unsigned short, 4>> ImageLoader::getImage4us(
    int imageType, const math::Recti& rect) const {
    return read<unsigned short>(imageType, rect);
}

SharedPtr<imaging::GenImageData<float, 4>> ImageLoader::getImage4f(int imageType,
                                                                   const math::Recti& rect) const {
    return read<float>(imageType, rect);
}

SharedPtr<imaging::ImageSource> ImageLoader::getImageSource(imaging::RawPixelFormat format,
                                                            int scaleType, Vec2i tileSize,
                                                            const PostProcess& postProcess,
                                                            Vec2i size) const {
    qualityOf(_path, scaleType);
    if (tileSize.x <= 0 || tileSize.y <= 0) fail(_path, "empty tile size");
    if (size == Vec2i(0, 0)) size = _size;
    if (size.x <= 0 || size.y <= 0 || size.x > _size.x || size.y > _size.y)
        fail(_path, "a source can only reduce the picture");
    if (size != _size && format != imaging::PfRGBA8)
        fail(_path, "reduced sources are 8-bit RGBA only");
    const bool bands = _format != FormatTiff && _format != FormatExr;
    switch (format) {
        case imaging::PfRGBA8:
            return detail::LoaderImageSource<imaging::PfRGBA8>::create(*this, scaleType, tileSize,
                                                                       postProcess, bands, size);
        case imaging::PfRGBA16:
            return detail::LoaderImageSource<imaging::PfRGBA16>::create(*this, scaleType, tileSize,
                                                                        postProcess, bands, size);
        case imaging::PfRGBA32F:
            return detail::LoaderImageSource<imaging::PfRGBA32F>::create(*this, scaleType, tileSize,
                                                                         postProcess, bands, size);
        default: fail(_path, "no tiled source in pixel format " + std::to_string(int(format)));
    }
}

template SharedPtr<imaging::GenImageData<unsigned char, 4>> ImageLoader::read(int, const math::Recti&) const;
template SharedPtr<imaging::GenImageData<unsigned short, 4>> ImageLoader::read(int, const math::Recti&) const;
template SharedPtr<imaging::GenImageData<float, 4>> ImageLoader::read(int, const math::Recti&) const;

}  // namespace qor::imageio
