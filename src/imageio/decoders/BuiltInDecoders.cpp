#include "imageio/decoders/BuiltInDecoders.h"

namespace qor::imageio::detail {

std::vector<std::unique_ptr<ImageDecoder>> builtInDecoders() {
    std::vector<std::unique_ptr<ImageDecoder>> decoders;
    return decoders;
}

}  // namespace qor::imageio::detail
