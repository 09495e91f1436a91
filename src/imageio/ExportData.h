#pragma once
// ExportData: hands the rows of an image to a save module. A module asks for one row at a time,
// top to bottom, naming its own data type (channels and bytes per channel); the adapter serves
// the row from a whole image or from a row function, and for a 3-channel request from a
// 4-channel image drops the fourth channel into a row buffer of its own.
//
// Thread contract: one adapter serves one module run on one thread.

#include <cstddef>
#include <cstring>
#include <vector>

#include "base/Log.h"
#include "imaging/PixelFormat.h"
#include "imaging/RawImageStorage.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

// The data types of the save modules' row interface: 4 to 7 are 8-bit, 8 to 11 16-bit, 12 to 15
// 32-bit; of each group of four, the first two are three channels and the last two four.
enum ModuleDataType : int {
    DtLum8 = 1,
    DtRGB8 = 4,
    DtBGR8 = 5,
    DtRGBA8 = 6,
    DtBGRA8 = 7,
    DtRGB16 = 8,
    DtRGB16F = 9,
    DtRGBA16 = 10,
    DtRGBA16F = 11,
    DtRGB32F = 12,
    DtRGB32 = 13,
    DtRGBA32F = 14,
    DtRGBA32 = 15,
};

inline int moduleChannels(int dataType) {
    switch (dataType) {
        case 4: case 5: case 8: case 9: case 12: case 13: return 3;
        case 6: case 7: case 10: case 11: case 14: case 15: return 4;
        default: return 1;
    }
}

inline int moduleBytesPerChannel(int dataType) {
    if (dataType >= 8 && dataType <= 11) return 2;
    if (dataType >= 12 && dataType <= 15) return 4;
    return 1;
}

// The module data type that carries `format` unchanged, or 0 for a format no module takes.
int moduleDataType(imaging::RawPixelFormat format);

// What a module pulls its rows from.
class RowProvider {
public:
    virtual ~RowProvider() = default;
    // Row `rect.ymax - 1` (rect one row high, as wide as the image) in `dataType`, `rowBytes`
    // long; null ends the data (the save was cancelled or failed).
    virtual const void* getRow(size_t rowBytes, int dataType, const math::Recti& rect) = 0;
    virtual math::GenVec<int, 2> size() const = 0;
};

template <imaging::RawPixelFormat F>
class ExportData final : public RowProvider {
public:
    using Traits = imaging::RawStorageFormat<F>;
    using Element = typename Traits::Element;
    using View = imaging::RawImageDataOf<F>;
    static constexpr int Channels = Traits::Channels;
    using RowFunction = Function0<const void*>;

    explicit ExportData(const SharedPtr<const View>& image)
        : _image(image), _size(image ? image->width() : 0, image ? image->height() : 0) {}
    ExportData(const RowFunction& rows, math::GenVec<int, 2> size) : _rows(rows), _size(size) {}

    math::GenVec<int, 2> size() const override { return _size; }

    const void* getRow(size_t rowBytes, int dataType, const math::Recti& rect) override {
        QOR_ASSERT_TEXT(rect.height() == 1, "rect.height() == 1");
        QOR_ASSERT_TEXT(rect.width() == _size.x, "rect.width() == _size.x");
        const int chan = moduleChannels(dataType);
        const int bytes = moduleBytesPerChannel(dataType);
        QOR_ASSERT_TEXT(rowBytes == size_t(_size.x) * bytes * chan,
                        "rowBytes == _size.x * bytes * chan");
        if constexpr (std::is_same_v<Element, float>) QOR_ASSERT_TEXT(bytes == 4, "bytes == 4");
        if (rowBytes != size_t(_size.x) * bytes * chan || size_t(bytes) != sizeof(Element))
            return nullptr;
        if (_rows) return _rows();
        const int y = rect.ymax() - 1;
        if (!_image || y < 0 || y >= _size.y) return nullptr;
        const Element* row = _image->row(y);
        if (chan == 3 && Channels == 4) {
            if (_buffer.empty()) _buffer.resize(size_t(_size.x) * 3);
            for (int x = 0; x < _size.x; ++x)
                std::memcpy(&_buffer[size_t(x) * 3], row + size_t(x) * 4, 3 * sizeof(Element));
            return _buffer.data();
        }
        return chan == Channels ? row : nullptr;
    }

private:
    SharedPtr<const View> _image;
    RowFunction _rows;
    math::GenVec<int, 2> _size;
    std::vector<Element> _buffer;  // the 3-channel copy, made at the first row
};

}  // namespace qor::imageio
