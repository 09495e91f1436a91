#include "imageio/decoders/FormatDecoders.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <exception>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/decoders/detail/DecodeSupport.h"

namespace qor::imageio {

namespace {

using detail::Rgba8Image;

constexpr size_t kFileHeader = 14;
constexpr uint32_t kCoreHeader = 12;
constexpr uint32_t kInfoHeader = 40;
// File header, the largest info header (V5), three or four masks, and a palette of 256 entries.
constexpr size_t kMaxHeaderBytes = kFileHeader + 124 + 16 + 256 * 4;

enum Compression : uint32_t {
    BiRgb = 0,
    BiBitfields = 3,
    BiAlphaBitfields = 6,
};

bool knownInfoSize(uint32_t size) {
    switch (size) {
        case 12:
        case 16:
        case 40:
        case 52:
        case 56:
        case 64:
        case 108:
        case 124:
            return true;
        default:
            return false;
    }
}

uint16_t u16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t u32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// One colour channel of a bit-field pixel, scaled to 8 bits.
struct Channel {
    uint32_t mask = 0;
    int shift = 0;
    uint64_t maximum = 0;

    explicit Channel(uint32_t m) : mask(m) {
        if (!m) return;
        shift = std::countr_zero(m);
        maximum = m >> shift;
    }
    uint8_t extract(uint32_t pixel, uint8_t absent) const {
        if (!maximum) return absent;
        const uint64_t value = (pixel & mask) >> shift;
        return uint8_t((value * 255 + maximum / 2) / maximum);
    }
};

// Everything the header says about the pixels.
struct BmpLayout {
    int width = 0;
    int height = 0;
    bool topDown = false;
    int bits = 0;
    uint32_t compression = BiRgb;
    std::array<uint32_t, 4> masks{};              // red, green, blue, alpha
    std::vector<std::array<uint8_t, 3>> palette;  // R, G, B
    uint64_t pixelOffset = 0;
    uint64_t rowBytes = 0;
};

// Parses the headers in `head` (the file's first bytes). False, with `why` set, for anything that
// is not an uncompressed bitmap this decoder reads.
bool parseLayout(const std::vector<uint8_t>& head, BmpLayout& layout, const char*& why) {
    why = "truncated header";
    if (head.size() < kFileHeader + 4) return false;
    const uint32_t infoSize = u32(&head[14]);
    if (!knownInfoSize(infoSize)) {
        why = "unknown header size";
        return false;
    }
    if (head.size() < kFileHeader + infoSize) return false;
    const uint8_t* info = &head[kFileHeader];
    layout.pixelOffset = u32(&head[10]);
    int64_t height = 0;
    if (infoSize == kCoreHeader) {
        layout.width = u16(info + 4);
        height = u16(info + 6);
        layout.bits = u16(info + 10);
    } else {
        layout.width = int32_t(u32(info + 4));
        height = int32_t(u32(info + 8));
        layout.bits = u16(info + 14);
        if (infoSize >= 20) layout.compression = u32(info + 16);
    }
    layout.topDown = height < 0;
    height = height < 0 ? -height : height;
    if (!detail::plausibleSize(layout.width, height)) {
        why = "implausible size";
        return false;
    }
    layout.height = int(height);

    const bool bitfields =
        layout.compression == BiBitfields || layout.compression == BiAlphaBitfields;
    if (layout.compression != BiRgb && !bitfields) {
        why = "compressed bitmaps are not supported";
        return false;
    }
    size_t paletteStart = kFileHeader + infoSize;
    if (bitfields) {
        if (layout.bits != 16 && layout.bits != 32) {
            why = "bit fields need 16 or 32 bits per pixel";
            return false;
        }
        // INFO headers keep the masks behind them; V2 and later hold them inside.
        const size_t maskCount = infoSize > kInfoHeader
                                     ? (infoSize >= 56 ? 4 : 3)
                                     : (layout.compression == BiAlphaBitfields ? 4 : 3);
        const size_t maskStart = kFileHeader + kInfoHeader;
        if (head.size() < maskStart + maskCount * 4) return false;
        for (size_t i = 0; i < maskCount; ++i) layout.masks[i] = u32(&head[maskStart + i * 4]);
        if (infoSize <= kInfoHeader) paletteStart += maskCount * 4;
    } else if (layout.bits == 16) {
        layout.masks = {0x7C00, 0x03E0, 0x001F, 0};
    } else if (layout.bits == 32) {
        layout.masks = {0xFF0000, 0xFF00, 0xFF, 0};
    } else if (layout.bits == 1 || layout.bits == 4 || layout.bits == 8) {
        const uint32_t used = infoSize >= 36 ? u32(info + 32) : 0;
        const size_t entries =
            used ? std::min<size_t>(used, size_t(1) << layout.bits) : size_t(1) << layout.bits;
        const size_t entrySize = infoSize == kCoreHeader ? 3 : 4;
        if (head.size() < paletteStart + entries * entrySize) {
            why = "truncated palette";
            return false;
        }
        for (size_t i = 0; i < entries; ++i) {
            const uint8_t* e = &head[paletteStart + i * entrySize];
            layout.palette.push_back({e[2], e[1], e[0]});
        }
    } else if (layout.bits != 24) {
        why = "unsupported bits per pixel";
        return false;
    }
    layout.rowBytes = (uint64_t(layout.width) * uint64_t(layout.bits) + 31) / 32 * 4;
    return true;
}

void decodeRow(const BmpLayout& layout, const uint8_t* in, unsigned char* out) {
    const int width = layout.width;
    switch (layout.bits) {
        case 1:
        case 4:
        case 8: {
            const int perByte = 8 / layout.bits;
            const int mask = (1 << layout.bits) - 1;
            for (int x = 0; x < width; ++x) {
                const int shift = (perByte - 1 - x % perByte) * layout.bits;
                const size_t index = size_t((in[x / perByte] >> shift) & mask);
                unsigned char* p = out + size_t(x) * 4;
                if (index < layout.palette.size())
                    std::memcpy(p, layout.palette[index].data(), 3);
                else
                    p[0] = p[1] = p[2] = 0;
                p[3] = 255;
            }
            break;
        }
        case 24:
            for (int x = 0; x < width; ++x) {
                unsigned char* p = out + size_t(x) * 4;
                p[0] = in[x * 3 + 2];
                p[1] = in[x * 3 + 1];
                p[2] = in[x * 3 + 0];
                p[3] = 255;
            }
            break;
        default: {
            const Channel red(layout.masks[0]), green(layout.masks[1]), blue(layout.masks[2]),
                alpha(layout.masks[3]);
            const int bytes = layout.bits / 8;
            for (int x = 0; x < width; ++x) {
                const uint8_t* q = in + size_t(x) * bytes;
                const uint32_t pixel = bytes == 2 ? u16(q) : u32(q);
                unsigned char* p = out + size_t(x) * 4;
                p[0] = red.extract(pixel, 0);
                p[1] = green.extract(pixel, 0);
                p[2] = blue.extract(pixel, 0);
                p[3] = alpha.extract(pixel, 255);
            }
            break;
        }
    }
}

}  // namespace

bool BmpDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    if (length < 18) return false;
    const bool signature = (head[0] == 'B' && head[1] == 'M') || (head[0] == 'M' && head[1] == 'B');
    return signature && knownInfoSize(u32(head + 14));
}

bool BmpDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                        math::GenVec<int, 2> size, ImageQuality, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    try {
        std::vector<uint8_t> head(kMaxHeaderBytes);
        head.resize(file.readAt(0, head.data(), head.size()));
        BmpLayout layout;
        const char* why = nullptr;
        if (!parseLayout(head, layout, why)) {
            QOR_LOG(LogInfo, "BMP '%*' cannot be read: %*", path, why);
            return false;
        }
        const math::GenVec<int, 2> full(layout.width, layout.height);
        if (detail::wanted(image)) {
            // The last row may lack its padding; anything shorter is a damaged file.
            const uint64_t used = (uint64_t(layout.width) * uint64_t(layout.bits) + 7) / 8;
            const uint64_t needed = layout.rowBytes * uint64_t(layout.height - 1) + used;
            if (layout.pixelOffset > file.size() || file.size() - layout.pixelOffset < needed) {
                QOR_LOG(LogInfo, "BMP '%*' cannot be read: pixel data ends early", path);
                return false;
            }
            SharedPtr<Rgba8Image> decoded = detail::allocateRgba(full.x, full.y, path);
            if (!decoded) return false;
            std::vector<uint8_t> row(size_t(layout.rowBytes));
            for (int r = 0; r < layout.height; ++r) {
                file.readAt(layout.pixelOffset + uint64_t(r) * layout.rowBytes, row.data(),
                            row.size());
                decodeRow(layout, row.data(),
                          decoded->row(layout.topDown ? r : layout.height - 1 - r));
            }
            decoded = detail::finishImage(std::move(decoded), size, roi, path);
            if (!decoded) return false;
            *image = std::move(decoded);
        }
        detail::provideMetadata(metadata, full);
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "Cannot read BMP '%*': %*", path, e.what());
        return false;
    }
}

}  // namespace qor::imageio
