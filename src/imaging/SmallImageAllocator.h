#pragma once
// SmallImageAllocator: packs many small RGBA images into a few big images, so that each small image
// is a rectangle of a shared big one (few big textures instead of many small ones). The big images
// are filled shelf by shelf: PackerImage holds rows (PackerImageRow) of blocks; a row takes a block
// in the first gap wide enough, and a new row opens below the last while the height allows.
//
// Ownership: the allocator owns its big images. Each small image it hands out is a sub-image of a
// big one; when the small image dies its block is freed, and empty big images are dropped when a
// later one is used (the order of the list never changes). Small images may outlive the allocator:
// their big image then lives on until the last of them goes.
//
// Thread contract: createRGBA and the release of small images may run on any threads. Lock order:
// the allocator's mutex, then a big image's.

#include <list>
#include <vector>

#include "base/thread/Mutex.h"
#include "imaging/GenImageData.h"
#include "imaging/Image.h"
#include "math/GenRect.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

// One shelf of a big image: blocks side by side at a fixed top, ordered by x.
class PackerImageRow {
public:
    PackerImageRow(int top, int maxHeight, int imageWidth)
        : _top(top), _maxHeight(maxHeight), _imageWidth(imageWidth) {}

    // A block of width x height, first fit after an existing block (or at x 0 in an empty row);
    // false when the row has no room.
    bool alloc(int width, int height, Recti* block);
    // Frees a block handed out by alloc; false if there is no such block.
    bool free(const Recti& block);

    bool empty() const { return _blocks.empty(); }
    int top() const { return _top; }
    int usedHeight() const { return _usedHeight; }
    int maxHeight() const { return _maxHeight; }
    // A row below this one caps it at what it uses now.
    void closeBelow() { _maxHeight = _usedHeight; }
    const std::list<Recti>& blocks() const { return _blocks; }

private:
    int _top;
    int _usedHeight = 0;
    int _maxHeight;
    int _imageWidth;
    std::list<Recti> _blocks;
};

// One big image and its rows.
class PackerImage {
public:
    explicit PackerImage(GenVec<int, 2> size);
    // Asserts "empty()".
    ~PackerImage();
    PackerImage(const PackerImage&) = delete;
    PackerImage& operator=(const PackerImage&) = delete;

    // Copies `data` into a free block and returns the block's rectangle; false without room.
    bool allocRGBA(const SharedPtr<GenImageData<unsigned char, 4>>& data, Recti* block);
    void free(const Recti& block);
    bool empty() const;
    const SharedPtr<Image>& image() const { return _image; }
    void logAllBlocks() const;

private:
    mutable Mutex _mutex;  // guards _rows
    SharedPtr<ImageTile> _tile;
    SharedPtr<Image> _image;
    GenVec<int, 2> _size;
    std::vector<PackerImageRow> _rows QOR_GUARDED_BY(_mutex);
};

class SmallImageAllocator {
public:
    // Big images of `imageSize` each.
    explicit SmallImageAllocator(GenVec<int, 2> imageSize);
    // Drops the empty big images and asserts "_images.empty()".
    ~SmallImageAllocator();
    SmallImageAllocator(const SmallImageAllocator&) = delete;
    SmallImageAllocator& operator=(const SmallImageAllocator&) = delete;

    // `data` as an image inside a big one. Null, after the logged assertion
    // "data->width() <= _imageSize.x && data->height() <= _imageSize.y", for data larger than a
    // big image. Throws std::bad_alloc when a new big image cannot be made.
    SharedPtr<Image> createRGBA(const SharedPtr<GenImageData<unsigned char, 4>>& data);

    size_t bigImageCount() const;
    void logAllBlocks() const;

private:
    struct Shared;
    // Drops the empty big images among the first `count` of the list.
    static void deleteEmptyImages(Shared& shared, size_t count);
    SharedPtr<Image> wrap(const SharedPtr<PackerImage>& packer, const Recti& block);

    SharedPtr<Shared> _shared;  // the list, shared with the release functions of small images
    GenVec<int, 2> _imageSize;
};

}  // namespace qor::imaging
