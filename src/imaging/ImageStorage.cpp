#include "imaging/ImageStorage.h"

#include "base/Log.h"
#include "imaging/ImageStorageManager.h"

namespace qor::imaging {

ImageStorage::ImageStorage(const WeakSharedPtr<ImageTile>& parent) : _parent(parent) {}

ImageStorage::~ImageStorage() = default;

SharedPtr<ImageStorage> ImageStorage::setupSelfRef() {
    QOR_ASSERT_TEXT(!_selfRefSet, "_selfRef.isNull()");
    if (_selfRefSet) return _selfRef.lock();
    SharedPtr<ImageStorage> self(this, [](ImageStorage* storage) {
        storage->unregister();
        delete storage;
    });
    _selfRef = self;
    _selfRefSet = true;
    return self;
}

void ImageStorage::unregister() {
    ImageStorageManager::instance()->unregisterStorage(_selfRef, getCurrentPixelFormat());
}

SharedPtr<RawImageStorage> ImageStorage::readBack(RawPixelFormat, const SharedPtr<RawImageStorage>&) {
    return nullptr;
}

void ImageStorage::setDrawParameters(const DrawParameters&) {}

void ImageStorage::updateMipmaps() {}

bool ImageStorage::writeRect(const ImageStorage*, const Recti&, GenVec<int, 2>, CopyFlippedMode) {
    return false;
}

bool ImageStorage::tryDiscardPixelFormat(RawPixelFormat) { return false; }

unsigned int ImageStorage::computeMemoryCost(unsigned int width, unsigned int height,
                                             RawPixelFormat format) {
    if (format == PfInvalid) return 0;
    return getBytesPerPixel(format) * width * height;
}

}  // namespace qor::imaging
