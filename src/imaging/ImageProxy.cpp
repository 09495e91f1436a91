#include "imaging/ImageProxy.h"

#include <typeinfo>

#include "base/Exception.h"
#include "base/Log.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/detail/DependeeLink.h"

namespace qor::imaging {

SharedPtr<ImageProxy> ImageProxy::create(const SharedPtr<Image>& image) {
    if (!image || !image->source()) throw Exception("ImageProxy: no image");
    auto* s = new ImageProxy(image);
    auto self = std::static_pointer_cast<ImageProxy>(s->setupSelfRef());
    ScopedLock<Mutex> lock(self->_imageMutex);
    self->connectTo(image);
    return self;
}

ImageProxy::ImageProxy(const SharedPtr<Image>& image)
    : ImageSource(image->size(), image->pixelFormat(), image->source()->getDrawParameters()),
      _image(image) {}

ImageProxy::~ImageProxy() {
    ScopedLock<Mutex> lock(_imageMutex);
    _dependeeConnection.disconnect();
}

void ImageProxy::connectTo(const SharedPtr<Image>& image) {
    _dependeeConnection = detail::linkDependee(*image->source(), selfRef());
}

SharedPtr<Image> ImageProxy::image() const {
    ScopedLock<Mutex> lock(_imageMutex);
    return _image;
}

void ImageProxy::setImage(const SharedPtr<Image>& image) {
    if (!image || !image->source()) throw Exception("ImageProxy::setImage: no image");
    if (image->size() != size() || image->pixelFormat() != pixelFormat())
        throw Exception(formatLog("ImageProxy::setImage: the image is %*x%* %*, the proxy %*x%* %*",
                                  image->width(), image->height(),
                                  pixelFormatString(image->pixelFormat()), width(), height(),
                                  pixelFormatString(pixelFormat())));
    SharedPtr<Image> old;  // released after the locks
    {
        // Graph builders through the proxy hold its _mutex: they see the old image with the old
        // version or the new image with a new one.
        ScopedLock<Mutex> lock(_mutex);
        ScopedLock<Mutex> imageLock(_imageMutex);
        if (image == _image) return;
        old = _image;
        _image = image;
        connectTo(image);
        incrementVersionUnlocked();
    }
    incrementVersion();
}

TileLayout ImageProxy::tileLayout() const { return image()->tileLayout(); }

void ImageProxy::insertDependencies(SourceList& out) const { out.push_back(image()->source()); }

ImageSource::TileGetter ImageProxy::computeJobsUnlocked(unsigned int x, unsigned int y,
                                                        JobSet& jobs,
                                                        thread::DependentJobMerger& merger) {
    static const FastString<char> name("ImageProxy");
    const SharedPtr<Image> current = image();
    const Recti rect = current->getTileRect(x, y);
    if (TileGetter cached = checkCachedTileUnlocked(jobs, merger, rect, name)) return cached;
    SharedPtr<TileNotifyJob> notifyJob;
    TileGetter existing =
        createNotifyJobUnlocked(jobs, merger, &notifyJob, TileIndex(int(x), int(y)), rect, name);
    if (!notifyJob) return existing;
    JobSet imageJobs;
    TileGetter tile = current->computeJobsUnlocked(x, y, imageJobs, merger);
    return mergeWithNotifyJobUnlocked(jobs, merger, notifyJob, imageJobs, tile);
}

}  // namespace qor::imaging
