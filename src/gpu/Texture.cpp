#include "gpu/Texture.h"

namespace qor::gpu {

Texture::~Texture() = default;

}  // namespace qor::gpu
