#pragma once
// SimpleImageSource: a source of one tile that exists already. It answers getTiles at once, with
// no request and no job.
//
// Thread contract: immutable after construction; every member from any thread.

#include "imaging/GenImageData.h"
#include "imaging/ImageSource.h"

namespace qor::imaging {

class SimpleImageSource : public ImageSource {
public:
    static SharedPtr<SimpleImageSource> create(const SharedPtr<const ImageTile>& tile);
    // A tile of the data's size in PfRGB8, PfRGB16, PfRGBA8 or PfRGBA16 holding a copy of it.
    static SharedPtr<SimpleImageSource> create(const SharedPtr<GenImageData<unsigned char, 3>>& data);
    static SharedPtr<SimpleImageSource> create(
        const SharedPtr<GenImageData<unsigned short, 3>>& data);
    static SharedPtr<SimpleImageSource> create(const SharedPtr<GenImageData<unsigned char, 4>>& data);
    static SharedPtr<SimpleImageSource> create(
        const SharedPtr<GenImageData<unsigned short, 4>>& data);
    static SharedPtr<SimpleImageSource> createRed32F(const SharedPtr<GenImageData<float, 1>>& data);
    static SharedPtr<SimpleImageSource> createLum32F(const SharedPtr<GenImageData<float, 1>>& data);

    TileLayout tileLayout() const override { return _layout; }
    void getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                  const OnRequest& onRequest) override;
    using ImageSource::getTiles;

protected:
    SimpleImageSource(const SharedPtr<const ImageTile>& tile);
    // Logs "false" for a format other than the six above.
    SimpleImageSource(GenVec<int, 2> size, RawPixelFormat format);
    SharedPtr<const ImageTile> computeTileData(unsigned int row, unsigned int column) override;

private:
    template <RawPixelFormat F, class T, int N>
    static SharedPtr<SimpleImageSource> fromData(const SharedPtr<GenImageData<T, N>>& data);

    SharedPtr<const ImageTile> _tile;
    TileLayout _layout;
};

}  // namespace qor::imaging
