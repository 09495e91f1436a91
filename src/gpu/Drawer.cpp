#include "gpu/Drawer.h"

#include "base/Log.h"

namespace qor::gpu {

Drawer::~Drawer() = default;

void Drawer::readPixels(const Recti&, const ImageDataOut<unsigned char, 4>&) {
    QOR_ASSERT_TEXT(false, "false");
}

}  // namespace qor::gpu
