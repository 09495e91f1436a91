#include <cstring>

#include "imageio/ImageIO.h"
#include "imageio/decoders/FormatDecoders.h"
#include "imageio/decoders/detail/DecodeSupport.h"

namespace qor::imageio {

bool PngDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    return length >= 8 && std::memcmp(head, "\x89PNG\r\n\x1A\n", 8) == 0;
}

bool PngDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                        math::GenVec<int, 2> size, ImageQuality, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    ImageOut full;
    SharedPtr<Metadata> read;
    if (!loadPng(file, detail::wanted(image) ? &full : nullptr,
                 detail::wanted(metadata) ? &read : nullptr))
        return false;
    if (detail::wanted(image)) {
        full = detail::finishImage(std::move(full), size, roi, path);
        if (!full) return false;
        *image = std::move(full);
    }
    if (read) *metadata = std::move(read);
    return true;
}

}  // namespace qor::imageio
