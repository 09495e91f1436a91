#include "imageio/decoders/FormatDecoders.h"

#include <gif_lib.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/decoders/detail/DecodeSupport.h"

namespace qor::imageio {

namespace {

using detail::Rgba8Image;

// giflib reads sequentially through this.
struct GifSource {
    RandomAccessFile& file;
    uint64_t position = 0;
};

int readFromSource(GifFileType* gif, GifByteType* buffer, int length) {
    auto* source = static_cast<GifSource*>(gif->UserData);
    if (length <= 0) return 0;
    try {
        const size_t got = source->file.readAt(source->position, buffer, size_t(length));
        source->position += got;
        return int(got);
    } catch (const std::exception&) {
        return 0;
    }
}

struct GifCloser {
    void operator()(GifFileType* gif) const {
        int error = 0;
        DGifCloseFile(gif, &error);
    }
};
using GifHandle = std::unique_ptr<GifFileType, GifCloser>;

// Why a decode stopped, for the log line.
const char* gifError(int code) {
    const char* text = GifErrorString(code);
    return text ? text : "unknown error";
}

// The first frame drawn on a transparent canvas of the logical screen's size. Rows the file does
// not deliver (a truncated file) stay transparent; `truncated` says so.
SharedPtr<Rgba8Image> drawFirstFrame(GifFileType* gif, math::GenVec<int, 2> canvas,
                                     const FastString<char>& path, bool& truncated) {
    int transparent = NO_TRANSPARENT_COLOR;
    for (;;) {
        GifRecordType record = UNDEFINED_RECORD_TYPE;
        if (DGifGetRecordType(gif, &record) == GIF_ERROR) {
            QOR_LOG(LogInfo, "GIF '%*' has no image: %*", path, gifError(gif->Error));
            return nullptr;
        }
        if (record == TERMINATE_RECORD_TYPE) {
            QOR_LOG(LogInfo, "GIF '%*' has no image", path);
            return nullptr;
        }
        if (record == EXTENSION_RECORD_TYPE) {
            int code = 0;
            GifByteType* block = nullptr;
            if (DGifGetExtension(gif, &code, &block) == GIF_ERROR) {
                QOR_LOG(LogInfo, "GIF '%*' has a damaged extension: %*", path,
                        gifError(gif->Error));
                return nullptr;
            }
            if (code == GRAPHICS_EXT_FUNC_CODE && block && block[0] >= 4) {
                GraphicsControlBlock control;
                if (DGifExtensionToGCB(block[0], block + 1, &control) == GIF_OK)
                    transparent = control.TransparentColor;
            }
            while (block) {
                if (DGifGetExtensionNext(gif, &block) == GIF_ERROR) {
                    QOR_LOG(LogInfo, "GIF '%*' has a damaged extension: %*", path,
                            gifError(gif->Error));
                    return nullptr;
                }
            }
            continue;
        }
        if (record != IMAGE_DESC_RECORD_TYPE) continue;

        if (DGifGetImageDesc(gif) == GIF_ERROR) {
            QOR_LOG(LogInfo, "GIF '%*' has a damaged image descriptor: %*", path,
                    gifError(gif->Error));
            return nullptr;
        }
        const GifImageDesc& frame = gif->Image;
        const ColorMapObject* colours = frame.ColorMap ? frame.ColorMap : gif->SColorMap;
        if (!colours || !colours->Colors || colours->ColorCount <= 0) {
            QOR_LOG(LogInfo, "GIF '%*' has no colour table", path);
            return nullptr;
        }
        if (frame.Width <= 0 || frame.Height <= 0) {
            QOR_LOG(LogInfo, "GIF '%*' has an empty first frame", path);
            return nullptr;
        }
        SharedPtr<Rgba8Image> image = detail::allocateRgba(canvas.x, canvas.y, path);
        if (!image) return nullptr;
        std::vector<GifPixelType> line(size_t(frame.Width));
        // Interlaced frames deliver rows in four passes: every 8th from 0, every 8th from 4,
        // every 4th from 2, every 2nd from 1.
        static constexpr int kStart[4] = {0, 4, 2, 1};
        static constexpr int kStep[4] = {8, 8, 4, 2};
        const int passes = frame.Interlace ? 4 : 1;
        for (int pass = 0; pass < passes; ++pass) {
            const int start = frame.Interlace ? kStart[pass] : 0;
            const int step = frame.Interlace ? kStep[pass] : 1;
            for (int row = start; row < frame.Height; row += step) {
                if (DGifGetLine(gif, line.data(), frame.Width) == GIF_ERROR) {
                    truncated = true;
                    return image;
                }
                const int y = frame.Top + row;
                if (y < 0 || y >= canvas.y) continue;
                unsigned char* out = image->row(y);
                const int x0 = std::max(0, frame.Left);
                const int x1 = std::min(canvas.x, frame.Left + frame.Width);
                for (int x = x0; x < x1; ++x) {
                    const int index = line[size_t(x - frame.Left)];
                    unsigned char* p = out + size_t(x) * 4;
                    if (index == transparent) continue;  // stays transparent
                    if (index < colours->ColorCount) {
                        const GifColorType& c = colours->Colors[index];
                        p[0] = c.Red;
                        p[1] = c.Green;
                        p[2] = c.Blue;
                    }
                    p[3] = 255;
                }
            }
        }
        return image;
    }
}

}  // namespace

bool GifDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    return length >= 6 &&
           (std::memcmp(head, GIF87_STAMP, 6) == 0 || std::memcmp(head, GIF89_STAMP, 6) == 0);
}

bool GifDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                        math::GenVec<int, 2> size, ImageQuality, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    GifSource source{file};
    int error = 0;
    GifHandle gif(DGifOpen(&source, readFromSource, &error));
    if (!gif) {
        QOR_LOG(LogInfo, "Not a readable GIF '%*': %*", path, gifError(error));
        return false;
    }
    const math::GenVec<int, 2> canvas(gif->SWidth, gif->SHeight);
    if (!detail::plausibleSize(canvas.x, canvas.y)) {
        QOR_LOG(LogInfo, "GIF '%*' claims an implausible size %*x%*", path, canvas.x, canvas.y);
        return false;
    }
    if (detail::wanted(image)) {
        bool truncated = false;
        SharedPtr<Rgba8Image> full = drawFirstFrame(gif.get(), canvas, path, truncated);
        if (!full) return false;
        if (truncated)
            QOR_LOG(LogWarning, "GIF '%*' ends early: %*; the rest of the frame is transparent",
                    path, gifError(gif->Error));
        SharedPtr<Rgba8Image> result = detail::finishImage(std::move(full), size, roi, path);
        if (!result) return false;
        *image = std::move(result);
    }
    detail::provideMetadata(metadata, canvas);
    return true;
}

}  // namespace qor::imageio
