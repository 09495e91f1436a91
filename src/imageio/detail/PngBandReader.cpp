// PngBandReader: one libpng read struct kept from band to band.
//
// libpng reports errors by long-jumping to the setjmp of its read struct: the decoder lives on
// the heap, and the functions that call setjmp hold no object with a destructor.

#include "imageio/detail/PngBandReader.h"

#include <png.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <exception>
#include <vector>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/detail/PngIO.h"

namespace qor::imageio::detail {

struct PngBandReader::State {
    ~State() {
        if (png) png_destroy_read_struct(&png, &info, nullptr);
    }

    PngInput input;
    png_structp png = nullptr;
    png_infop info = nullptr;
    uint64_t fileSize = 0;
    int bits = 8;
    int width = 0;
    int height = 0;
    int line = 0;                         // the next line the decoder gives
    std::vector<unsigned short> scratch;  // one line, for the lines above a band
};

PngBandReader::PngBandReader(std::string path, bool logFailure)
    : _path(std::move(path)), _logFailure(logFailure) {}

PngBandReader::~PngBandReader() = default;

void PngBandReader::stop() { _state.reset(); }

namespace {

// Whether the chunk list from the signature to IEND (or to where it stops making sense) holds
// more than one IHDR. libpng takes the first and fails on another only after the image data (in
// png_read_end, which loadPng calls and a band read never reaches); the metadata reader, whose
// size the loader and its sources go by, takes the last. Lines of such a file would not have the
// width their reader was told. Reads the chunk headers in 4 kB blocks: one read per chunk of
// image data as encoders write them, fewer for small chunks. Throws as readAt.
bool headerRepeated(RandomAccessFile& file) {
    constexpr size_t Block = 4096;
    std::array<unsigned char, Block> block;
    const uint64_t size = file.size();
    uint64_t blockStart = 0, blockEnd = 0;
    int headers = 0;
    for (uint64_t at = 8; at + 8 <= size;) {
        if (at + 8 > blockEnd) {
            blockStart = at;
            blockEnd =
                at + file.readAt(at, block.data(), size_t(std::min<uint64_t>(Block, size - at)));
            if (at + 8 > blockEnd) return false;
        }
        const unsigned char* head = block.data() + (at - blockStart);
        if (std::memcmp(head + 4, "IEND", 4) == 0) return false;
        if (std::memcmp(head + 4, "IHDR", 4) == 0 && ++headers > 1) return true;
        const uint32_t length = uint32_t(head[0]) << 24 | uint32_t(head[1]) << 16 |
                                uint32_t(head[2]) << 8 | uint32_t(head[3]);
        at += 12 + uint64_t(length);  // length, type, data and CRC
    }
    return false;
}

// Reads the header and sets the transformations to RGBA rows at s.bits; false for an interlaced
// file or a libpng error.
template <class S>
bool startDecoding(S& s) {
    if (setjmp(png_jmpbuf(s.png))) return false;  // the caller's own decode logs what is wrong
    png_read_info(s.png, s.info);
    if (png_get_interlace_type(s.png, s.info) != PNG_INTERLACE_NONE) return false;
    s.width = int(png_get_image_width(s.png, s.info));
    s.height = int(png_get_image_height(s.png, s.info));
    int passes = 1;
    setPngTransforms(s.png, s.info, s.bits, true, &passes);
    return true;
}

// Decodes down to line `top`, then lines [top, top + band.height()) into `band`, counting every
// decoded line in *decoded. False after a libpng error, whose message s.input keeps.
template <class S, class T>
bool decodeLines(S& s, imaging::GenImageData<T, 4>& band, int top, long long* decoded) {
    if (setjmp(png_jmpbuf(s.png))) return false;
    while (s.line < top) {
        png_read_row(s.png, reinterpret_cast<png_bytep>(s.scratch.data()), nullptr);
        ++s.line;
        ++*decoded;
    }
    const int bottom = top + band.height();
    while (s.line < bottom) {
        png_read_row(s.png, reinterpret_cast<png_bytep>(band.row(s.line - top)), nullptr);
        ++s.line;
        ++*decoded;
    }
    return true;
}

}  // namespace

bool PngBandReader::start(RandomAccessFile& file, int bits) {
    unsigned char signature[8];
    if (file.readAt(0, signature, 8) != 8 || png_sig_cmp(signature, 0, 8) != 0 ||
        headerRepeated(file))
        return false;
    auto state = std::make_unique<State>();
    State& s = *state;
    s.input.file = &file;
    s.input.name = _path;
    s.input.position = 8;
    s.bits = bits;
    if (!createPngReader(s.input, &s.png, &s.info) || !startDecoding(s)) return false;
    s.fileSize = file.size();
    s.scratch.resize(size_t(s.width) * 4);
    _state = std::move(state);
    return true;
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> PngBandReader::read(int top, int height) {
    constexpr int Bits = int(sizeof(T)) * 8;
    if (_unusable || top < 0 || height <= 0) return nullptr;
    RandomAccessFileStd file(_path);
    if (_state && (_state->line > top || _state->bits != Bits || file.size() != _state->fileSize))
        stop();
    if (_state) {
        _state->input.file = &file;
    } else if (!start(file, Bits)) {
        _unusable = true;
        return nullptr;
    }
    State& s = *_state;
    SharedPtr<imaging::GenImageData<T, 4>> band;
    if (height <= s.height - top) {
        band = imaging::GenImageData<T, 4>::create(s.width, height);
        if (!decodeLines(s, *band, top, &_linesDecoded)) {
            if (_logFailure)
                QOR_LOG(LogWarning, "PngBandReader: libpng failed in '%*': %*", _path,
                        s.input.error);
            _failure = s.input.error.empty() ? "libpng failed" : s.input.error;
            stop();
            _unusable = true;
            return nullptr;
        }
    }
    s.input.file = nullptr;
    if (s.line >= s.height) stop();
    return band;
}

template SharedPtr<imaging::GenImageData<unsigned char, 4>> PngBandReader::read(int, int);
template SharedPtr<imaging::GenImageData<unsigned short, 4>> PngBandReader::read(int, int);

}  // namespace qor::imageio::detail
