#include "TileTestSupport.h"

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "imaging/ImageDataAdapter.h"
#include "imaging/ImageMemoryManager.h"
#include "imaging/ImageStorageManager.h"

namespace qor::imaging::tiletest {

void TileTest::SetUp() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-tiles-XXXXXX";
    ASSERT_TRUE(::mkdtemp(pattern.data()));
    _swapDir = pattern;
    ImageMemoryManager::initSwapDir(_swapDir.c_str());
    ImageMemoryManager::setPhysicalMemoryLimit(memoryLimitMegabytes());
    ShadowStorage::ensureRegistered();
    ShadowStorage::resetProbe();
}

void TileTest::TearDown() {
    ImageDataAdapterConfig::setManagingImageData(true);
    ImageStorageManager* manager = ImageStorageManager::instance();
    manager->setMemoryLimit(SaProcessor, ImageStorageManager::NoLimit);
    manager->setMemoryLimit(SaGPU, ImageStorageManager::NoLimit);
    EXPECT_EQ(manager->entryCount(SaProcessor), 0u) << "a storage outlived its test";
    ShadowStorage::resetProbe();
    ImageMemoryManager::setPhysicalMemoryLimit(512);
    {
        LogCapture log;
        ImageMemoryManager::release();
        EXPECT_EQ(log.assertions(), 0u) << "pixel blocks outlived their test";
    }
    memory::nmRelease();
    std::error_code ec;
    std::filesystem::remove_all(_swapDir, ec);
}

unsigned char patternComponent(unsigned id, int x, int y, int c) {
    if (c == 0 && y == 0 && x == 0) return id & 0xFF;
    if (c == 0 && y == 0 && x == 1) return (id >> 8) & 0xFF;
    return (unsigned char)(x * 37 + y * 101 + c * 59 + id * 13 + (x * y * (c + 1)));
}

void fillPattern(Rgba8& data, unsigned id) {
    for (int y = 0; y < data.height(); ++y)
        for (int x = 0; x < data.width(); ++x)
            for (int c = 0; c < 4; ++c) data.at(x, y, c) = patternComponent(id, x, y, c);
}

SharedPtr<Rgba8> makePattern(int width, int height, unsigned id) {
    SharedPtr<Rgba8> data = Rgba8::create(width, height);
    fillPattern(*data, id);
    return data;
}

std::vector<unsigned char> convertRows(const std::vector<unsigned char>& src, RawPixelFormat from,
                                       RawPixelFormat to, int width, int height) {
    std::vector<unsigned char> out(std::size_t(width) * height * getBytesPerPixel(to));
    ImageDataFeature dst(width, height, width * getChannelCount(to), to);
    EXPECT_TRUE(ImageDataConversion::convert(
        dst, out.data(), ImageDataFeature(width, height, width * getChannelCount(from), from),
        src.data()));
    return out;
}

std::vector<unsigned char> patternIn(RawPixelFormat format, int width, int height, unsigned id) {
    std::vector<unsigned char> rgba(std::size_t(width) * height * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 4; ++c)
                rgba[(std::size_t(y) * width + x) * 4 + c] = patternComponent(id, x, y, c);
    return convertRows(rgba, PfRGBA8, format, width, height);
}

int countCopyErrors(const std::vector<unsigned char>& rgba, CopyFlippedMode mode, bool insideOnly) {
    EXPECT_EQ(rgba.size(), 8u * 7 * 4);
    if (rgba.size() != 8u * 7 * 4) return -1;
    int errors = 0;
    for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 8; ++x) {
            const int dx = x - kCopyDest.x, dy = y - kCopyDest.y;
            const bool inside =
                dx >= 0 && dx < kCopyRect.width() && dy >= 0 && dy < kCopyRect.height();
            if (!inside && insideOnly) continue;
            const int sx =
                kCopyRect.xmin() + ((mode & COPY_FLIP_H) ? kCopyRect.width() - 1 - dx : dx);
            const int sy =
                kCopyRect.ymin() + ((mode & COPY_FLIP_V) ? kCopyRect.height() - 1 - dy : dy);
            for (int c = 0; c < 4; ++c) {
                const unsigned char expected =
                    inside ? patternComponent(1, sx, sy, c) : patternComponent(2, x, y, c);
                if (rgba[(y * 8 + x) * 4 + c] != expected) ++errors;
            }
        }
    }
    return errors;
}

SharedPtr<RawImageStorage> makeRawStorage(int width, int height,
                                          const WeakSharedPtr<ImageTile>& parent) {
    return static_ptr_cast<RawImageStorage>(
        (new RawImageStorage(width, height, parent))->setupSelfRef());
}

namespace {

ShadowProbe& probeInstance() {
    static ShadowProbe* probe = new ShadowProbe;
    return *probe;
}

// Makes storages of type S; `readBack` is what supportsReadBack answers.
template <class S>
class ShadowHandler : public ImageStorageHandler {
public:
    explicit ShadowHandler(bool readBack = true) : _readBack(readBack) {}
    bool supportsReadBack() override { return _readBack; }
    SharedPtr<ImageStorage> createFromRaw(const SharedPtr<RawImageStorage>& raw, RawPixelFormat,
                                          const WeakSharedPtr<ImageTile>& parent,
                                          const DrawParameters& params) override {
        ++probeInstance().createdFromRaw;
        SharedPtr<const Rgba8> pixels = raw->getDataRGBA8();
        auto* storage = new S(parent, pixels->width(), pixels->height(), params);
        storage->setPixels(packedRows(*pixels));
        return storage->setupSelfRef();
    }
    SharedPtr<ImageStorage> createEmpty(int width, int height, RawPixelFormat,
                                        const WeakSharedPtr<ImageTile>& parent,
                                        const DrawParameters& params) override {
        ++probeInstance().createdEmpty;
        return (new S(parent, width, height, params))->setupSelfRef();
    }

private:
    bool _readBack;
};

}  // namespace

ShadowStorage::ShadowStorage(const WeakSharedPtr<ImageTile>& parent, int width, int height,
                             const DrawParameters& params)
    : ImageStorage(parent),
      _width(width),
      _height(height),
      _pixels(std::size_t(width) * height * 4),
      _params(params) {}

void ShadowStorage::ensureRegistered() {
    static const bool registered = [] {
        ImageTile::registerStorageType<ShadowStorage>(new ShadowHandler<ShadowStorage>);
        ImageTile::registerStorageType<RelayStorage>(new ShadowHandler<RelayStorage>);
        ImageTile::registerStorageType<FrozenStorage>(new ShadowHandler<FrozenStorage>(false));
        const char* type = storageTypeName<ShadowStorage>();
        ImageTile::registerNativeGetter<ShadowHandle>(type, [](const ImageStorage* s, void* r) {
            static_cast<ShadowHandle*>(r)->storage = static_cast<const ShadowStorage*>(s);
        });
        ImageTile::registerNativeTargetGetter<ShadowHandle>(type, [](ImageStorage* s, void* r) {
            static_cast<ShadowHandle*>(r)->storage = static_cast<const ShadowStorage*>(s);
        });
        ImageTile::registerNativeSetter<ShadowPixels>(type, [](ImageStorage* s, const void* v) {
            static_cast<ShadowStorage*>(s)->setPixels(static_cast<const ShadowPixels*>(v)->rgba);
        });
        return true;
    }();
    (void)registered;
}

ShadowProbe& ShadowStorage::probe() { return probeInstance(); }

void ShadowStorage::resetProbe() {
    ShadowProbe& p = probeInstance();
    p.readBacks = 0;
    p.createdFromRaw = 0;
    p.createdEmpty = 0;
    p.directWrites = 0;
    p.uploads = 0;
    p.acceptWrites = true;
    p.beforeReadBack = nullptr;
}

SharedPtr<RawImageStorage> ShadowStorage::readBack(RawPixelFormat format,
                                                   const SharedPtr<RawImageStorage>&) {
    EXPECT_EQ(format, PfRGBA8) << "the shadow tests use RGBA8 tiles";
    if (probe().beforeReadBack) probe().beforeReadBack();
    ++probe().readBacks;
    std::vector<unsigned char> copy = pixels();
    SharedPtr<RawImageStorage> raw = makeRawStorage(_width, _height, _parent);
    raw->setDataRGBA8(std::make_shared<const Rgba8>(_width, _height, unsigned(_width * 4),
                                                    const_cast<unsigned char*>(copy.data())));
    return raw;
}

void ShadowStorage::setDrawParameters(const DrawParameters& params) {
    std::lock_guard<std::mutex> lock(_mutex);
    _params = params;
}

DrawParameters ShadowStorage::drawParameters() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _params;
}

std::vector<unsigned char> ShadowStorage::pixels() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _pixels;
}

void ShadowStorage::setPixels(const std::vector<unsigned char>& pixels) {
    std::lock_guard<std::mutex> lock(_mutex);
    _pixels = pixels;
}

bool ShadowStorage::writeRect(const ImageStorage* src, const Recti& srcRect, GenVec<int, 2> destPos,
                              CopyFlippedMode mode) {
    std::vector<unsigned char> from;
    int fromWidth = 0;
    if (auto* shadow = dynamic_cast<const ShadowStorage*>(src)) {
        if (!probe().acceptWrites) return false;
        from = shadow->pixels();
        fromWidth = shadow->_width;
        ++probe().directWrites;
    } else if (auto* raw = dynamic_cast<const RawImageStorage*>(src)) {
        SharedPtr<const Rgba8> view = const_cast<RawImageStorage*>(raw)->getDataRGBA8();
        from = packedRows(*view);
        fromWidth = view->width();
        ++probe().uploads;
    } else {
        return false;
    }
    std::lock_guard<std::mutex> lock(_mutex);
    const int w = srcRect.width(), h = srcRect.height();
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int dx = destPos.x + ((mode & COPY_FLIP_H) ? w - 1 - x : x);
            const int dy = destPos.y + ((mode & COPY_FLIP_V) ? h - 1 - y : y);
            std::memcpy(
                &_pixels[(std::size_t(dy) * _width + dx) * 4],
                &from[(std::size_t(srcRect.ymin() + y) * fromWidth + srcRect.xmin() + x) * 4], 4);
        }
    }
    return true;
}

unsigned patternIdOf(const ShadowStorage& storage) {
    const std::vector<unsigned char> pixels = storage.pixels();
    return pixels[0] | (unsigned(pixels[4]) << 8);
}

void runConcurrently(const std::vector<Function0<void>>& work, double seconds, const char* what) {
    std::mutex mutex;
    std::condition_variable cv;
    std::size_t finished = 0;
    std::vector<std::thread> threads;
    for (const Function0<void>& fn : work) {
        threads.emplace_back([&, fn] {
            fn();
            std::lock_guard<std::mutex> lock(mutex);
            ++finished;
            cv.notify_all();
        });
    }
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!cv.wait_for(lock, std::chrono::duration<double>(seconds),
                         [&] { return finished == work.size(); })) {
            std::fprintf(stderr, "%s: still running after %g s, deadlocked\n", what, seconds);
            std::abort();
        }
    }
    for (std::thread& t : threads) t.join();
}

void Latch::open() {
    std::lock_guard<std::mutex> lock(_mutex);
    _open = true;
    _cv.notify_all();
}

bool Latch::wait(double seconds) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _cv.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return _open; });
}

bool Latch::isOpen() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _open;
}

}  // namespace qor::imaging::tiletest
