#pragma once
// Camera raw files for tests, made in code: a DNG (the raw format that is plain TIFF) written with
// libtiff, whose first directory is an RGB preview and whose sub-directory holds linear raw data.

#include <tiffio.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qor::imageio::testing {

// Writes a DNG at `path`: a `previewWidth` x `previewHeight` 8-bit RGB preview whose pixels
// `fill(x, y, rgb)` gives, stored as it is and marked with the EXIF `orientation`, and a
// `rawWidth` x `rawHeight` linear raw image of one grey. False when libtiff fails.
inline bool writeDng(const std::string& path, int previewWidth, int previewHeight, int orientation,
                     const std::function<void(int, int, unsigned char*)>& fill, int rawWidth = 64,
                     int rawHeight = 32) {
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    if (!tiff) return false;
    static const uint8_t dngVersion[4] = {1, 4, 0, 0};
    toff_t subDirectory[1] = {0};
    TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, FILETYPE_REDUCEDIMAGE);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, previewWidth);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, previewHeight);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_ORIENTATION, orientation);
    TIFFSetField(tiff, TIFFTAG_MAKE, "Qor");
    TIFFSetField(tiff, TIFFTAG_MODEL, "Test camera");
    TIFFSetField(tiff, TIFFTAG_DNGVERSION, dngVersion);
    TIFFSetField(tiff, TIFFTAG_UNIQUECAMERAMODEL, "Qor Test camera");
    TIFFSetField(tiff, TIFFTAG_SUBIFD, 1, subDirectory);
    std::vector<unsigned char> row(size_t(previewWidth) * 3);
    bool ok = true;
    for (int y = 0; y < previewHeight && ok; ++y) {
        for (int x = 0; x < previewWidth; ++x) fill(x, y, row.data() + 3 * x);
        ok = TIFFWriteScanline(tiff, row.data(), uint32_t(y), 0) == 1;
    }
    ok = ok && TIFFWriteDirectory(tiff);
    constexpr uint16_t kLinearRaw = 34892;
    TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, 0);
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, rawWidth);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, rawHeight);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, kLinearRaw);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    std::vector<uint16_t> samples(size_t(rawWidth) * 3, 30000);
    for (int y = 0; y < rawHeight && ok; ++y)
        ok = TIFFWriteScanline(tiff, samples.data(), uint32_t(y), 0) == 1;
    ok = ok && TIFFWriteDirectory(tiff);
    TIFFClose(tiff);
    return ok;
}

}  // namespace qor::imageio::testing
