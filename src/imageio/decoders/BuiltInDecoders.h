#pragma once
// The decoders the library brings along, in the order the registry asks them.

#include <memory>
#include <vector>

#include "imageio/DecoderRegistry.h"

namespace qor::imageio::detail {

std::vector<std::unique_ptr<ImageDecoder>> builtInDecoders();

}  // namespace qor::imageio::detail
