#include "imaging/ImageDataAdapter.h"

#include <atomic>

namespace qor::imaging {

namespace {
std::atomic<bool> gManaging{true};
}  // namespace

bool ImageDataAdapterConfig::managingImageData() {
    return gManaging.load(std::memory_order_relaxed);
}

void ImageDataAdapterConfig::setManagingImageData(bool managing) {
    gManaging.store(managing, std::memory_order_relaxed);
}

}  // namespace qor::imaging
