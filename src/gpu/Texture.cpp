#include "gpu/Texture.h"

#include "base/Log.h"
#include "imaging/RawImageStorage.h"

namespace qor::gpu {

Texture::~Texture() = default;

namespace {

// `rect` of `data` as a view of its own; the view keeps `data` (and its lock) alive.
template <class T, int N>
ImageDataIn<T, N> subView(const ImageDataIn<T, N>& data, const Recti& rect) {
    if (!data || (rect.mins == Vec2i(0, 0) && rect.width() == data->width() &&
                  rect.height() == data->height()))
        return data;
    auto* first = const_cast<T*>(&data->at(rect.xmin(), rect.ymin()));
    return std::make_shared<const GenImageData<T, N>>(rect.width(), rect.height(), data->stride(),
                                                      first, [data] {});
}

}  // namespace

void uploadStorage(imaging::RawImageStorage& storage, Texture& texture, const Recti& srcrect,
                   const Vec2i& at) {
    const Recti rect(at, at + srcrect.size());
    switch (texture.pixelFormat()) {
#define QOR_UPLOAD_CASE(F, Name) \
    case imaging::Pf##F:         \
        texture.setData##Name(subView(storage.getData##F(), srcrect), rect); \
        break;
        QOR_UPLOAD_CASE(RGB8, RGB)
        QOR_UPLOAD_CASE(RGB16, RGB)
        QOR_UPLOAD_CASE(RGB16F, RGB)
        QOR_UPLOAD_CASE(RGB32F, RGB)
        QOR_UPLOAD_CASE(RGBA8, RGBA)
        QOR_UPLOAD_CASE(BGRA8, BGRA)
        QOR_UPLOAD_CASE(RGBA16, RGBA)
        QOR_UPLOAD_CASE(RGBA16F, RGBA)
        QOR_UPLOAD_CASE(RGBA32F, RGBA)
        QOR_UPLOAD_CASE(Red8, Red)
        QOR_UPLOAD_CASE(Red16, Red)
        QOR_UPLOAD_CASE(Red16F, Red)
        QOR_UPLOAD_CASE(Red32F, Red)
#undef QOR_UPLOAD_CASE
        default:
            QOR_ASSERT_TEXT(false, "false");
            break;
    }
}

void uploadStorage(imaging::RawImageStorage& storage, Texture& texture) {
    uploadStorage(storage, texture, Recti(0, 0, storage.width(), storage.height()), Vec2i(0, 0));
}

}  // namespace qor::gpu
