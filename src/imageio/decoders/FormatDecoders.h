#pragma once
// The built-in decoders of the registry, one class per file format, each defined in its own source
// file (JpegDecoder.cpp, GifDecoder.cpp ...). They share the ImageDecoder interface and differ only
// in what they accept and how they decode, so they are declared together here.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

#define QOR_IMAGE_DECODER(Class, shortName, fileFormat)                                    \
    class Class : public ImageDecoder {                                                    \
    public:                                                                                \
        const char* name() const override { return shortName; }                            \
        FileFormat format() const override { return fileFormat; }                          \
        bool accepts(const unsigned char* head, size_t length,                             \
                     const FastString<char>& upperExtension) const override;               \
        bool decode(RandomAccessFile& file, const FastString<char>& path,                  \
                    math::GenVec<int, 2> size, ImageQuality quality, ImageOut* image,      \
                    SharedPtr<Metadata>* metadata, const math::Recti& roi) const override; \
    }

// JpegDecoder: JPEG files (signature FF D8 FF) through libjpeg, as the JPEG road of loadImage
// decodes them: a reduced size is decoded at libjpeg's nearest larger scale and then reduced, and
// a truncated file gives what libjpeg makes of a premature end, with its log line. With
// ImageQualityThumbnail the EXIF thumbnail, when the file has one that decodes (a corrupted one
// logs "loadJpeg: corrupted thumbnail in '%*'" and the picture is decoded instead). The metadata is
// the file's EXIF, IPTC and XMP with Imagesize of what was decoded.
//
// Thread contract: stateless; decode runs on any number of threads at once.
QOR_IMAGE_DECODER(JpegDecoder, "jpeg", FileFormatJpeg);

// PngDecoder: PNG files (the 8-byte PNG signature) through loadPng, every colour type and depth as
// 8-bit RGBA; the region or fitted size is made from the whole picture. PNG has no preview and no
// capture time here; the metadata is the picture's size.
//
// Thread contract: stateless; decode runs on any number of threads at once.
QOR_IMAGE_DECODER(PngDecoder, "png", FileFormatPng);

// TiffDecoder: TIFF and BigTIFF files (II*, MM*, II+, MM+) through libtiff, the first directory
// in 8 bits a sample; a region reads only the strips or tiles under it. The metadata is the file's
// EXIF, IPTC and XMP with Imagesize from the directory.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// libtiff handle.
QOR_IMAGE_DECODER(TiffDecoder, "tiff", FileFormatTiff);

// ExrDecoder: OpenEXR files (76 2F 31 01) through OpenEXR, the data window's R, G, B and A (or Y)
// clamped to 8 bits as they are stored, without a transfer curve; a region reads only its
// scanlines. The metadata is the picture's size.
//
// Thread contract: stateless; decode runs on any number of threads at once.
QOR_IMAGE_DECODER(ExrDecoder, "openexr", FileFormatExr);

// GifDecoder: GIF 87a and 89a files through giflib. The first frame only, drawn on the file's
// logical screen: what the frame does not cover is transparent, and so is the frame's transparent
// colour; interlaced frames are put in row order. GIF has no preview and no capture time; the
// metadata is the screen's size.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// giflib handle.
QOR_IMAGE_DECODER(GifDecoder, "gif", FileFormatGif);

// WebpDecoder: still WebP files, lossy or lossless, with or without alpha, through libwebp. A
// reduced size is made by libwebp's own rescaler while decoding. Animated files are refused (the
// still decoder does not take them). WebP has no preview; the metadata is the picture's size.
//
// Thread contract: stateless; decode runs on any number of threads at once.
QOR_IMAGE_DECODER(WebpDecoder, "webp", FileFormatWebp);

// HeifDecoder: HEIF, HEIC and AVIF files through libheif (HEVC and AV1 decoders as libheif was
// built with). The primary image with its rotation, mirroring and crop applied; with
// ImageQualityThumbnail the primary image's largest thumbnail when the file has one. The capture
// time comes from the primary image's EXIF block (DateTimeOriginal, else DateTime), read with
// Exiv2.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// libheif context.
QOR_IMAGE_DECODER(HeifDecoder, "heif", FileFormatHeif);

// BmpDecoder: uncompressed Windows bitmaps. Signature "BM", and "MB", which saveBmp writes. Core
// (12-byte) and INFO to V5 headers; 1-, 4- and 8-bit palettes; 16-bit (5-5-5 or bit fields);
// 24-bit; 32-bit, where plain 32-bit pixels are opaque and bit fields with an alpha mask carry
// alpha. Rows bottom-up (positive height) or top-down (negative height). Run-length and embedded
// JPEG or PNG compression are refused, as is a file whose pixel data ends early. BMP has no
// preview and no capture time; the metadata is the picture's size.
//
// Thread contract: stateless; decode runs on any number of threads at once.
QOR_IMAGE_DECODER(BmpDecoder, "bmp", FileFormatBmp);

// RawDecoder: camera raw files through LibRaw, taken by their extension (".NEF", ".CR2", ".DNG"
// ...), since raw formats share no signature. With ImageQualityThumbnail the camera's embedded
// preview (a JPEG or a bitmap) when the file has one; otherwise the raw data developed by LibRaw
// (camera white balance, sRGB, 8 bits), at half resolution when the requested size allows it. The
// capture time is LibRaw's.
//
// Thread contract: stateless; decode runs on any number of threads at once, each with its own
// LibRaw instance of the thread-safe build.
QOR_IMAGE_DECODER(RawDecoder, "raw", FileFormatRaw);

#undef QOR_IMAGE_DECODER

}  // namespace qor::imageio
