#include "imageio/DecoderRegistry.h"

#include <algorithm>
#include <cmath>

#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/filesystem/RandomAccessFile.h"
#include "base/thread/Mutex.h"
#include "imageio/decoders/BuiltInDecoders.h"
#include "imageio/detail/PathExtension.h"

namespace qor::imageio {

namespace {

struct Registry {
    Registry() {
        for (std::unique_ptr<ImageDecoder>& decoder : detail::builtInDecoders())
            decoders.push_back(std::shared_ptr<ImageDecoder>(std::move(decoder)));
    }
    Mutex mutex;  // guards decoders
    std::vector<std::shared_ptr<ImageDecoder>> decoders;
};

Registry& registry() {
    static Registry* r = new Registry;  // the built-in decoders come first
    return *r;
}

}  // namespace

void registerDecoder(std::unique_ptr<ImageDecoder> decoder) {
    if (!decoder) return;
    Registry& r = registry();
    ScopedLock<Mutex> lock(r.mutex);
    r.decoders.push_back(std::shared_ptr<ImageDecoder>(std::move(decoder)));
}

math::GenVec<int, 2> fitInside(math::GenVec<int, 2> source, math::GenVec<int, 2> box) {
    if (box.x <= 0 || box.y <= 0 || source.x <= 0 || source.y <= 0) return source;
    const double scale = std::min(double(box.x) / source.x, double(box.y) / source.y);
    return math::GenVec<int, 2>(std::max(1, int(std::lround(source.x * scale))),
                                std::max(1, int(std::lround(source.y * scale))));
}

bool decodeWithRegistry(const FastString<char>& path, math::GenVec<int, 2> size,
                        ImageQuality quality, ImageOut* image, SharedPtr<Metadata>* metadata,
                        const math::Recti& roi) {
    unsigned char head[64];
    size_t length = 0;
    try {
        filesystem::RandomAccessFileStd file(path.view());
        length = file.readAt(0, head, sizeof head);
    } catch (const std::exception&) {
        QOR_LOG(LogWarning, "Failed to load image using WIC: '%*'", path);
        return false;
    }
    std::vector<std::shared_ptr<ImageDecoder>> decoders;
    {
        Registry& r = registry();
        ScopedLock<Mutex> lock(r.mutex);
        decoders = r.decoders;
    }
    const FastString<char> extension = detail::upperExtension(path);
    for (const std::shared_ptr<ImageDecoder>& decoder : decoders) {
        if (!decoder->accepts(head, length, extension)) continue;
        bool ok = false;
        try {
            ok = decoder->decode(path, size, quality, image, metadata, roi);
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "Decoder %* failed on '%*': %*", decoder->name(), path, e.what());
        } catch (...) {
            QOR_LOG(LogError, "Decoder %* failed on '%*'", decoder->name(), path);
        }
        if (ok) return true;
        break;
    }
    QOR_LOG(LogWarning, "Failed to load image using WIC: '%*'", path);
    return false;
}

}  // namespace qor::imageio
