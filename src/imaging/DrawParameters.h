#pragma once
// How a tile is shown: the mipmap mode and the minification and magnification filters, with their
// fixed mapping to OpenGL filter values; and the flip flags of a rectangle copy between storages.
//
// Thread contract: plain values; distinct objects may be used on any threads.

#include <cstdint>
#include <ostream>

namespace qor::imaging {

enum MipmapMode : uint32_t {
    MM_OFF = 0,      // no mipmaps
    MM_LINEAR = 1,   // mipmapped, linear inside a level
    MM_NEAREST = 2,  // mipmapped, nearest inside a level
};

enum InterpolationMode : uint32_t {
    IM_NEAREST = 0,  // nearest sample
    IM_LINEAR = 1,   // linear filtering
};

// OpenGL filter values, as plain numbers so that no GL header is needed here.
namespace glfilter {
constexpr int Nearest = 0x2600;
constexpr int Linear = 0x2601;
constexpr int NearestMipmapNearest = 0x2700;
constexpr int LinearMipmapNearest = 0x2701;
constexpr int NearestMipmapLinear = 0x2702;
constexpr int LinearMipmapLinear = 0x2703;
}  // namespace glfilter

struct DrawParameters {
    MipmapMode mipmap = MM_OFF;
    InterpolationMode min = IM_NEAREST;
    InterpolationMode mag = IM_NEAREST;

    constexpr DrawParameters() = default;
    constexpr DrawParameters(MipmapMode mipmap_, InterpolationMode min_, InterpolationMode mag_)
        : mipmap(mipmap_), min(min_), mag(mag_) {}

    constexpr bool isMipmapped() const { return mipmap != MM_OFF; }
    // True when every field holds one of its enumerators.
    constexpr bool isValid() const {
        return uint32_t(mipmap) <= 2 && uint32_t(min) <= 1 && uint32_t(mag) <= 1;
    }

    friend constexpr bool operator==(const DrawParameters& a, const DrawParameters& b) {
        return a.mipmap == b.mipmap && a.min == b.min && a.mag == b.mag;
    }
    friend constexpr bool operator!=(const DrawParameters& a, const DrawParameters& b) {
        return !(a == b);
    }
    friend std::ostream& operator<<(std::ostream& out, const DrawParameters& p) {
        return out << "(mipmap " << uint32_t(p.mipmap) << ", min " << uint32_t(p.min) << ", mag "
                   << uint32_t(p.mag) << ')';
    }
};

// The GL magnification filter: GL_LINEAR for mag == IM_LINEAR, else GL_NEAREST.
constexpr int glMagFilter(const DrawParameters& p) {
    return p.mag == IM_LINEAR ? glfilter::Linear : glfilter::Nearest;
}

// The GL minification filter. In a mipmapped mode `mipmap` chooses the filter inside a level and
// `min` the one between levels.
constexpr int glMinFilter(const DrawParameters& p) {
    bool linear = p.min == IM_LINEAR;
    switch (p.mipmap) {
        case MM_LINEAR:
            return linear ? glfilter::LinearMipmapLinear : glfilter::LinearMipmapNearest;
        case MM_NEAREST:
            return linear ? glfilter::NearestMipmapLinear : glfilter::NearestMipmapNearest;
        case MM_OFF:
        default:
            return linear ? glfilter::Linear : glfilter::Nearest;
    }
}

// Flags of a rectangle copy between storages: bit 1 mirrors left to right, bit 2 top to bottom.
enum CopyFlippedMode : uint32_t {
    COPY_NORMAL = 0,
    COPY_FLIP_H = 2,
    COPY_FLIP_V = 4,
    COPY_FLIP_HV = 6,
};

}  // namespace qor::imaging
