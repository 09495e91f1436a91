#pragma once
// Test files for the imageio tests, made in code: small JPEGs from libjpeg, with metadata written
// into them by Exiv2 itself, and a temporary folder to put files in.

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include <exiv2/exiv2.hpp>

#include "imageio/MetadataReader.h"
#include "imageio/detail/Exiv2Setup.h"

namespace qor::imageio::testing {

using Bytes = std::vector<uint8_t>;

// A JPEG of `components` samples a pixel in colour space `space` (grey, RGB, CMYK ...), optionally
// progressive or with a restart marker every row, and with the first component sampled at
// `lumaSampling` (horizontal, vertical; 0 keeps libjpeg's 2 x 2); `fill(y, row)` gives the samples
// of each row. libjpeg's defaults otherwise (CMYK is stored as Adobe writes it).
inline Bytes encodeJpeg(int width, int height, int components, J_COLOR_SPACE space, int quality,
                        const std::function<void(int, unsigned char*)>& fill,
                        bool progressive = false, bool restarts = false,
                        std::pair<int, int> lumaSampling = {0, 0}) {
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&c, &buffer, &size);
    c.image_width = static_cast<JDIMENSION>(width);
    c.image_height = static_cast<JDIMENSION>(height);
    c.input_components = components;
    c.in_color_space = space;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    if (progressive) jpeg_simple_progression(&c);
    if (restarts) c.restart_in_rows = 1;
    if (lumaSampling.first > 0) {
        c.comp_info[0].h_samp_factor = lumaSampling.first;
        c.comp_info[0].v_samp_factor = lumaSampling.second;
    }
    jpeg_start_compress(&c, TRUE);
    std::vector<unsigned char> row(static_cast<size_t>(width) * components);
    while (c.next_scanline < c.image_height) {
        fill(static_cast<int>(c.next_scanline), row.data());
        JSAMPROW rows[1] = {row.data()};
        jpeg_write_scanlines(&c, rows, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    Bytes out(buffer, buffer + size);
    std::free(buffer);
    return out;
}

// A baseline RGB JPEG of the given size: a gradient, so that it is not all one colour.
inline Bytes makeJpeg(int width, int height, int quality = 80) {
    return encodeJpeg(width, height, 3, JCS_RGB, quality, [&](int y, unsigned char* row) {
        for (int x = 0; x < width; ++x) {
            row[x * 3] = static_cast<unsigned char>(x * 255 / width);
            row[x * 3 + 1] = static_cast<unsigned char>(y * 255 / height);
            row[x * 3 + 2] = 128;
        }
    });
}

// The file with the metadata that `edit` puts on it, written by Exiv2.
inline Bytes withMetadata(const Bytes& file, const std::function<void(Exiv2::Image&)>& edit) {
    detail::ensureExiv2Initialized();
    const std::unique_ptr<Exiv2::Image> image = detail::openExiv2Image(file.data(), file.size());
    image->readMetadata();
    edit(*image);
    image->writeMetadata();
    Exiv2::BasicIo& io = image->io();
    io.open();
    Bytes out(io.size());
    io.read(out.data(), static_cast<long>(out.size()));
    io.close();
    return out;
}

// A JPEG of `width` x `height` whose EXIF names the maker `make` and holds a `thumbWidth` x
// `thumbHeight` thumbnail, and the thumbnail's offset in the file (0 when none is found).
inline std::pair<Bytes, long> jpegWithThumbnail(int width, int height, int thumbWidth,
                                                int thumbHeight, const char* make) {
    const Bytes thumb = makeJpeg(thumbWidth, thumbHeight, 50);
    Bytes file = withMetadata(makeJpeg(width, height), [&](Exiv2::Image& image) {
        image.exifData()["Exif.Image.Make"] = make;
        Exiv2::ExifThumb(image.exifData()).setJpegThumbnail(thumb.data(), thumb.size());
    });
    const SharedPtr<Metadata> m = readMetadata(file.data(), file.size());
    return {file, m ? m->thumbLocation() : 0};
}

// A fresh folder under $TMPDIR (or /tmp), removed with its contents at the end.
class TempFolder {
public:
    TempFolder() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-imageio-XXXXXX";
        if (::mkdtemp(pattern.data())) _path = pattern;
    }
    ~TempFolder() {
        std::error_code ec;
        if (!_path.empty()) std::filesystem::remove_all(_path, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    // Writes `bytes` to a file of that name in the folder and returns its path.
    std::string write(const std::string& name, const Bytes& bytes) const {
        std::string path = _path + "/" + name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path;
    }
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

}  // namespace qor::imageio::testing
