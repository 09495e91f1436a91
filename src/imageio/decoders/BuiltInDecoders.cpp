#include "imageio/decoders/BuiltInDecoders.h"

#include "imageio/decoders/FormatDecoders.h"

namespace qor::imageio::detail {

std::vector<std::unique_ptr<ImageDecoder>> builtInDecoders() {
    std::vector<std::unique_ptr<ImageDecoder>> decoders;
    // Decoders that know a file by a signature of its own come first, so that a misnamed file
    // reaches its decoder whatever its extension. The raw decoder, which goes by the extension
    // alone, comes next: most raw formats are TIFF inside (a ".NEF" starts as a TIFF does), so the
    // TIFF decoder is asked last and takes a TIFF under any other name.
    decoders.push_back(std::make_unique<JpegDecoder>());
    decoders.push_back(std::make_unique<PngDecoder>());
    decoders.push_back(std::make_unique<GifDecoder>());
    decoders.push_back(std::make_unique<WebpDecoder>());
    decoders.push_back(std::make_unique<HeifDecoder>());
    decoders.push_back(std::make_unique<BmpDecoder>());
    decoders.push_back(std::make_unique<ExrDecoder>());
    decoders.push_back(std::make_unique<RawDecoder>());
    decoders.push_back(std::make_unique<TiffDecoder>());
    return decoders;
}

}  // namespace qor::imageio::detail
