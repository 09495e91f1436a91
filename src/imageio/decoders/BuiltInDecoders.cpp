#include "imageio/decoders/BuiltInDecoders.h"

#include "imageio/decoders/FormatDecoders.h"

namespace qor::imageio::detail {

std::vector<std::unique_ptr<ImageDecoder>> builtInDecoders() {
    std::vector<std::unique_ptr<ImageDecoder>> decoders;
    // Decoders that know a file by its signature come first; the raw decoder, which goes by the
    // extension alone, comes last, so that a misnamed GIF or BMP still reaches its own decoder.
    decoders.push_back(std::make_unique<GifDecoder>());
    decoders.push_back(std::make_unique<WebpDecoder>());
    decoders.push_back(std::make_unique<HeifDecoder>());
    decoders.push_back(std::make_unique<BmpDecoder>());
    decoders.push_back(std::make_unique<RawDecoder>());
    return decoders;
}

}  // namespace qor::imageio::detail
