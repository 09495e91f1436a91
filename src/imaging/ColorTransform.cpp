#include "imaging/ColorTransform.h"

#include <lcms2.h>

#include <list>

#include "base/Log.h"
#include "base/thread/Mutex.h"

namespace qor::imaging {

namespace {

[[noreturn]] void fail(const std::string& message) {
    QOR_LOG(LogError, "ColorTransform: %*", message);
    throw ColorProfileException(message);
}

// The Little CMS layout of a pixel format, and the colour space its profiles must have; 0 when
// the format is not supported.
struct LcmsLayout {
    cmsUInt32Number type;
    ColorProfile::ColorSpace space;
};

LcmsLayout layoutOf(RawPixelFormat format) {
    switch (format) {
        case PfRGB8: return {TYPE_RGB_8, ColorProfile::CsRGB};
        case PfRGBA8: return {TYPE_RGBA_8, ColorProfile::CsRGB};
        case PfBGRA8: return {TYPE_BGRA_8, ColorProfile::CsRGB};
        case PfRGB16: return {TYPE_RGB_16, ColorProfile::CsRGB};
        case PfRGBA16: return {TYPE_RGBA_16, ColorProfile::CsRGB};
        case PfRGB16F: return {TYPE_RGB_HALF_FLT, ColorProfile::CsRGB};
        case PfRGBA16F: return {TYPE_RGBA_HALF_FLT, ColorProfile::CsRGB};
        case PfRGB32F: return {TYPE_RGB_FLT, ColorProfile::CsRGB};
        case PfRGBA32F: return {TYPE_RGBA_FLT, ColorProfile::CsRGB};
        case PfLum8: return {TYPE_GRAY_8, ColorProfile::CsGray};
        case PfLum16: return {TYPE_GRAY_16, ColorProfile::CsGray};
        case PfLum16F: return {TYPE_GRAY_HALF_FLT, ColorProfile::CsGray};
        case PfLum32F: return {TYPE_GRAY_FLT, ColorProfile::CsGray};
        default: return {0, ColorProfile::CsOther};
    }
}

struct ProfileHandle {
    cmsHPROFILE handle;
    ~ProfileHandle() { cmsCloseProfile(handle); }
};

// The table of recently made transforms.
struct TransformKey {
    Digest source, target;
    size_t sourceSize, targetSize;
    double adaptationState;
    int intent;
    RawPixelFormat format;

    bool operator==(const TransformKey&) const = default;
};

class TransformTable {
public:
    static constexpr size_t kCapacity = 16;

    SharedPtr<ColorTransform> find(const TransformKey& key) {
        ScopedLock lock(_mutex);
        for (auto it = _entries.begin(); it != _entries.end(); ++it) {
            if (!(it->first == key)) continue;
            _entries.splice(_entries.begin(), _entries, it);
            return it->second;
        }
        return nullptr;
    }
    // Keeps `made` unless another thread has put the same transform in meanwhile; returns the
    // one kept.
    SharedPtr<ColorTransform> insert(const TransformKey& key, SharedPtr<ColorTransform> made) {
        ScopedLock lock(_mutex);
        for (auto& entry : _entries)
            if (entry.first == key) return entry.second;
        _entries.emplace_front(key, made);
        if (_entries.size() > kCapacity) _entries.pop_back();
        return made;
    }

private:
    Mutex _mutex;  // guards _entries
    std::list<std::pair<TransformKey, SharedPtr<ColorTransform>>> _entries
        QOR_GUARDED_BY(_mutex);  // most recently used first
};

TransformTable& transformTable() {
    static TransformTable table;
    return table;
}

}  // namespace

SharedPtr<ColorTransform> ColorTransform::create(const SharedPtr<const ColorProfile>& source,
                                                 const SharedPtr<const ColorProfile>& target,
                                                 double adaptationState, int intent,
                                                 RawPixelFormat format) {
    if (!source || !target) fail("A colour transform needs a source and a target profile");
    const TransformKey key{source->contentDigest(), target->contentDigest(), source->size(),
                           target->size(), adaptationState, intent, format};
    if (auto known = transformTable().find(key)) return known;
    auto made = std::make_shared<ColorTransform>(Private{}, source, target, adaptationState,
                                                 intent, format);
    return transformTable().insert(key, std::move(made));
}

ColorTransform::ColorTransform(Private, SharedPtr<const ColorProfile> source,
                               SharedPtr<const ColorProfile> target, double adaptationState,
                               int intent, RawPixelFormat format)
    : _source(std::move(source)),
      _target(std::move(target)),
      _adaptationState(adaptationState),
      _intent(intent),
      _format(format),
      _context(std::make_unique<detail::LcmsContext>()) {
    if (!(adaptationState >= 0.0 && adaptationState <= 1.0))
        fail(formatLog("Adaptation state %* is outside 0 to 1", adaptationState));
    if (intent < IntentDefault || intent > IntentAbsoluteColorimetric)
        fail(formatLog("Unknown rendering intent %*", intent));
    const LcmsLayout layout = layoutOf(format);
    if (!layout.type)
        fail(formatLog("Pixel format %* cannot be colour managed", pixelFormatString(format)));
    for (const ColorProfile* profile : {_source.get(), _target.get()}) {
        if (profile->colorSpace() != layout.space)
            fail(formatLog("Profile '%*' does not fit pixels of format %*",
                           profile->description(), pixelFormatString(format)));
    }
    if (_intent == IntentDefault) {
        ProfileHandle src{_context->open(*_source)};
        _intent = static_cast<int>(cmsGetHeaderRenderingIntent(src.handle));
        if (_intent > IntentAbsoluteColorimetric) _intent = IntentPerceptual;
    }
    if (ColorProfile::same(_source, _target)) return;
    _handle = build(*_context, layout.type);
}

ColorTransform::~ColorTransform() {
    if (_handle) cmsDeleteTransform(static_cast<cmsHTRANSFORM>(_handle));
}

void* ColorTransform::build(detail::LcmsContext& context, unsigned lcmsFormat) const {
    cmsContext ctx = context.handle();
    cmsSetAdaptationStateTHR(ctx, _adaptationState);
    ProfileHandle src{context.open(*_source)};
    ProfileHandle dst{context.open(*_target)};
    // Little CMS precalculates 16-bit transforms on a grid, which is off by up to 7 % of full
    // scale where a channel is near 0 (sRGB's steep toe); 16-bit pixels are worth the exact
    // evaluation, at about six times the time. 8-bit transforms between matrix-shaper profiles
    // stay exact when optimised, float ones are never put on a grid.
    cmsUInt32Number flags = cmsFLAGS_NOCACHE | cmsFLAGS_COPY_ALPHA;
    if (T_BYTES(lcmsFormat) == 2 && !T_FLOAT(lcmsFormat)) flags |= cmsFLAGS_NOOPTIMIZE;
    cmsHTRANSFORM transform =
        cmsCreateTransformTHR(ctx, src.handle, lcmsFormat, dst.handle, lcmsFormat,
                              static_cast<cmsUInt32Number>(_intent), flags);
    if (!transform) {
        fail(formatLog("Cannot convert from '%*' to '%*': %*", _source->description(),
                       _target->description(),
                       context.lastError().empty() ? "unsupported" : context.lastError()));
    }
    return transform;
}

void ColorTransform::apply(void* pixels, int width, int height, size_t byteStride) const {
    if (!_handle || !pixels || width <= 0 || height <= 0) return;
    cmsDoTransformLineStride(static_cast<cmsHTRANSFORM>(_handle), pixels, pixels,
                             static_cast<cmsUInt32Number>(width),
                             static_cast<cmsUInt32Number>(height),
                             static_cast<cmsUInt32Number>(byteStride),
                             static_cast<cmsUInt32Number>(byteStride), 0, 0);
}

void ColorTransform::checkLayout(size_t elementSize, int channels, bool floating) const {
    if (elementSize == getBytesPerChannel(_format) &&
        channels == static_cast<int>(getChannelCount(_format)) &&
        floating == isFloatFormat(_format))
        return;
    QOR_ASSERT_TEXT(false, "image layout matches the transform's format");
    fail(formatLog("Pixels of %* bytes per channel and %* channels are not of format %*",
                   elementSize, channels, pixelFormatString(_format)));
}

std::vector<float> ColorTransform::lookupTable3D(int size) const {
    if (size < 2) fail(formatLog("A lookup table needs at least 2 points a side, not %*", size));
    if (_source->colorSpace() != ColorProfile::CsRGB ||
        _target->colorSpace() != ColorProfile::CsRGB)
        fail("A 3D lookup table needs RGB profiles");
    const size_t points = size_t(size) * size * size;
    std::vector<float> table(points * 3);
    const float step = 1.0f / float(size - 1);
    size_t i = 0;
    for (int b = 0; b < size; ++b)
        for (int g = 0; g < size; ++g)
            for (int r = 0; r < size; ++r) {
                table[i++] = r * step;
                table[i++] = g * step;
                table[i++] = b * step;
            }
    if (!_handle) return table;
    detail::LcmsContext context;
    auto* transform = static_cast<cmsHTRANSFORM>(build(context, TYPE_RGB_FLT));
    cmsDoTransform(transform, table.data(), table.data(), static_cast<cmsUInt32Number>(points));
    cmsDeleteTransform(transform);
    return table;
}

}  // namespace qor::imaging
