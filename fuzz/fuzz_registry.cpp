// libFuzzer target: the decoder registry on any bytes, under a name that the input's length picks
// (none, ".jpg", ".gif"): recognition of the first bytes, the metadata read that ImageLoader makes
// of a registry format, a decode fitted into a small box with the preview asked for, and
// ImageLoader on the same file with one region read. Inputs whose metadata declares a picture of
// more than fuzz::MaxPixels are not decoded.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/PathExtension.h"
#include "imaging/ImagingException.h"

using namespace qor;
using namespace qor::imageio;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    static const char* const extensions[] = {"", ".jpg", ".gif"};
    const char* extension = extensions[size % 3];
    findDecoder(data, std::min(size, DecoderHeadLength),
                imageio::detail::upperExtension(FastString<char>(std::string("x") + extension)));

    const std::string path = fuzz::writeTempFile("registry", extension, data, size);
    if (path.empty()) return 0;
    const FastString<char> name(path);
    SharedPtr<Metadata> metadata;
    if (!decodeWithRegistry(name, {0, 0}, ImageQualityBest, nullptr, &metadata, {}) || !metadata)
        return 0;
    const math::GenVec<int, 2> declared = metadata->size();
    if (uint64_t(std::max(declared.x, 0)) * uint64_t(std::max(declared.y, 0)) > fuzz::MaxPixels)
        return 0;

    ImagePtr image;
    if (decodeWithRegistry(name, {48, 48}, ImageQualityThumbnail, &image, nullptr, {}) && image)
        fuzz::touchPixels(*image);
    try {
        const ImageLoader loader(name, false);
        const math::GenVec<int, 2> whole = loader.size();
        const ImagePtr region =
            loader.getImage4ub(ImageLoader::ImageTypeDraft,
                               math::Recti(whole.x / 4, whole.y / 4, std::max(1, whole.x / 2),
                                           std::max(1, whole.y / 2)));
        if (region) fuzz::touchPixels(*region);
    } catch (const ImageLoaderException&) {
        // What a damaged file is to answer.
    }
    return 0;
}
