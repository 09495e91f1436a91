#include "imageio/DecoderRegistry.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <vector>

#include "base/Log.h"
#include "base/thread/Mutex.h"
#include "imageio/decoders/BuiltInDecoders.h"
#include "imageio/detail/PathExtension.h"

namespace qor::imageio {

namespace {

struct Registry {
    Registry() {
        for (std::unique_ptr<ImageDecoder>& decoder : detail::builtInDecoders())
            decoders.push_back(std::move(decoder));
    }
    Mutex mutex;  // guards the vector; the decoders themselves are immutable and never removed
    std::vector<std::unique_ptr<ImageDecoder>> decoders;
};

Registry& registry() {
    static Registry* r = new Registry;  // lives to the end of the process; built-ins come first
    return *r;
}

}  // namespace

void registerDecoder(std::unique_ptr<ImageDecoder> decoder) {
    if (!decoder) return;
    Registry& r = registry();
    ScopedLock<Mutex> lock(r.mutex);
    r.decoders.push_back(std::move(decoder));
}

const ImageDecoder* findDecoder(const unsigned char* head, size_t length,
                                const FastString<char>& upperExtension) {
    Registry& r = registry();
    ScopedLock<Mutex> lock(r.mutex);
    for (const std::unique_ptr<ImageDecoder>& decoder : r.decoders)
        if (decoder->accepts(head, length, upperExtension)) return decoder.get();
    return nullptr;
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
    bool ok = false;
    try {
        filesystem::RandomAccessFileStd file(path.view());
        unsigned char head[DecoderHeadLength];
        const size_t length = file.readAt(0, head, sizeof head);
        const ImageDecoder* decoder = findDecoder(head, length, detail::upperExtension(path));
        if (!decoder) {
            QOR_LOG(LogInfo, "No decoder recognises the content of '%*' (%*)", path,
                    length == 0 ? "an empty file" : "no known signature");
        } else {
            try {
                ok = decoder->decode(file, path, size, quality, image, metadata, roi);
            } catch (const std::exception& e) {
                QOR_LOG(LogError, "Decoder %* failed on '%*': %*", decoder->name(), path, e.what());
            } catch (...) {
                QOR_LOG(LogError, "Decoder %* failed on '%*'", decoder->name(), path);
            }
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "Cannot open '%*': %*", path, e.what());
    }
    if (!ok) QOR_LOG(LogWarning, "Failed to load image using WIC: '%*'", path);
    return ok;
}

}  // namespace qor::imageio
