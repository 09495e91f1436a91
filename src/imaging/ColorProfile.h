#pragma once
// ColorProfile: a shared, immutable handle on an ICC profile (Little CMS 2 reads and checks it).
// Profiles come from memory (a profile embedded in a file), from an ICC file, or from the three
// built in: sRGB, Adobe RGB (1998) and linear sRGB (sRGB primaries with a straight tone curve).
// A profile keeps its bytes, for savers that embed it, and answers its description and colour
// space. Two profiles are equal when their content is: the bytes compared without the header's
// creation time and profile id.
//
// Thread contract: immutable after creation; share it freely between threads.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Exception.h"
#include "util/Digest.h"
#include "util/SharedPtr.h"

struct _cmsContext_struct;  // Little CMS's context

namespace qor::imaging {

// A profile that cannot be read or used, or a transform that cannot be made or applied.
class ColorProfileException : public CloneableException<ColorProfileException> {
public:
    using CloneableException::CloneableException;
};

class ColorProfile {
public:
    // The constructor's key: only this layer's code makes one.
    struct Private {
        explicit Private() = default;
    };
    enum ColorSpace { CsOther = 0, CsRGB = 1, CsGray = 2, CsCMYK = 3, CsLab = 4 };

    // Reads and checks a profile: it must parse, be a device or colour space profile (not a
    // link, abstract or named colour profile) and convert its colours to Lab. Throws
    // ColorProfileException naming what is wrong.
    static SharedPtr<ColorProfile> fromMemory(const void* data, size_t size);
    // The same for an ICC file; throws ColorProfileException also when the file can't be read.
    static SharedPtr<ColorProfile> fromFile(const std::string& path);

    // The built-in profiles, made once per process. Never null.
    static SharedPtr<ColorProfile> sRGB();
    static SharedPtr<ColorProfile> adobeRGB();
    static SharedPtr<ColorProfile> linearSRGB();
    // A built-in profile by name, any case: "srgb", "adobergb" (or "adobe-rgb"), "linear" (or
    // "linear-srgb"). Null for any other name.
    static SharedPtr<ColorProfile> builtIn(std::string_view name);

    // The ICC bytes.
    const std::vector<uint8_t>& data() const { return _data; }
    size_t size() const { return _data.size(); }
    // The profile's description, "" when it has none.
    const std::string& description() const { return _description; }
    ColorSpace colorSpace() const { return _colorSpace; }
    // Channels of the colour space: 3 for RGB and Lab, 1 for grey, 4 for CMYK.
    int channels() const { return _channels; }
    // MD5 of the bytes with the header's creation time and profile id zeroed: equal for equal
    // content, so fit as a key of caches of transforms and lookup tables.
    const Digest& contentDigest() const { return _digest; }

    friend bool operator==(const ColorProfile& a, const ColorProfile& b) {
        return a._digest == b._digest && a._data.size() == b._data.size();
    }
    // Null-aware comparison of shared handles: two nulls are equal, a null and a profile not.
    static bool same(const SharedPtr<const ColorProfile>& a, const SharedPtr<const ColorProfile>& b);

    // Use create functions above; public only for make_shared.
    ColorProfile(Private, std::vector<uint8_t> data, std::string description, ColorSpace space,
                 int channels);

private:
    std::vector<uint8_t> _data;
    std::string _description;
    ColorSpace _colorSpace;
    int _channels;
    Digest _digest;
};

namespace detail {

// A Little CMS context that keeps the text of the errors it reports, so that failures can name
// the reason. One per operation or per transform; not shared between threads while it is used.
class LcmsContext {
public:
    LcmsContext();
    ~LcmsContext();
    LcmsContext(const LcmsContext&) = delete;
    LcmsContext& operator=(const LcmsContext&) = delete;

    _cmsContext_struct* handle() const { return _context; }
    // The errors reported through this context, first to last, "" when none.
    const std::string& lastError() const { return _error; }
    // Opens `profile` in this context as a cmsHPROFILE, which the caller closes. Throws
    // ColorProfileException.
    void* open(const ColorProfile& profile);

private:
    static void report(void* context, unsigned code, const char* text);

    _cmsContext_struct* _context;
    std::string _error;
};

}  // namespace detail

}  // namespace qor::imaging
