#include "gpu/Shader.h"

namespace qor::gpu {

Shader::~Shader() = default;

}  // namespace qor::gpu
