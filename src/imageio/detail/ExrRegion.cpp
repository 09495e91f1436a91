// Region reads of OpenEXR files: only the scanlines of the region are decoded (the library reads
// whole lines, so a line buffer spans the data window's width). R, G, B and A are read as float;
// a file with only Y gives grey, a missing alpha is 1.

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>

#include <string>
#include <vector>

#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/RegionReaders.h"
#include "imaging/ImagingException.h"

namespace qor::imageio::detail {

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw ImageLoaderException("cannot read OpenEXR '" + path + "': " + what);
}

}  // namespace

math::GenVec<int, 2> readExrSize(const std::string& path) {
    try {
        Imf::InputFile file(path.c_str());
        const Imath::Box2i window = file.header().dataWindow();
        return Vec2i(window.max.x - window.min.x + 1, window.max.y - window.min.y + 1);
    } catch (const std::exception& e) {
        fail(path, e.what());
    }
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> readExrRegion(const std::string& path,
                                                     const math::Recti& rect) {
    try {
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
