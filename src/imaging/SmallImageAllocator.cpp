#include "imaging/SmallImageAllocator.h"

#include "base/Log.h"
#include "imaging/ImageTile.h"

namespace qor::imaging {

// ---- PackerImageRow ----

bool PackerImageRow::alloc(int width, int height, Recti* block) {
    if (height > _maxHeight || width <= 0 || height <= 0) return false;
    if (_blocks.empty()) {
        if (width > _imageWidth) return false;
        *block = Recti(0, _top, width, height);
        _blocks.push_back(*block);
        _usedHeight = height;
        return true;
    }
    for (auto it = _blocks.begin(); it != _blocks.end(); ++it) {
        auto next = std::next(it);
        const int gapEnd = next == _blocks.end() ? _imageWidth : next->xmin();
        if (gapEnd - it->xmax() < width) continue;
        *block = Recti(it->xmax(), _top, width, height);
        _blocks.insert(next, *block);
        if (height > _usedHeight) _usedHeight = height;
        return true;
    }
    return false;
}

bool PackerImageRow::free(const Recti& block) {
    for (auto it = _blocks.begin(); it != _blocks.end(); ++it) {
        if (*it != block) continue;
        _blocks.erase(it);
        return true;
    }
    return false;
}

// ---- PackerImage ----

PackerImage::PackerImage(GenVec<int, 2> size)
    : _tile(ImageTile::createNonCached(size, PfRGBA8)), _image(Image::create(_tile)), _size(size) {}

PackerImage::~PackerImage() { QOR_ASSERT_TEXT(empty(), "empty()"); }

bool PackerImage::allocRGBA(const SharedPtr<GenImageData<unsigned char, 4>>& data, Recti* block) {
    const int w = data->width(), h = data->height();
    {
        ScopedLock<Mutex> lock(_mutex);
        bool found = false;
        for (PackerImageRow& row : _rows)
            if ((found = row.alloc(w, h, block))) break;
        if (!found) {
            const int top = _rows.empty() ? 0 : _rows.back().top() + _rows.back().usedHeight();
            if (top + h > _size.y) return false;
            if (!_rows.empty()) _rows.back().closeBelow();
            _rows.emplace_back(top, _size.y - top, _size.x);
            if (!_rows.back().alloc(w, h, block)) return false;
        }
    }
    QOR_ASSERT_TEXT(data->width() == block->width(), "data->width() == b->width()");
    QOR_ASSERT_TEXT(data->height() == block->height(), "data->height() == b->height()");
    _tile->writeSubRect(data, Recti(0, 0, w, h), block->mins);
    return true;
}

void PackerImage::free(const Recti& block) {
    ScopedLock<Mutex> lock(_mutex);
    for (PackerImageRow& row : _rows)
        if (row.free(block)) return;
    QOR_ASSERT_TEXT(false, "block freed twice or never allocated");
}

bool PackerImage::empty() const {
    ScopedLock<Mutex> lock(_mutex);
    for (const PackerImageRow& row : _rows)
        if (!row.empty()) return false;
    return true;
}

void PackerImage::logAllBlocks() const {
    ScopedLock<Mutex> lock(_mutex);
    for (const PackerImageRow& row : _rows)
        for (const Recti& block : row.blocks()) QOR_LOG(LogInfo, "block %*", block);
}

// ---- SmallImageAllocator ----

struct SmallImageAllocator::Shared {
    Mutex mutex;  // guards images
    std::list<SharedPtr<PackerImage>> images;
};

SmallImageAllocator::SmallImageAllocator(GenVec<int, 2> imageSize)
    : _shared(std::make_shared<Shared>()), _imageSize(imageSize) {}

SmallImageAllocator::~SmallImageAllocator() {
    ScopedLock<Mutex> lock(_shared->mutex);
    deleteEmptyImages(*_shared, _shared->images.size());
    QOR_ASSERT_TEXT(_shared->images.empty(), "_images.empty()");
}

void SmallImageAllocator::deleteEmptyImages(Shared& shared, size_t count) QOR_NO_THREAD_SAFETY_ANALYSIS {
    auto it = shared.images.begin();
    for (size_t i = 0; i < count && it != shared.images.end(); ++i) {
        if ((*it)->empty()) {
            it = shared.images.erase(it);
        } else {
            ++it;
        }
    }
}

SharedPtr<Image> SmallImageAllocator::wrap(const SharedPtr<PackerImage>& packer, const Recti& block) {
    WeakSharedPtr<Shared> shared = _shared;
    // The small image keeps its big image alive; the list is reached weakly, as the allocator may
    // have gone first.
    return packer->image()->getSubImage(block, [packer, block, shared] {
        packer->free(block);
        if (SharedPtr<Shared> s = shared.lock()) {
            ScopedLock<Mutex> lock(s->mutex);
            // The last big image stays even when empty, so that a steady use does not make and
            // drop one each time.
            if (s->images.size() > 1) deleteEmptyImages(*s, s->images.size() - 1);
        }
    });
}

SharedPtr<Image> SmallImageAllocator::createRGBA(const SharedPtr<GenImageData<unsigned char, 4>>& data) {
    if (!data) {
        QOR_ASSERT_TEXT(data, "data");
        return nullptr;
    }
    const bool fits = data->width() <= _imageSize.x && data->height() <= _imageSize.y;
    QOR_ASSERT_TEXT(fits, "data->width() <= _imageSize.x && data->height() <= _imageSize.y");
    if (!fits) return nullptr;
    ScopedLock<Mutex> lock(_shared->mutex);
    size_t index = 0;
    for (auto it = _shared->images.begin(); it != _shared->images.end(); ++it, ++index) {
        Recti block;
        if (!(*it)->allocRGBA(data, &block)) continue;
        SharedPtr<PackerImage> packer = *it;
        deleteEmptyImages(*_shared, index);
        return wrap(packer, block);
    }
    auto packer = std::make_shared<PackerImage>(_imageSize);
    _shared->images.push_back(packer);
    Recti block;
    const bool ret = packer->allocRGBA(data, &block);
    QOR_ASSERT_TEXT(ret, "ret");
    return ret ? wrap(packer, block) : nullptr;
}

size_t SmallImageAllocator::bigImageCount() const {
    ScopedLock<Mutex> lock(_shared->mutex);
    return _shared->images.size();
}

void SmallImageAllocator::logAllBlocks() const {
    ScopedLock<Mutex> lock(_shared->mutex);
    for (const SharedPtr<PackerImage>& packer : _shared->images) packer->logAllBlocks();
}

}  // namespace qor::imaging
