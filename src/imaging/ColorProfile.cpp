#include "imaging/ColorProfile.h"

#include <lcms2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "base/Log.h"
#include "base/Md5Stream.h"

namespace qor::imaging {

namespace {

// ICC header fields that change with every save without changing the colours: the creation time
// (bytes 24-35) and the profile id (bytes 84-99).
Digest contentDigestOf(const std::vector<uint8_t>& data) {
    std::vector<uint8_t> copy(data);
    if (copy.size() >= 128) {
        std::fill(copy.begin() + 24, copy.begin() + 36, uint8_t(0));
        std::fill(copy.begin() + 84, copy.begin() + 100, uint8_t(0));
    }
    return Md5Stream::of(copy.data(), copy.size());
}

[[noreturn]] void fail(const std::string& what, const detail::LcmsContext& context) {
    std::string message = what;
    if (!context.lastError().empty()) message += ": " + context.lastError();
    QOR_LOG(LogError, "ColorProfile: %*", message);
    throw ColorProfileException(message);
}

ColorProfile::ColorSpace spaceOf(cmsColorSpaceSignature signature) {
    switch (signature) {
        case cmsSigRgbData: return ColorProfile::CsRGB;
        case cmsSigGrayData: return ColorProfile::CsGray;
        case cmsSigCmykData: return ColorProfile::CsCMYK;
        case cmsSigLabData: return ColorProfile::CsLab;
        default: return ColorProfile::CsOther;
    }
}

// Closes a profile or transform handle at the end of a scope.
struct ProfileCloser {
    cmsHPROFILE handle;
    ~ProfileCloser() {
        if (handle) cmsCloseProfile(handle);
    }
};

// Checks an opened profile and makes the shared handle of its bytes.
SharedPtr<ColorProfile> makeProfile(detail::LcmsContext& context, cmsHPROFILE handle,
                                    std::vector<uint8_t> data) {
    const cmsProfileClassSignature kind = cmsGetDeviceClass(handle);
    if (kind == cmsSigLinkClass || kind == cmsSigAbstractClass || kind == cmsSigNamedColorClass)
        fail("ICC profile is a link, abstract or named colour profile, not a colour space", context);
    const cmsColorSpaceSignature signature = cmsGetColorSpace(handle);
    const int channels = static_cast<int>(cmsChannelsOf(signature));
    if (channels < 1 || channels > 15) fail("ICC profile has an unknown colour space", context);

    // Turning its colours into Lab reads every tag the profile needs for use as a source, so a
    // damaged profile fails here rather than in the first transform.
    cmsHPROFILE lab = cmsCreateLab4ProfileTHR(context.handle(), nullptr);
    ProfileCloser labCloser{lab};
    const cmsUInt32Number input =
        FLOAT_SH(1) | COLORSPACE_SH(PT_ANY) | CHANNELS_SH(channels) | BYTES_SH(4);
    cmsHTRANSFORM probe =
        lab ? cmsCreateTransformTHR(context.handle(), handle, input, lab, TYPE_Lab_DBL,
                                    cmsGetHeaderRenderingIntent(handle),
                                    cmsFLAGS_NOOPTIMIZE | cmsFLAGS_NOCACHE)
            : nullptr;
    if (!probe) fail("ICC profile cannot convert its colours", context);
    cmsDeleteTransform(probe);

    std::string description;
    const cmsUInt32Number length =
        cmsGetProfileInfoASCII(handle, cmsInfoDescription, "en", "US", nullptr, 0);
    if (length > 1) {
        description.resize(length);
        cmsGetProfileInfoASCII(handle, cmsInfoDescription, "en", "US", description.data(),
                               length);
        description.resize(std::strlen(description.c_str()));
    }
    return std::make_shared<ColorProfile>(ColorProfile::Private{}, std::move(data),
                                          std::move(description), spaceOf(signature), channels);
}

// Saves a profile made in memory to its bytes, with `description`, and wraps it.
SharedPtr<ColorProfile> finishBuiltIn(detail::LcmsContext& context, cmsHPROFILE handle,
                                      const char* description) {
    ProfileCloser closer{handle};
    if (!handle) fail(std::string("Cannot build the profile ") + description, context);
    cmsMLU* text = cmsMLUalloc(context.handle(), 1);
    cmsMLUsetASCII(text, "en", "US", description);
    cmsWriteTag(handle, cmsSigProfileDescriptionTag, text);
    cmsMLUfree(text);
    cmsUInt32Number size = 0;
    if (!cmsSaveProfileToMem(handle, nullptr, &size) || size == 0)
        fail(std::string("Cannot save the profile ") + description, context);
    std::vector<uint8_t> data(size);
    cmsSaveProfileToMem(handle, data.data(), &size);
    return makeProfile(context, handle, std::move(data));
}

struct BuiltIns {
    SharedPtr<ColorProfile> srgb, adobe, linear;

    BuiltIns() {
        detail::LcmsContext context;
        cmsContext ctx = context.handle();
        srgb = finishBuiltIn(context, cmsCreate_sRGBProfileTHR(ctx), "sRGB IEC61966-2.1");

        const cmsCIExyY d65 = {0.3127, 0.3290, 1.0};
        const cmsCIExyYTRIPLE adobePrimaries = {
            {0.64, 0.33, 1.0}, {0.21, 0.71, 1.0}, {0.15, 0.06, 1.0}};
        const cmsCIExyYTRIPLE srgbPrimaries = {
            {0.64, 0.33, 1.0}, {0.30, 0.60, 1.0}, {0.15, 0.06, 1.0}};
        adobe = finishBuiltIn(context, rgbProfile(ctx, d65, adobePrimaries, 563.0 / 256.0),
                              "Adobe RGB (1998)");
        linear = finishBuiltIn(context, rgbProfile(ctx, d65, srgbPrimaries, 1.0), "Linear sRGB");
    }

    static cmsHPROFILE rgbProfile(cmsContext ctx, const cmsCIExyY& white,
                                  const cmsCIExyYTRIPLE& primaries, double gamma) {
        cmsToneCurve* curve = cmsBuildGamma(ctx, gamma);
        if (!curve) return nullptr;
        cmsToneCurve* curves[3] = {curve, curve, curve};
        cmsHPROFILE profile = cmsCreateRGBProfileTHR(ctx, &white, &primaries, curves);
        cmsFreeToneCurve(curve);
        return profile;
    }
};

const BuiltIns& builtIns() {
    static const BuiltIns profiles;
    return profiles;
}

}  // namespace

namespace detail {

LcmsContext::LcmsContext() : _context(cmsCreateContext(nullptr, this)) {
    if (!_context) {
        QOR_LOG(LogError, "ColorProfile: cannot create a Little CMS context");
        throw ColorProfileException("Cannot create a Little CMS context");
    }
    cmsSetLogErrorHandlerTHR(_context, [](cmsContext c, cmsUInt32Number code,
                                                                  const char* text) {
        report(c, code, text);
    });
}

LcmsContext::~LcmsContext() { cmsDeleteContext(_context); }

void LcmsContext::report(void* context, unsigned /*code*/, const char* text) {
    auto* self = static_cast<LcmsContext*>(cmsGetContextUserData(static_cast<cmsContext>(context)));
    if (!self || !text) return;
    // The first error is usually the cause and the last the consequence: keep both ends.
    if (self->_error.empty())
        self->_error = text;
    else if (self->_error.size() < 400 && self->_error.find(text) == std::string::npos)
        self->_error += std::string("; ") + text;
}

void* LcmsContext::open(const ColorProfile& profile) {
    cmsHPROFILE handle = cmsOpenProfileFromMemTHR(_context,
                                                  profile.data().data(),
                                                  static_cast<cmsUInt32Number>(profile.size()));
    if (!handle) fail("Cannot open the profile '" + profile.description() + "'", *this);
    return handle;
}

}  // namespace detail

ColorProfile::ColorProfile(Private, std::vector<uint8_t> data, std::string description,
                           ColorSpace space, int channels)
    : _data(std::move(data)),
      _description(std::move(description)),
      _colorSpace(space),
      _channels(channels),
      _digest(contentDigestOf(_data)) {}

SharedPtr<ColorProfile> ColorProfile::fromMemory(const void* data, size_t size) {
    detail::LcmsContext context;
    if (!data || size < 128)
        fail("Not an ICC profile: " + std::to_string(size) + " bytes, fewer than its header",
             context);
    if (size > 0xFFFFFFFFu) fail("ICC profile too large", context);
    cmsHPROFILE handle = cmsOpenProfileFromMemTHR(context.handle(), data,
                                                  static_cast<cmsUInt32Number>(size));
    ProfileCloser closer{handle};
    if (!handle)
        fail("Not a valid ICC profile (" + std::to_string(size) + " bytes)", context);
    const auto* bytes = static_cast<const uint8_t*>(data);
    return makeProfile(context, handle, std::vector<uint8_t>(bytes, bytes + size));
}

SharedPtr<ColorProfile> ColorProfile::fromFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const std::string message =
            "Cannot open ICC profile '" + path + "': " + std::strerror(errno);
        QOR_LOG(LogError, "ColorProfile: %*", message);
        throw ColorProfileException(message);
    }
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    if (in.bad()) {
        QOR_LOG(LogError, "ColorProfile: cannot read ICC profile '%*'", path);
        throw ColorProfileException("Cannot read ICC profile '" + path + "'");
    }
    try {
        return fromMemory(data.data(), data.size());
    } catch (const ColorProfileException& e) {
        throw ColorProfileException("'" + path + "': " + e.message());
    }
}

SharedPtr<ColorProfile> ColorProfile::sRGB() { return builtIns().srgb; }
SharedPtr<ColorProfile> ColorProfile::adobeRGB() { return builtIns().adobe; }
SharedPtr<ColorProfile> ColorProfile::linearSRGB() { return builtIns().linear; }

SharedPtr<ColorProfile> ColorProfile::builtIn(std::string_view name) {
    std::string key(name);
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (key == "srgb") return sRGB();
    if (key == "adobergb" || key == "adobe-rgb") return adobeRGB();
    if (key == "linear" || key == "linear-srgb") return linearSRGB();
    return nullptr;
}

bool ColorProfile::same(const SharedPtr<const ColorProfile>& a,
                        const SharedPtr<const ColorProfile>& b) {
    if (!a || !b) return !a && !b;
    return a == b || *a == *b;
}

}  // namespace qor::imaging
