#include "gpu/TextureImageStorage.h"

#include <gtest/gtest.h>

#include <string>

#include "GPUTestSupport.h"
#include "TileTestSupport.h"
#include "gpu/TextureOperator.h"
#include "gpu/detail/BadAllocRetry.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"

namespace qor::gpu {
namespace {

using namespace imaging;
using test::fillPattern;
using test::maxDifference;
using test::textureTolerance;

class TextureImageStorageTest : public test::RendererTest {
protected:
    void TearDown() override {
        if (_renderer) {
            EXPECT_EQ(TextureStorageCollector::instance()->collect(), 0u);
        }
        test::RendererTest::TearDown();
    }

    // A processor storage of `size` holding the pattern in `format`.
    static SharedPtr<RawImageStorage> patternStorage(RawPixelFormat format, Vec2i size) {
        auto raw = std::static_pointer_cast<RawImageStorage>(
            (new RawImageStorage(size.x, size.y, WeakSharedPtr<ImageTile>()))->setupSelfRef());
        switch (format) {
#define QOR_FILL_CASE(S) \
    case Pf##S:          \
        fillPattern<Pf##S>(*raw); break;
            QOR_TEST_TEXTURE_FORMATS(QOR_FILL_CASE)
#undef QOR_FILL_CASE
            default: ADD_FAILURE() << "no pattern for format " << int(format);
        }
        return raw;
    }

    static double difference(RawPixelFormat format, RawImageStorage& a, RawImageStorage& b,
                             const Recti& rect, Vec2i shift = Vec2i(0, 0)) {
        switch (format) {
#define QOR_DIFF_CASE(S) \
    case Pf##S:          \
        return maxDifference<Pf##S>(a, b, rect, shift);
            QOR_TEST_TEXTURE_FORMATS(QOR_DIFF_CASE)
#undef QOR_DIFF_CASE
            default: return 1e9;
        }
    }

    static SharedPtr<TextureImageStorage> upload(const RawImageStorage& raw, RawPixelFormat format) {
        return std::static_pointer_cast<TextureImageStorage>(
            (new TextureImageStorage(&raw, format, WeakSharedPtr<ImageTile>(), DrawParameters()))
                ->setupSelfRef());
    }
};

const RawPixelFormat kFormats[] = {
#define QOR_LIST_FORMAT(S) Pf##S,
    QOR_TEST_TEXTURE_FORMATS(QOR_LIST_FORMAT)
#undef QOR_LIST_FORMAT
};

TEST_F(TextureImageStorageTest, UploadAndReadBackInEveryFormatWithinTheTexturePrecision) {
    const Vec2i size(37, 21);  // not a power of two, odd rows
    for (RawPixelFormat format : kFormats) {
        SCOPED_TRACE(pixelFormatString(format).c_str());
        auto raw = patternStorage(format, size);
        auto gpu = upload(*raw, format);
        ASSERT_NE(gpu->getCurrentPixelFormat(), PfInvalid);
        EXPECT_EQ(gpu->getCurrentPixelFormat(), gpu->texture()->pixelFormat());
        EXPECT_EQ(gpu->memoryConsumption(),
                  _renderer->computeMemoryCost(size, gpu->getCurrentPixelFormat(),
                                               gpu->drawParameters()));
        SharedPtr<RawImageStorage> back = gpu->readBack(format, nullptr);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->getCurrentPixelFormat(), format);
        // A texture in a wider or narrower format than the tile's holds the coarser of the two.
        double tolerance = std::max(textureTolerance(format),
                                    textureTolerance(gpu->getCurrentPixelFormat()));
        // Normalised textures clamp the float pattern's values below 0 and above 1.
        if (gpu->getCurrentPixelFormat() != format && textureTolerance(gpu->getCurrentPixelFormat()) > 1e-3)
            tolerance = 0.3;
        EXPECT_LE(difference(format, *raw, *back, Recti(size)), tolerance)
            << "texture format " << pixelFormatString(gpu->getCurrentPixelFormat()).c_str();
    }
}

TEST_F(TextureImageStorageTest, WriteRectPlacesProcessorAndTexturePiecesAndMirrors) {
    const RawPixelFormat format = PfRGBA8;
    const Vec2i size(24, 16);
    auto raw = patternStorage(format, size);
    auto gpu = upload(*raw, format);
    auto other = patternStorage(format, Vec2i(10, 6));
    // Raw piece (2, 1)-(8, 5) of `other` to (5, 7).
    ASSERT_TRUE(gpu->writeRect(other.get(), Recti(2, 1, 6, 4), Vec2i(5, 7), COPY_NORMAL));
    auto back = gpu->readBack(format, nullptr);
    EXPECT_EQ(difference(format, *other, *back, Recti(2, 1, 6, 4), Vec2i(3, 6)), 0.0);
    EXPECT_EQ(difference(format, *raw, *back, Recti(0, 0, 24, 7)), 0.0) << "rows above untouched";

    // Mirrored horizontally: column 2 of the source lands at the right edge of the piece.
    ASSERT_TRUE(gpu->writeRect(other.get(), Recti(2, 1, 6, 4), Vec2i(0, 0), COPY_FLIP_H));
    back = gpu->readBack(format, nullptr);
    auto src = other->getDataRGBA8();
    auto dst = back->getDataRGBA8();
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x)
            ASSERT_EQ(dst->at(x, y, 1), src->at(2 + 5 - x, 1 + y, 1)) << x << "," << y;

    // From another texture storage: a GPU copy, no read back of the source.
    auto second = upload(*other, format);
    ASSERT_TRUE(gpu->writeRect(second.get(), Recti(0, 0, 10, 6), Vec2i(14, 10), COPY_NORMAL));
    back = gpu->readBack(format, nullptr);
    EXPECT_EQ(difference(format, *other, *back, Recti(0, 0, 10, 6), Vec2i(14, 10)), 0.0);
    // A mirrored texture copy is left to the tile, which goes through processor memory.
    EXPECT_FALSE(gpu->writeRect(second.get(), Recti(0, 0, 10, 6), Vec2i(0, 0), COPY_FLIP_V));
}

// A storage class the texture storage knows nothing of.
class ForeignStorage : public ImageStorage {
public:
    ForeignStorage() : ImageStorage(WeakSharedPtr<ImageTile>()) {}
    RawPixelFormat getCurrentPixelFormat() override { return PfRGBA8; }
    int width() const override { return 4; }
    int height() const override { return 4; }
    unsigned int memoryConsumption() const override { return 64; }
};

TEST_F(TextureImageStorageTest, WriteRectFromAnUnknownStorageClassReturnsFalse) {
    auto gpu = upload(*patternStorage(PfRGBA8, Vec2i(8, 8)), PfRGBA8);
    ForeignStorage foreign;
    LogCapture log;
    EXPECT_FALSE(gpu->writeRect(&foreign, Recti(0, 0, 4, 4), Vec2i(0, 0), COPY_NORMAL));
    EXPECT_EQ(log.assertions("false"), 1u);
}

TEST_F(TextureImageStorageTest, MipmappingChangeMakesANewTargetWithTheSamePixels) {
    auto raw = patternStorage(PfRGBA8, Vec2i(16, 16));
    auto gpu = upload(*raw, PfRGBA8);
    auto before = gpu->target();
    DrawParameters mipmapped;
    mipmapped.mipmap = MM_NEAREST;
    gpu->setDrawParameters(mipmapped);
    EXPECT_NE(gpu->target(), before);
    EXPECT_TRUE(gpu->drawParameters().isMipmapped());
    before.reset();
    auto back = gpu->readBack(PfRGBA8, nullptr);
    EXPECT_EQ(difference(PfRGBA8, *raw, *back, Recti(Vec2i(16, 16))), 0.0);
}

TEST_F(TextureImageStorageTest, TilesBecomeTextureStorageThroughTheRegisteredHandler) {
    ASSERT_TRUE(ImageTile::isStorageRegistered<TextureImageStorage>());
    auto tile = ImageTile::create(Vec2i(20, 12), PfRGB16F);
    fillPattern<PfRGB16F>(*tile->getDataTarget<RawImageStorage>());
    auto raw = tile->getData<RawImageStorage>();
    auto gpu = tile->getData<TextureImageStorage>();
    ASSERT_TRUE(gpu);
    EXPECT_EQ(ImageStorageManager::instance()->memoryConsumption(SaGPU) >= gpu->memoryConsumption(),
              true);
    // Writing through the texture drops the processor copy; reading brings it back. `raw` is
    // still held here, which the tile reports.
    gpu.reset();
    SharedPtr<ImageTile> mutableTile = tile;
    LogCapture log;
    mutableTile->getDataTarget<TextureImageStorage>();
    EXPECT_EQ(log.count("not unique on ImageTile::clearUnlocked()!"), 1u);
    EXPECT_FALSE(tile->hasData<RawImageStorage>());
    auto back = tile->getData<RawImageStorage>();
    ASSERT_TRUE(back);
    EXPECT_LE(difference(PfRGB16F, *raw, *back, Recti(Vec2i(20, 12))), textureTolerance(PfRGB16F));
}

// The retry pattern, with injected failures.
TEST_F(TextureImageStorageTest, TenFailedAllocationsEndInTheCrashIsIminentException) {
    auto gpu = upload(*patternStorage(PfRGBA8, Vec2i(8, 8)), PfRGBA8);
    auto piece = patternStorage(PfRGBA8, Vec2i(4, 4));
    LogCapture log;
    // Every upload reports GL_OUT_OF_MEMORY.
    testing::simulateGLError(GLErrorCheck::Transfer, GL_OUT_OF_MEMORY, 1000);
    try {
        gpu->writeRect(piece.get(), Recti(0, 0, 4, 4), Vec2i(0, 0), COPY_NORMAL);
        ADD_FAILURE() << "no exception";
    } catch (const std::bad_alloc& e) {
        EXPECT_STREQ(e.what(),
                     "std::bad_alloc(): Can't get passed std::bad_alloc! crash is iminent.");
    }
    testing::clearSimulatedGLErrors();
    EXPECT_EQ(log.count("std::bad_alloc caught!"), 10u);
    EXPECT_EQ(log.count("Can't get passed std::bad_alloc! crash is iminent."), 1u);
    EXPECT_EQ(ImageStorageManager::instance()->memoryLimit(SaGPU),
              ImageStorageManager::instance()->memoryConsumption(SaGPU))
        << "the GPU area's limit is lowered to what it holds";
    ImageStorageManager::instance()->setMemoryLimit(SaGPU, ImageStorageManager::NoLimit);

    // A success on the third attempt ends the loop there.
    int attempts = 0;
    detail::runWithGPURetry(
        [&] {
            if (++attempts < 3) throw std::bad_alloc();
        },
        0, false);
    EXPECT_EQ(attempts, 3);
    ImageStorageManager::instance()->setMemoryLimit(SaGPU, ImageStorageManager::NoLimit);
}

TEST_F(TextureImageStorageTest, TextureCreationFailingEveryTimeCannotAllocate) {
    auto raw = patternStorage(PfRGBA8, Vec2i(8, 8));
    _renderer->clearTextureCache();  // no free texture to reuse: each attempt allocates
    LogCapture log;
    testing::simulateGLError(GLErrorCheck::TextureAllocation, GL_OUT_OF_MEMORY, 1000);
    EXPECT_THROW(
        {
            try {
                upload(*raw, PfRGBA8);
            } catch (const std::bad_alloc& e) {
                EXPECT_STREQ(e.what(), "std::bad_alloc(): Could not allocate texture!");
                throw;
            }
        },
        std::bad_alloc);
    testing::clearSimulatedGLErrors();
    EXPECT_EQ(log.count("while creating texture."), 10u);
    ImageStorageManager::instance()->setMemoryLimit(SaGPU, ImageStorageManager::NoLimit);
}

TEST_F(TextureImageStorageTest, OperatorDrawsItsShaderOverTheRectangleOnly) {
    test::SearchPathsScope paths({QOR_SHADER_DIR});
    auto source = upload(*patternStorage(PfRGBA8, Vec2i(16, 16)), PfRGBA8);
    auto out = std::static_pointer_cast<TextureImageStorage>(
        (new TextureImageStorage(Vec2i(16, 16), PfRGBA8, WeakSharedPtr<ImageTile>()))
            ->setupSelfRef());
    {
        SharedPtr<Drawer> d = out->target()->beginRender();
        d->clear(0, 0, 0, 0);
        out->target()->finishRender(d);
    }
    TextureOperator op(out->target(), Recti(Vec2i(16, 16)));
    op.setRect(Recti(4, 4, 8, 8));
    op.setShader(_renderer->createShader("filters/Levels", ""));
    op.setUniform("S0", source->texture());
    op.setUniform("gain", Vec3f(0, 0, 0));
    op.setUniform("offset", Vec3f(1, 0.5f, 0));
    SharedPtr<Drawer> d = op.start();
    op.execute(d);
    op.finish(d);
    auto back = out->readBack(PfRGBA8, nullptr)->getDataRGBA8();
    EXPECT_EQ(back->at(6, 6, 0), 255);
    EXPECT_NEAR(back->at(6, 6, 1), 128, 1);
    EXPECT_EQ(back->at(2, 2, 0), 0) << "outside the rectangle";
    LogCapture log;
    op.setRect(Recti(10, 10, 8, 8));
    EXPECT_EQ(log.assertions("(rect & Recti(_target->size())) == rect"), 1u);
    EXPECT_FALSE(op.resize(Vec2i(8, 8))) << "only an operator over the whole target resizes it";
}

}  // namespace
}  // namespace qor::gpu
