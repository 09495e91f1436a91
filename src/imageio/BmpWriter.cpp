// saveBmp: 32-bit BMP files with bit fields, written by hand.

#include <array>
#include <cstdint>
#include <limits>

#include "base/Log.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/OutputFile.h"

namespace qor::imageio {

namespace {

constexpr uint32_t BmpFileHeaderSize = 14;
constexpr uint32_t BmpInfoHeaderSize = 108;
constexpr uint32_t BmpPixelOffset = BmpFileHeaderSize + BmpInfoHeaderSize;  // 122
constexpr uint32_t BmpPixelsPerMetre = 3780;                                // 96 dots per inch

using BmpHeader = std::array<uint8_t, BmpPixelOffset>;

void put16(BmpHeader& h, size_t at, uint16_t value) {
    h[at] = uint8_t(value);
    h[at + 1] = uint8_t(value >> 8);
}

void put32(BmpHeader& h, size_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) h[at + i] = uint8_t(value >> (8 * i));
}

// The fixed header. The signature is the 16-bit value 0x424D stored little-endian, so the file
// begins with the bytes 0x4D 0x42, "MB": the order this system has always written and reads back.
BmpHeader bmpHeader(uint32_t width, uint32_t height) {
    const uint32_t pixelBytes = width * height * 4;
    BmpHeader h{};
    put16(h, 0, 0x424D);
    put32(h, 2, pixelBytes + BmpPixelOffset);
    put32(h, 10, BmpPixelOffset);
    put32(h, 14, BmpInfoHeaderSize);
    put32(h, 18, width);
    put32(h, 22, height);  // positive: the rows are stored bottom row first
    put16(h, 26, 1);       // planes
    put16(h, 28, 32);      // bits per pixel
    put32(h, 30, 3);       // BI_BITFIELDS
    put32(h, 34, pixelBytes);
    put32(h, 38, BmpPixelsPerMetre);
    put32(h, 42, BmpPixelsPerMetre);
    // 46: colours used and important, 0
    put32(h, 54, 0x000000FF);  // red mask
    put32(h, 58, 0x0000FF00);  // green mask
    put32(h, 62, 0x00FF0000);  // blue mask
    put32(h, 66, 0xFF000000);  // alpha mask
    // 70: colour space type, end points, gamma: 0
    return h;
}

bool writeBmp(RandomAccessFile& file, const Image4ub& image) {
    const uint64_t pixelBytes = uint64_t(image.width()) * uint64_t(image.height()) * 4;
    if (pixelBytes + BmpPixelOffset > std::numeric_limits<uint32_t>::max()) {
        QOR_LOG(LogError, "saveBmp: %*x%* is too large for a BMP file: '%*'", image.width(),
                image.height(), file.name());
        return false;
    }
    const BmpHeader header = bmpHeader(uint32_t(image.width()), uint32_t(image.height()));
    file.write(header.data(), header.size());
    for (int y = image.height() - 1; y >= 0; --y)
        file.write(image.row(y), size_t(image.width()) * 4);
    return true;
}

bool saveBmpTo(const FastString<char>& path, const ConstImagePtr& image, bool lock) {
    if (!image) {
        QOR_LOG(LogError, "saveBmp: no image to save to '%*'", path);
        return false;
    }
    return detail::writeNewFile(path, lock, "saveBmp: failed to create file: %*",
                                [&](RandomAccessFile& file) { return writeBmp(file, *image); });
}

}  // namespace

bool saveBmp(const FastString<char>& path, ConstImagePtr image) {
    return saveBmpTo(path, image, true);
}

bool saveBmpUnlocked(const FastString<char>& path, ConstImagePtr image) {
    return saveBmpTo(path, image, false);
}

}  // namespace qor::imageio
