#pragma once
// Shared pieces of the tile and storage tests: a fixture with image memory of its own, RGBA8
// pixel patterns that carry their id, a second storage type that can be read back, and a latch.

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "imaging/GenImageData.h"
#include "imaging/ImageDataConversion.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageStorageHandler.h"
#include "imaging/ImageTile.h"
#include "imaging/RawImageStorage.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imaging::tiletest {

using Rgba8 = GenImageData<unsigned char, 4>;

// Each test runs on a fresh image memory stack over its own swap folder, with managed pixel
// buffers and no storage limits; TearDown checks that no pixel block is left and puts every
// process-wide setting back.
class TileTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // The physical memory limit of the test, in megabytes.
    virtual unsigned memoryLimitMegabytes() const { return 512; }

    std::string _swapDir;
};

// Component c (0 R, 1 G, 2 B, 3 A) of pixel (x, y) of pattern `id`. The R components of pixels
// (0, 0) and (1, 0) hold the low and high byte of the id; patterns are at least 2 pixels wide.
unsigned char patternComponent(unsigned id, int x, int y, int c);
void fillPattern(Rgba8& data, unsigned id);
SharedPtr<Rgba8> makePattern(int width, int height, unsigned id);

// Packed rows of `width` x `height` pixels converted from one format to another by
// ImageDataConversion.
std::vector<unsigned char> convertRows(const std::vector<unsigned char>& src, RawPixelFormat from,
                                       RawPixelFormat to, int width, int height);
// The pixels of pattern `id` converted to `format` by ImageDataConversion, rows packed.
std::vector<unsigned char> patternIn(RawPixelFormat format, int width, int height, unsigned id);

// A heap view in `F` holding the packed rows `bytes`.
template <RawPixelFormat F>
SharedPtr<RawImageDataOf<F>> makeView(int width, int height,
                                      const std::vector<unsigned char>& bytes) {
    using View = RawImageDataOf<F>;
    SharedPtr<View> view = View::create(width, height);
    const std::size_t rowBytes =
        std::size_t(width) * View::Channels * sizeof(typename View::Element);
    for (int y = 0; y < height; ++y)
        std::memcpy(view->row(y), bytes.data() + rowBytes * y, rowBytes);
    return view;
}
// Pattern `id` in `F`.
template <RawPixelFormat F>
SharedPtr<RawImageDataOf<F>> makePatternIn(int width, int height, unsigned id) {
    return makeView<F>(width, height, patternIn(F, width, height, id));
}

// The id carried by a view in `format`, a format that keeps the R component of 8-bit values
// (RGBA, RGB, BGRA and Red families).
template <class T, int N>
unsigned patternId(const GenImageData<T, N>& view, RawPixelFormat format) {
    unsigned char rgba[8];
    ImageDataFeature dst(2, 1, 8, PfRGBA8);
    ImageDataConversion::convert(dst, rgba, ImageDataFeature(2, 1, view.stride(), format),
                                 view.data());
    return rgba[0] | (unsigned(rgba[4]) << 8);
}

// Whether every row of `view` equals the packed rows `expected`, bit for bit (padding ignored).
template <class T, int N>
::testing::AssertionResult sameRows(const GenImageData<T, N>& view,
                                    const std::vector<unsigned char>& expected) {
    const std::size_t rowBytes = std::size_t(view.width()) * N * sizeof(T);
    if (expected.size() != rowBytes * view.height())
        return ::testing::AssertionFailure() << "size " << view.width() << "x" << view.height();
    for (int y = 0; y < view.height(); ++y)
        if (std::memcmp(view.row(y), expected.data() + rowBytes * y, rowBytes) != 0)
            return ::testing::AssertionFailure() << "row " << y << " differs";
    return ::testing::AssertionSuccess();
}

// Whether `view` holds pattern `id` converted to `format`.
template <class T, int N>
::testing::AssertionResult holdsPattern(const GenImageData<T, N>& view, RawPixelFormat format,
                                        unsigned id) {
    return sameRows(view, patternIn(format, view.width(), view.height(), id));
}

// The packed rows of a view, for comparing before and after.
template <class T, int N>
std::vector<unsigned char> packedRows(const GenImageData<T, N>& view) {
    const std::size_t rowBytes = std::size_t(view.width()) * N * sizeof(T);
    std::vector<unsigned char> out(rowBytes * view.height());
    for (int y = 0; y < view.height(); ++y)
        std::memcpy(out.data() + rowBytes * y, view.row(y), rowBytes);
    return out;
}

// The copy that the rectangle tests make: kCopyRect of a 6 x 5 image of pattern 1 goes to
// kCopyDest of an 8 x 7 image of pattern 2.
inline constexpr Recti kCopyRect(1, 1, 4, 3);
inline constexpr Vec2i kCopyDest(3, 2);
// How many RGBA8 components of the 8 x 7 destination (packed rows) differ from that copy in
// `mode`; with `insideOnly`, only the copied rectangle is looked at.
int countCopyErrors(const std::vector<unsigned char>& rgba, CopyFlippedMode mode,
                    bool insideOnly = false);

// A processor storage of its own (no tile unless `parent` is given), behind its self reference.
SharedPtr<RawImageStorage> makeRawStorage(int width, int height,
                                          const WeakSharedPtr<ImageTile>& parent = {});

// What ShadowStorage does, counted across all of them; reset by ShadowStorage::resetProbe().
struct ShadowProbe {
    std::atomic<int> readBacks{0};
    std::atomic<int> createdFromRaw{0};
    std::atomic<int> createdEmpty{0};
    std::atomic<int> directWrites{0};  // copies from another ShadowStorage
    std::atomic<int> uploads{0};       // copies from a RawImageStorage
    // When false, writeRect refuses ShadowStorage sources (processor sources are always taken).
    std::atomic<bool> acceptWrites{true};
    // Runs at the start of every readBack, on the reading thread, with no lock held.
    Function0<void> beforeReadBack;
};

// A second storage type, standing in for graphics memory: RGBA8 pixels of its own in a vector.
// It can be read back (into a new RawImageStorage for the same tile), built from raw data or
// blank through its handler, and copies rectangles from another ShadowStorage directly or from
// processor storage by upload, as a texture does.
// Thread contract: _mutex guards the pixels and the draw parameters.
class ShadowStorage : public ImageStorage {
public:
    ShadowStorage(const WeakSharedPtr<ImageTile>& parent, int width, int height,
                  const DrawParameters& params = DrawParameters());
    // A storage of type S holding pattern `id`; not yet behind its self reference
    // (ImageTile::setData does that).
    template <class S = ShadowStorage>
    static S* withPattern(const SharedPtr<ImageTile>& tile, unsigned id) {
        auto* storage = new S(tile, tile->width(), tile->height());
        storage->setPixels(patternIn(PfRGBA8, tile->width(), tile->height(), id));
        return storage;
    }

    // Registers the shadow types, and the native accessors of ShadowStorage, once per process.
    static void ensureRegistered();
    static ShadowProbe& probe();
    static void resetProbe();

    RawPixelFormat getCurrentPixelFormat() override { return PfRGBA8; }
    int width() const override { return _width; }
    int height() const override { return _height; }
    SharedPtr<RawImageStorage> readBack(RawPixelFormat format,
                                        const SharedPtr<RawImageStorage>& target) override;
    void setDrawParameters(const DrawParameters& params) override;
    bool writeRect(const ImageStorage* src, const Recti& srcRect, GenVec<int, 2> destPos,
                   CopyFlippedMode mode) override;
    unsigned int memoryConsumption() const override {
        return computeMemoryCost(_width, _height, PfRGBA8);
    }

    DrawParameters drawParameters() const;
    // A copy of the pixels, RGBA8, rows packed.
    std::vector<unsigned char> pixels() const;
    void setPixels(const std::vector<unsigned char>& pixels);

private:
    const int _width;
    const int _height;
    mutable std::mutex _mutex;  // guards _pixels, _params
    std::vector<unsigned char> _pixels;
    DrawParameters _params;
};

// A third storage type of the same make, which ShadowStorage has no direct path from.
class RelayStorage : public ShadowStorage {
public:
    using ShadowStorage::ShadowStorage;
};
// A storage type that cannot be read back, so it is never a write target.
class FrozenStorage : public ShadowStorage {
public:
    using ShadowStorage::ShadowStorage;
};

// Native objects that ShadowStorage hands out and takes in.
struct ShadowHandle {
    const ShadowStorage* storage = nullptr;
};
struct ShadowPixels {
    std::vector<unsigned char> rgba;
};

// The pattern id a ShadowStorage holds; pixels must be whole.
unsigned patternIdOf(const ShadowStorage& storage);

// Runs each function on a thread of its own and joins them. Work still running after `seconds`
// is taken for a deadlock: the process stops with a message naming `what`, since hung threads
// cannot be taken back.
void runConcurrently(const std::vector<Function0<void>>& work, double seconds, const char* what);

// A one-shot gate between two threads: one waits until the other opens it.
class Latch {
public:
    void open();
    // Blocks until open() (true) or until `seconds` have passed (false).
    bool wait(double seconds = 10.0);
    bool isOpen();

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _open = false;
};

}  // namespace qor::imaging::tiletest
