#pragma once
// ImageProxy: a source that stands for another Image and can be pointed at a new one. Its tiles are
// the current image's tiles with the current image's layout; a request to the proxy builds the
// image's jobs (inside the same full lock and with the same merger) behind a cache or notify job of
// the proxy, so the caller receives each tile with the proxy as its source. Pointing the proxy at a
// new image raises the version of the proxy and of everything that reads it, so that tiles of the
// old image are no longer served through it.
//
// Every image the proxy stands for must have the size and pixel format of the first one: the size
// and format of a source are fixed when it is made.
//
// Ownership: holds the current image strongly, and is connected (weakly) to the dependee signal of
// the current image's source, so that a version change there reaches the proxy and its dependents.
// Thread contract: every member from any thread. The current image changes only with both the
// proxy's _mutex (part of every full lock through the proxy) and _imageMutex held; code outside the
// full lock reads it under _imageMutex alone, which nests inside _mutex and is a leaf.

#include "imaging/Image.h"
#include "imaging/ImageSource.h"

namespace qor::imaging {

class ImageProxy : public ImageSource {
public:
    // A proxy of `image`. Throws Exception for a null image.
    static SharedPtr<ImageProxy> create(const SharedPtr<Image>& image);
    // Disconnects from the current image's source.
    ~ImageProxy() override;

    // Points the proxy at `image`, then raises the version of the proxy and of its dependents and
    // emits their OnVersionChanged (on this thread, after all locks are released). The same image
    // again changes nothing. Throws Exception, and keeps the current image, for a null image or one
    // of another size or pixel format. Blocks while a graph through the proxy is being built.
    void setImage(const SharedPtr<Image>& image);
    SharedPtr<Image> image() const;

    // The current image's layout.
    TileLayout tileLayout() const override;
    // The cached tile of the proxy, or a cache or notify job of the proxy over the current image's
    // jobs for the same tile. Needs the full lock.
    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override;
    // Appends the current image's source.
    void insertDependencies(SourceList& out) const override;

protected:
    explicit ImageProxy(const SharedPtr<Image>& image);

private:
    // Connects the proxy to the dependee signal of `image`'s source, dropping the old connection.
    void connectTo(const SharedPtr<Image>& image) QOR_REQUIRES(_imageMutex);

    mutable thread::Mutex _imageMutex;  // guards _image, _dependeeConnection
    SharedPtr<Image> _image QOR_GUARDED_BY(_imageMutex);
    ScopedConnection _dependeeConnection QOR_GUARDED_BY(_imageMutex);
};

}  // namespace qor::imaging
