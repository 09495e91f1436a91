#pragma once
// ColorTransform: the conversion of pixels of one pixel format from a source profile's colours to
// a target profile's, in place, on Little CMS 2.
//
// Formats: PfRGB8, PfRGBA8, PfBGRA8, PfRGB16, PfRGBA16, PfRGB16F, PfRGBA16F, PfRGB32F, PfRGBA32F
// between RGB profiles, and PfLum8, PfLum16, PfLum16F, PfLum32F between grey profiles. Alpha is
// kept as it is. Between profiles of equal content the transform is the identity and leaves the
// pixels untouched. 16-bit integer pixels are converted exactly rather than through Little CMS's
// precalculated grid, which is several times slower than 8-bit.
//
// Transforms are shared: create() keeps the 16 most recently made in a process-wide table keyed
// by both profiles' content, the adaptation state, the intent and the format, since the tile
// sources make the same transform for every tile.
//
// Thread contract: immutable after creation; apply() may run on any number of threads at once
// (the Little CMS transform is made without its one-pixel cache). The table of create() has a
// mutex of its own, never held while a transform is built.

#include <cstddef>
#include <type_traits>
#include <vector>

#include "imaging/ColorProfile.h"
#include "imaging/GenImageData.h"
#include "imaging/PixelFormat.h"
#include "math/GenRect.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ColorTransform {
public:
    // The constructor's key: only this layer's code makes one.
    struct Private {
        explicit Private() = default;
    };

    // ICC rendering intents; -1 takes the source profile's own (from its header).
    enum Intent {
        IntentDefault = -1,
        IntentPerceptual = 0,
        IntentRelativeColorimetric = 1,
        IntentSaturation = 2,
        IntentAbsoluteColorimetric = 3,
    };

    // The transform from `source` to `target` for pixels of `format`. `adaptationState` is the
    // degree of chromatic adaptation for the absolute colorimetric intent, 0 (none) to 1 (full);
    // the other intents always adapt fully. Throws ColorProfileException for a null profile, an
    // intent or adaptation state out of range, a format not listed above, a profile whose colour
    // space does not fit the format, or a transform that Little CMS cannot build.
    static SharedPtr<ColorTransform> create(const SharedPtr<const ColorProfile>& source,
                                            const SharedPtr<const ColorProfile>& target,
                                            double adaptationState = 0.0, int intent = -1,
                                            RawPixelFormat format = PfRGBA8);
    ~ColorTransform();
    ColorTransform(const ColorTransform&) = delete;
    ColorTransform& operator=(const ColorTransform&) = delete;

    // Converts width x height pixels of format() in place, rows byteStride bytes apart.
    // Thread-safe; does not throw.
    void apply(void* pixels, int width, int height, size_t byteStride) const;
    // Converts the pixels of `rect` (clipped to the image, with an assertion when it reaches
    // outside) in place. The element type and channel count must be those of format(): a
    // mismatch logs an assertion and throws ColorProfileException.
    template <class T, int N>
    void apply(GenImageData<T, N>& image, const Recti& rect) const {
        checkLayout(sizeof(T), N, std::is_same_v<T, half> || std::is_floating_point_v<T>);
        const Recti bounds(0, 0, image.width(), image.height());
        QOR_ASSERT_TEXT(bounds.contains(rect), "image rectangle contains rect");
        const Recti clipped = rect & bounds;
        if (clipped.empty()) return;
        apply(&image.at(clipped.xmin(), clipped.ymin()), clipped.width(), clipped.height(),
              image.byteStride());
    }
    template <class T, int N>
    void apply(GenImageData<T, N>& image) const {
        apply(image, Recti(0, 0, image.width(), image.height()));
    }

    // A size x size x size table for a 3D lookup table on the GPU: the transform of the RGB
    // grid point (r, g, b) / (size - 1), as three floats at ((b * size + g) * size + r) * 3.
    // Computed in floating point with this transform's profiles and intent, whatever its pixel
    // format. Only between RGB profiles; throws ColorProfileException otherwise or for a size
    // below 2.
    std::vector<float> lookupTable3D(int size) const;

    const SharedPtr<const ColorProfile>& source() const { return _source; }
    const SharedPtr<const ColorProfile>& target() const { return _target; }
    RawPixelFormat format() const { return _format; }
    // The intent used (-1 resolved to the source's).
    int intent() const { return _intent; }
    double adaptationState() const { return _adaptationState; }
    bool isIdentity() const { return _handle == nullptr; }

    // Use create; public only for make_shared.
    ColorTransform(Private, SharedPtr<const ColorProfile> source,
                   SharedPtr<const ColorProfile> target, double adaptationState, int intent,
                   RawPixelFormat format);

private:
    void checkLayout(size_t elementSize, int channels, bool floating) const;
    // Builds a Little CMS transform between the two profiles for `lcmsFormat`, in `context`.
    void* build(detail::LcmsContext& context, unsigned lcmsFormat) const;

    SharedPtr<const ColorProfile> _source;
    SharedPtr<const ColorProfile> _target;
    double _adaptationState;
    int _intent;
    RawPixelFormat _format;
    ScopedPtr<detail::LcmsContext> _context;  // owns the transform's memory
    void* _handle = nullptr;                  // cmsHTRANSFORM; null for the identity
};

}  // namespace qor::imaging
