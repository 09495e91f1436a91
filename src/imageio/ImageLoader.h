#pragma once
// ImageLoader: the reader of one image file for the file-backed sources. It tells the picture's
// size and orientation from the start, gives its metadata (through Exiv2) and embedded ICC
// profile, reads any rectangle of it without decoding more than the format needs, and makes a
// tiled source that reads the file tile by tile on demand.
//
// Formats, by the file's content, whatever its name: the constructor asks the decoder registry
// once which decoder recognises the file (findDecoder) and keeps the answer for every later read.
// JPEG (libjpeg; a region decodes the scanlines down to its bottom), PNG (libpng, down to the
// region's last line), TIFF (libtiff: 8 and 16-bit integers and 32-bit float, tiled or striped,
// any compression libtiff has; only the tiles or strips under a region are decoded) and OpenEXR
// (the scanlines of a region) are read here; every other format (GIF, WebP, HEIF, BMP, camera raw
// ...) by its registry decoder. A TIFF-structured file with a camera raw extension (".NEF", ".DNG"
// ...) is a raw file; under any other name it is a TIFF.
//
// Orientation: unless built `asStored`, the loader shows the picture upright: the EXIF (or TIFF)
// orientation is applied to every read, so that sizes and rectangles are those of the picture as
// it is to be seen (orientations 5 to 8 exchange width and height). getMetadata keeps the file's
// own values, its Imagesize the stored size.
//
// Errors: the constructor and the reads throw ImageLoaderException naming the path for a file
// that cannot be opened or read, a rectangle outside the picture and a pixel format it cannot
// give; std::bad_alloc when memory runs out.
//
// Thread contract: immutable after construction; every read opens the file for itself, so one
// loader may read on several threads at once. It takes no path lock: the caller holds the file's
// lock (the file sources do, through lockFile).

#include "imageio/DecoderRegistry.h"
#include "imageio/ImageIO.h"
#include "imageio/Metadata.h"
#include "imaging/ColorProfile.h"
#include "imaging/GenImageData.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/PixelFormat.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

class ImageLoader {
public:
    using String = FastString<char>;
    using Vec2i = math::GenVec<int, 2>;
    // Run on every tile of a source of getImageSource after it is read, before it is handed out
    // (a colour conversion, for instance), on the worker that read it.
    using PostProcess = Function1<void, const SharedPtr<imaging::ImageTile>&>;

    // How pixels are decoded: ImageTypeDraft with the fast integer DCT of JPEG, ImageTypeFull at
    // best quality. Other formats decode alike for both.
    enum ImageType { ImageTypeDraft = 1, ImageTypeFull = 2 };
    enum Format { FormatJpeg = 0, FormatPng = 1, FormatTiff = 2, FormatExr = 3, FormatRegistry = 4 };

    // Opens `path` and reads its header and metadata, without decoding pixels. Throws
    // ImageLoaderException when the file cannot be opened, no decoder recognises it or its header
    // cannot be read.
    explicit ImageLoader(const String& path, bool asStored = false);

    const String& path() const { return _path; }
    Format format() const { return _format; }
    // The registry decoder that recognised the file.
    const ImageDecoder& decoder() const { return *_decoder; }
    // The picture's size as the reads give it: upright unless built asStored.
    Vec2i size() const { return _size; }
    Vec2i storedSize() const { return _storedSize; }
    // The orientation applied to reads, 1 to 8 (1 when built asStored).
    int orientation() const { return _orientation; }
    // The EXIF orientation of the file, 1 when it has none.
    int fileOrientation() const { return _fileOrientation; }

    // The file's metadata with Imagesize (the stored size). Never null: a file whose metadata
    // cannot be read gives one with Imagesize only.
    SharedPtr<Metadata> getMetadata() const { return _metadata; }
    // The embedded ICC profile (JPEG APP2, PNG iCCP, the TIFF tag ...); null when there is none or
    // it cannot be used (logged). Does not throw.
    SharedPtr<imaging::ColorProfile> getColorProfile() const;

    // `rect` of the picture (an empty rect: all of it) in RGBA, 8 or 16 bits or float. Blocks on
    // the file. Throws ImageLoaderException for a rectangle that is not inside the picture, an
    // unknown image type, or a file that does not decode.
    ImagePtr getImage4ub(int imageType, const math::Recti& rect) const;
    SharedPtr<imaging::GenImageData<unsigned short, 4>> getImage4us(int imageType,
                                                                    const math::Recti& rect) const;
    SharedPtr<imaging::GenImageData<float, 4>> getImage4f(int imageType,
                                                          const math::Recti& rect) const;

    // A source of the picture in `format` (PfRGBA8, PfRGBA16 or PfRGBA32F), tiled by `tileSize`
    // from (0, 0), whose tiles are read from the file when they are computed (`scaleType` is the
    // image type of the reads). Formats that read regions cheaply (TIFF, OpenEXR) read each tile
    // by itself; the others read one band of a tile row at a time, keep the last bands, and serve
    // the tiles of the row from them (JPEG and PNG decode each line once going down). The source
    // keeps the path, not the file: it reopens the file
    // for each read and takes no lock. A `size` smaller than the picture's (in PfRGBA8 only) gives
    // the picture reduced to it: each tile reads the pixels under it and scales them down. Throws
    // ImageLoaderException for another format, an empty tile size or a size that is larger than
    // the picture.
    SharedPtr<imaging::ImageSource> getImageSource(imaging::RawPixelFormat format, int scaleType,
                                                   Vec2i tileSize, const PostProcess& postProcess,
                                                   Vec2i size = Vec2i(0, 0)) const;

    // The whole picture through the file's decoder, as the decoder contract in DecoderRegistry.h
    // says: fitted inside `size` ((0, 0): full size) at the least cost the format allows (a JPEG
    // at a reduced DCT scale, a raw file at half size), with ImageQualityThumbnail from a preview
    // the file holds when there is one, as stored (no orientation applied). `decoded`, when wanted
    // and empty, gets the metadata of what was decoded: its Imagesize is the preview's when a
    // preview was taken. Blocks on the file; throws ImageLoaderException when it does not decode
    // (the decoder has logged why). A damaged file may still decode, with a warning in the log.
    ImagePtr decodeFitted(Vec2i size, ImageQuality quality,
                          SharedPtr<Metadata>* decoded = nullptr) const;

    // `size` as it stands after `orientation`: 5 to 8 exchange the sides.
    static Vec2i orientedSize(Vec2i size, int orientation);

    // The reads above for T = unsigned char, unsigned short or float.
    template <class T>
    SharedPtr<imaging::GenImageData<T, 4>> read(int imageType, const math::Recti& rect) const;

private:
    template <class T>
    SharedPtr<imaging::GenImageData<T, 4>> readStored(int imageType, const math::Recti& rect) const;
    ImagePtr readStored8(int imageType, const math::Recti& rect) const;
    // What decodeFitted says, or `rect` of the stored picture at full size; throws
    // ImageLoaderException.
    ImagePtr decodeThrough(Vec2i size, ImageQuality quality, const math::Recti& rect,
                           SharedPtr<Metadata>* decoded = nullptr) const;

    String _path;
    const ImageDecoder* _decoder = nullptr;  // never null after construction
    Format _format = FormatRegistry;
    Vec2i _storedSize{0, 0};
    Vec2i _size{0, 0};
    int _orientation = 1;
    int _fileOrientation = 1;
    SharedPtr<Metadata> _metadata;
};

}  // namespace qor::imageio
