// Region reads of OpenEXR files: only the scanlines of the region are decoded (the library reads
// whole lines, so a line buffer spans the data window's width). R, G, B and A are read as float;
// a file with only Y gives grey, a missing alpha is 1.

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <openexr.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/decoders/detail/DecodeSupport.h"
#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/RegionReaders.h"
#include "imaging/ImagingException.h"

namespace qor::imageio::detail {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw ImageLoaderException("cannot read OpenEXR '" + path + "': " + what);
}

uint32_t u32At(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The bytes that OpenEXR's file classes read for a value of `type` declared `size` bytes long,
// when they go by the type rather than by the declared size; 0 for types read by their size.
size_t fixedSize(const std::string& type) {
    static const std::pair<const char*, size_t> sizes[] = {
        {"box2i", 16},      {"box2f", 16},   {"chromaticities", 32},
        {"compression", 1}, {"double", 8},   {"envmap", 1},
        {"float", 4},       {"int", 4},      {"keycode", 28},
        {"lineOrder", 1},   {"m33f", 36},    {"m33d", 72},
        {"m44f", 64},       {"m44d", 128},   {"rational", 8},
        {"tiledesc", 9},    {"timecode", 8}, {"v2i", 8},
        {"v2f", 8},         {"v2d", 16},     {"v3i", 12},
        {"v3f", 12},        {"v3d", 24},     {"deepImageState", 1}};
    for (const auto& [name, bytes] : sizes)
        if (type == name) return bytes;
    return 0;
}

// Whether the value of an attribute of `type` in `value` (its declared `size` bytes) is exactly as
// long as the file classes will read it.
bool consistentValue(const std::string& type, const std::vector<uint8_t>& value) {
    if (const size_t bytes = fixedSize(type)) return value.size() == bytes;
    if (type == "preview") {  // width and height, then RGBA pixels
        if (value.size() < 8) return false;
        const uint64_t pixels = uint64_t(u32At(value.data())) * u32At(value.data() + 4);
        return pixels <= (value.size() - 8) / 4 && pixels * 4 + 8 == value.size();
    }
    if (type == "chlist") {  // entries of a name, 16 bytes behind it, until an empty name
        size_t at = 0;
        while (at < value.size()) {
            const auto end = std::find(value.begin() + ptrdiff_t(at), value.end(), 0);
            if (end == value.end()) return false;
            const size_t length = size_t(end - value.begin()) - at;
            if (length == 0) return at + 1 == value.size();
            at += length + 1 + 16;
        }
        return false;
    }
    return true;  // strings, string and float vectors and unknown types go by the declared size
}

// A data window from (x0, y0) to (x1, y1) in a file of `fileSize` bytes: a picture we may decode,
// whose chunk table and pixels the file can hold (see checkHeaders).
void checkWindow(const std::string& path, int32_t x0, int32_t y0, int32_t x1, int32_t y1,
                 uint64_t fileSize) {
    const int64_t width = int64_t(x1) - x0 + 1;
    const int64_t height = int64_t(y1) - y0 + 1;
    if (!plausibleSize(width, height) || uint64_t(height) / 32 > fileSize ||
        uint64_t(width) * uint64_t(height) / 1024 > fileSize)
        fail(path, "a data window of " + std::to_string(width) + " x " + std::to_string(height) +
                       " pixels in a file of " + std::to_string(fileSize) + " bytes");
}

// Walks the headers (one, or one a part and an empty one behind them) as the file classes read
// them: every attribute's value must lie inside the file and be as long as its type is read.
void checkAttributes(const std::string& path) {
    RandomAccessFileStd file(path);
    const uint64_t size = file.size();
    uint8_t version[8];
    if (file.readAt(0, version, 8) != 8) fail(path, "no header");
    const bool multipart = (version[5] & 0x10) != 0;
    uint64_t at = 8;
    // A name or type: up to 255 characters and a zero byte.
    const auto text = [&](std::string& out) {
        char buffer[256];
        const size_t got = file.readAt(at, buffer, sizeof buffer);
        const size_t length = size_t(std::find(buffer, buffer + got, '\0') - buffer);
        if (length == got) fail(path, "a header name runs past its limit or the file");
        out.assign(buffer, length);
        at += length + 1;
    };
    std::string name, type;
    for (int part = 0;; ++part) {
        text(name);
        if (name.empty()) {
            if (multipart && part > 0) return;  // the empty header behind the last part
            fail(path, "an empty header");
        }
        for (; !name.empty(); text(name)) {
            text(type);
            uint8_t length[4];
            if (file.readAt(at, length, 4) != 4) fail(path, "the header ends early");
            at += 4;
            const uint32_t bytes = u32At(length);
            if (bytes > size - std::min(size, at))
                fail(path, "attribute '" + name + "' claims " + std::to_string(int32_t(bytes)) +
                               " bytes, more than the file holds");
            std::vector<uint8_t> value(bytes);
            file.readAt(at, value.data(), bytes);
            if (!consistentValue(type, value))
                fail(path, "attribute '" + name + "' of type '" + type + "' is not " +
                               std::to_string(bytes) + " bytes long");
            if (name == "dataWindow" && type == "box2i")  // each of them: the last one counts
                checkWindow(path, int32_t(u32At(value.data())), int32_t(u32At(value.data() + 4)),
                            int32_t(u32At(value.data() + 8)), int32_t(u32At(value.data() + 12)),
                            size);
            at += bytes;
        }
        if (!multipart) return;
    }
}

// OpenEXR's file classes allocate what a header declares before they read it (an attribute's
// length, a preview's pixels, a table of chunk offsets as long as the data window is high), and
// read the values of some types by their content rather than their declared length, after which
// they read the rest of the header out of step; a file of a few hundred bytes can make them
// allocate gigabytes. So the headers are checked first: walked as the file classes read them
// (checkAttributes), read by OpenEXR's core library, which checks them against the file, and each
// part's data window must be a picture we may decode whose chunk table (8 bytes a chunk of at most
// 256 lines) fits in the file, and whose pixels the file can hold: no compression OpenEXR has packs
// more than 1032 bytes into one, and a pixel has at least one sample of two bytes, so a picture of
// more than 1024 pixels a byte of the file is refused (its line buffers would be allocated before
// the first line is found missing). Throws ImageLoaderException naming what is wrong.
void checkHeaders(const std::string& path) {
    checkAttributes(path);
    const uint64_t fileSize = RandomAccessFileStd(path).size();
    std::string why;  // the core library's last complaint
    exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
    init.user_data = &why;
    init.error_handler_fn = [](exr_const_context_t context, exr_result_t, const char* message) {
        void* data = nullptr;
        if (exr_get_user_data(context, &data) == EXR_ERR_SUCCESS && data && message)
            *static_cast<std::string*>(data) = message;
    };
    struct Context {
        exr_context_t handle = nullptr;
        ~Context() { exr_finish(&handle); }
    } context;
    const exr_result_t started = exr_start_read(&context.handle, path.c_str(), &init);
    if (started != EXR_ERR_SUCCESS)
        fail(path, why.empty() ? exr_get_default_error_message(started) : why);
    int parts = 0;
    exr_get_count(context.handle, &parts);
    for (int part = 0; part < parts; ++part) {
        exr_attr_box2i_t window{};
        if (exr_get_data_window(context.handle, part, &window) != EXR_ERR_SUCCESS)
            fail(path, "a part without a data window");
        checkWindow(path, window.min.x, window.min.y, window.max.x, window.max.y, fileSize);
    }
}

}  // namespace

math::GenVec<int, 2> readExrSize(const std::string& path) {
    try {
        checkHeaders(path);
        Imf::InputFile file(path.c_str());
        const Imath::Box2i window = file.header().dataWindow();
        return Vec2i(window.max.x - window.min.x + 1, window.max.y - window.min.y + 1);
    } catch (const ImageLoaderException&) {
        throw;
    } catch (const std::exception& e) {
        fail(path, e.what());
    }
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> readExrRegion(const std::string& path,
                                                     const math::Recti& rect) {
    try {
        checkHeaders(path);
        Imf::InputFile file(path.c_str());
        const Imath::Box2i window = file.header().dataWindow();
        const int width = window.max.x - window.min.x + 1;
        const int height = window.max.y - window.min.y + 1;
        if (rect.empty() || rect.mins.x < 0 || rect.mins.y < 0 || rect.maxs.x > width ||
            rect.maxs.y > height)
            fail(path, "region outside the picture");
        const Imf::ChannelList& channels = file.header().channels();
        const bool grey = !channels.findChannel("R") && channels.findChannel("Y");
        std::vector<float> lines(size_t(width) * size_t(rect.height()) * 4);
        const size_t xStride = 4 * sizeof(float), yStride = xStride * size_t(width);
        const Imath::V2i origin(window.min.x, window.min.y + rect.mins.y);
        Imf::FrameBuffer frame;
        const char* names[] = {"R", "G", "B", "A"};
        for (int c = 0; c < 4; ++c) {
            if (grey && c > 0 && c < 3) continue;  // Y goes to the first channel only
            const char* name = grey && c == 0 ? "Y" : names[c];
            frame.insert(name, Imf::Slice::Make(Imf::FLOAT, lines.data() + c, origin, width,
                                                rect.height(), xStride, yStride, 1, 1,
                                                c == 3 ? 1.0 : 0.0));
        }
        file.setFrameBuffer(frame);
        file.readPixels(window.min.y + rect.mins.y, window.min.y + rect.maxs.y - 1);
        auto out = imaging::GenImageData<T, 4>::create(rect.width(), rect.height());
        for (int y = 0; y < rect.height(); ++y) {
            const float* s = lines.data() + (size_t(y) * size_t(width) + size_t(rect.mins.x)) * 4;
            T* d = out->row(y);
            for (int x = 0; x < rect.width(); ++x, s += 4, d += 4) {
                for (int c = 0; c < 3; ++c) d[c] = convertSample<T>(grey ? s[0] : s[c]);
                d[3] = convertSample<T>(s[3]);
            }
        }
        return out;
    } catch (const ImageLoaderException&) {
        throw;
    } catch (const std::exception& e) {
        fail(path, e.what());
    }
}

template SharedPtr<imaging::GenImageData<unsigned char, 4>> readExrRegion(const std::string&,
                                                                          const math::Recti&);
template SharedPtr<imaging::GenImageData<unsigned short, 4>> readExrRegion(const std::string&,
                                                                           const math::Recti&);
template SharedPtr<imaging::GenImageData<float, 4>> readExrRegion(const std::string&,
                                                                  const math::Recti&);

}  // namespace qor::imageio::detail
