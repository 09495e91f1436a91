// The OpenEXR writer of the save modules: RGB or RGBA in half or float, ZIP compression by
// scanline blocks, one row handed to the library at a time. OpenEXR pixels are linear light, so
// no ICC profile is stored; "EXR_SaveFormat_As_qorFormat" names the row data type.

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>

#include <memory>
#include <string>

#include "imageio/savers/SaveModule.h"

namespace qor::imageio {

namespace {

class ExrSaveModule final : public SaveModule {
public:
    int acceptedDataType(int dataType) const override {
        switch (dataType) {
            case DtRGB16F: case DtRGBA16F: case DtRGB32F: case DtRGBA32F: return dataType;
            default: return 0;
        }
    }

protected:
    bool write(const std::string& path, RowProvider& rows, int dataType) override {
        const int asked = parameter("EXR_SaveFormat_As_qorFormat", dataType);
        if (asked != dataType)
            throw ImageSaverException("OpenEXR writer set up for data type " + std::to_string(asked) +
                                      ", given " + std::to_string(dataType));
        const math::GenVec<int, 2> size = rows.size();
        const int channels = moduleChannels(dataType);
        const int bytes = moduleBytesPerChannel(dataType);
        const Imf::PixelType type = bytes == 2 ? Imf::HALF : Imf::FLOAT;
        const size_t pixelBytes = size_t(channels) * bytes;
        const size_t rowBytes = size_t(size.x) * pixelBytes;
        try {
            Imf::Header header(size.x, size.y);
            header.compression() = Imf::ZIP_COMPRESSION;
            const char* names[] = {"R", "G", "B", "A"};
            for (int c = 0; c < channels; ++c) header.channels().insert(names[c], Imf::Channel(type));
            Imf::OutputFile file(path.c_str(), header);
            for (int y = 0; y < size.y; ++y) {
                const char* row =
                    static_cast<const char*>(rows.getRow(rowBytes, dataType, math::Recti(0, y, size.x, 1)));
                if (!row) return false;
                // The frame buffer addresses pixel (x, y) as base + x * xStride + y * yStride;
                // with a y stride of 0 every line reads the one row at hand.
                Imf::FrameBuffer frame;
                for (int c = 0; c < channels; ++c)
                    frame.insert(names[c], Imf::Slice(type, const_cast<char*>(row) + size_t(c) * bytes,
                                                      pixelBytes, 0));
                file.setFrameBuffer(frame);
                file.writePixels(1);
            }
        } catch (const ImageSaverException&) {
            throw;
        } catch (const std::exception& e) {
            throw ImageSaverException("OpenEXR writing of " + path + " failed: " + e.what());
        }
        return true;
    }
};

}  // namespace

std::unique_ptr<SaveModule> makeExrSaveModule() { return std::make_unique<ExrSaveModule>(); }

}  // namespace qor::imageio
