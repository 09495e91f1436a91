#include "gpu/RenderTarget.h"

namespace qor::gpu {

RenderTarget::~RenderTarget() = default;

}  // namespace qor::gpu
