#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "GPUTestSupport.h"
#include "base/Exception.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {
namespace {

using namespace imaging;
using TextureGLCacheTest = test::RendererTest;

std::unique_ptr<TextureGL> makeTexture(int w, int h, RawPixelFormat format = PfRGBA8,
                                       MipmapMode mipmap = MM_OFF) {
    return std::make_unique<TextureGL>(Vec2i(w, h), format,
                                       DrawParameters(mipmap, IM_LINEAR, IM_LINEAR), false);
}

TEST_F(TextureGLCacheTest, FreedTexturesComeBackForTheSameKindOnly) {
    auto plain = makeTexture(64, 32);
    auto mipmapped = makeTexture(64, 32, PfRGBA8, MM_LINEAR);
    const GLuint plainId = plain->id(), mipmappedId = mipmapped->id();
    auto cache = TextureGLCache::instance();
    ASSERT_TRUE(cache);
    EXPECT_EQ(cache->usedCount(), 2u);
    plain.reset();
    mipmapped.reset();
    EXPECT_EQ(cache->freeCount(), 2u);
    EXPECT_TRUE(glIsTexture(plainId));

    // Another format or size is a new texture; the free ones wait.
    auto otherFormat = makeTexture(64, 32, PfRGB8);
    auto otherSize = makeTexture(32, 64);
    EXPECT_NE(otherFormat->id(), plainId);
    EXPECT_NE(otherSize->id(), plainId);
    EXPECT_EQ(cache->freeCount(), 2u);

    // Mipmapping is part of the kind: each request finds its own.
    auto again = makeTexture(64, 32, PfRGBA8, MM_NEAREST);
    EXPECT_EQ(again->id(), mipmappedId);
    auto againPlain = makeTexture(64, 32);
    EXPECT_EQ(againPlain->id(), plainId);
    EXPECT_EQ(cache->freeCount(), 0u);
}

TEST_F(TextureGLCacheTest, CostsRunAheadOfTheFreeTexturesButNeverTwice) {
    const std::uint64_t cost = TextureGLCache::computeCost(32, 32, PfRGBA8, false);
    EXPECT_EQ(cost, 4096u);
    EXPECT_EQ(TextureGL::ComputeMemoryCost(Vec2i(100, 100), PfRGBA8,
                                           DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR)),
              52000u);  // 13 / 10 of 40000

    makeTexture(32, 32).reset();
    auto cache = TextureGLCache::instance();
    EXPECT_EQ(cache->costs(), cost);
    auto reused = makeTexture(32, 32);
    EXPECT_EQ(cache->freeCount(), 0u);
    EXPECT_EQ(cache->costs(), cost) << "a hit keeps the cost counted";
    reused.reset();
    EXPECT_EQ(cache->costs(), cost) << "a texture's cost is counted once";
    cache->clearCache();
    EXPECT_EQ(cache->costs(), 0u);
}

TEST_F(TextureGLCacheTest, TheHundredAndFirstFreeTextureEvictsTheOldest) {
    std::vector<std::unique_ptr<TextureGL>> textures;
    std::vector<GLuint> ids;
    for (int i = 0; i < 101; ++i) {
        textures.push_back(makeTexture(4, 4));
        ids.push_back(textures.back()->id());
    }
    auto cache = TextureGLCache::instance();
    for (int i = 0; i < 100; ++i) textures[i].reset();
    EXPECT_EQ(cache->freeCount(), 100u);
    EXPECT_TRUE(glIsTexture(ids[0]));
    textures[100].reset();
    EXPECT_EQ(cache->freeCount(), 100u);
    EXPECT_FALSE(glIsTexture(ids[0])) << "the oldest free texture was kept";
    EXPECT_TRUE(glIsTexture(ids[1]));
    EXPECT_TRUE(glIsTexture(ids[100]));
}

TEST_F(TextureGLCacheTest, TheByteLimitEvictsOldestFirst) {
    const std::uint64_t cost = TextureGLCache::computeCost(32, 32, PfRGBA8, false);
    auto cache = TextureGLCache::obtain();
    cache->setLimits(3 * cost, 100);
    std::vector<std::unique_ptr<TextureGL>> textures;
    std::vector<GLuint> ids;
    for (int i = 0; i < 4; ++i) {
        textures.push_back(makeTexture(32, 32, i % 2 ? PfRGBA8 : PfBGRA8));
        ids.push_back(textures.back()->id());
    }
    for (auto& t : textures) t.reset();
    EXPECT_EQ(cache->freeCount(), 3u);
    EXPECT_EQ(cache->costs(), 3 * cost);
    EXPECT_FALSE(glIsTexture(ids[0]));

    // A new texture that does not fit beside the free ones makes room first.
    auto fresh = makeTexture(16, 16, PfRGB16F);
    EXPECT_EQ(cache->freeCount(), 2u);
    EXPECT_FALSE(glIsTexture(ids[1]));
    EXPECT_TRUE(glIsTexture(ids[2]));
}

TEST(TextureGLCacheSettings, WithTheCacheOffAFreedTextureIsDeletedAtOnce) {
    QOR_REQUIRE_GL();
    LogCapture quiet;
    Renderer::enableTextureCache(false);
    ASSERT_TRUE(loadRenderer());
    {
        auto texture = makeTexture(16, 16);
        const GLuint id = texture->id();
        auto cache = TextureGLCache::instance();
        EXPECT_FALSE(cache->enabled());
        EXPECT_EQ(cache->usedCount(), 1u);
        texture.reset();
        EXPECT_FALSE(glIsTexture(id));
        EXPECT_EQ(cache->freeCount(), 0u);
        EXPECT_EQ(cache->usedCount(), 0u);
    }
    unloadRenderer();
    EXPECT_FALSE(TextureGLCache::instance());
    Renderer::enableTextureCache(true);
}

TEST_F(TextureGLCacheTest, OutOfMemoryRunsTheHandlersAndTriesOnceMore) {
    auto spare = makeTexture(8, 8);
    const GLuint spareId = spare->id();
    spare.reset();
    auto cache = TextureGLCache::instance();
    ASSERT_EQ(cache->freeCount(), 1u);

    LogCapture log;
    testing::simulateGLError(GLErrorCheck::TextureAllocation, GL_OUT_OF_MEMORY, 1);
    auto texture = makeTexture(16, 16);
    EXPECT_TRUE(log.contains("Called new handler after GL_OUT_OF_MEMORY"));
    EXPECT_EQ(cache->freeCount(), 0u) << "the texture cache's handler did not run";
    EXPECT_FALSE(glIsTexture(spareId));
    EXPECT_TRUE(glIsTexture(texture->id()));

    // The retried texture works.
    auto src = GenImageData<unsigned char, 4>::create(16, 16);
    std::fill(src->data(), src->data() + src->stride() * 16, (unsigned char)77);
    texture->setDataRGBA(src);
    auto back = GenImageData<unsigned char, 4>::create(16, 16);
    texture->getDataRGBA8(back);
    EXPECT_EQ(back->at(15, 15, 3), 77);
}

TEST_F(TextureGLCacheTest, OutOfMemoryTwiceThrowsAndKeepsNoName) {
    auto cache = TextureGLCache::obtain();
    const size_t used = cache->usedCount();
    LogCapture log;
    testing::simulateGLError(GLErrorCheck::TextureAllocation, GL_OUT_OF_MEMORY, 2);
    EXPECT_THROW(makeTexture(16, 16), std::bad_alloc);
    EXPECT_TRUE(log.contains("Called new handler after GL_OUT_OF_MEMORY"));
    EXPECT_TRUE(
        log.contains("std::bad_alloc(): Texture creation failed due to GL_OUT_OF_MEMORY error!"));
    EXPECT_EQ(log.assertions("!err"), 1u);
    EXPECT_EQ(cache->usedCount(), used);
    // GL is left clean: the next texture is made normally.
    auto next = makeTexture(16, 16);
    EXPECT_TRUE(glIsTexture(next->id()));
}

TEST_F(TextureGLCacheTest, AnotherGLErrorIsReportedAsItselfAndRunsNoHandler) {
    auto cache = TextureGLCache::obtain();
    makeTexture(8, 8).reset();  // something the handlers could free
    const size_t used = cache->usedCount();
    LogCapture log;
    testing::simulateGLError(GLErrorCheck::TextureAllocation, GL_INVALID_VALUE, 1);
    try {
        makeTexture(16, 16);
        ADD_FAILURE() << "no exception";
    } catch (const std::bad_alloc& e) {
        ADD_FAILURE() << "reported as out of memory: " << e.what();
    } catch (const Exception& e) {
        EXPECT_NE(std::string(e.what()).find("invalid value"), std::string::npos) << e.what();
    }
    EXPECT_TRUE(log.contains("OpenGL error: 1281(invalid value)"));
    EXPECT_FALSE(log.contains("GL_OUT_OF_MEMORY"));
    EXPECT_EQ(log.assertions("!err"), 1u);
    EXPECT_EQ(cache->freeCount(), 1u) << "the memory handlers ran";
    EXPECT_EQ(cache->usedCount(), used);
}

TEST_F(TextureGLCacheTest, AFailedAddressProbeRunsTheHandlersAndGoesOn) {
    auto cache = TextureGLCache::obtain();
    makeTexture(8, 8).reset();
    LogCapture log;
    testing::failAddressSpaceProbes(1);
    auto first = makeTexture(16, 16);
    EXPECT_TRUE(log.contains("Calling new handler"));
    EXPECT_EQ(cache->freeCount(), 0u) << "the handler chain did not reach the cache";
    EXPECT_FALSE(log.contains("New handler was unable to free enough memory."));

    // Nothing left to free: the texture is made anyway.
    testing::failAddressSpaceProbes(1);
    auto second = makeTexture(16, 16);
    EXPECT_TRUE(log.contains(
        "New handler was unable to free enough memory. Will try to allocate the texture anyway."));
    EXPECT_TRUE(glIsTexture(second->id()));
}

TEST_F(TextureGLCacheTest, TheNewHandlerEmptiesTheFreeListOrSaysItCannot) {
    auto cache = TextureGLCache::obtain();
    makeTexture(8, 8).reset();
    makeTexture(8, 4).reset();
    ASSERT_EQ(cache->freeCount(), 2u);
    EXPECT_NO_THROW(cache->newHandler().freeMemory());
    EXPECT_EQ(cache->freeCount(), 0u);
    EXPECT_EQ(cache->costs(), 0u);

    LogCapture log;
    EXPECT_THROW(cache->newHandler().freeMemory(), std::bad_alloc);
    EXPECT_TRUE(log.contains("std::bad_alloc(): Could not free any more memory!"));
    EXPECT_TRUE(cache->newHandler().registered());
}

TEST(TextureGLCacheThreads, TheNewHandlerRefusesOnAWorkerWithoutTouchingTheCache) {
    QOR_REQUIRE_GL();
    glwNotifyCurrent(test::GLTestContext::obtain()->context());
    auto cache = TextureGLCache::obtain();
    auto spare = makeTexture(8, 8);
    const GLuint spareId = spare->id();
    spare.reset();
    ASSERT_EQ(cache->freeCount(), 1u);

    LogCapture log;
    bool threw = false;
    bool chainFreed = true;
    std::thread worker([&] {
        try {
            cache->newHandler().freeMemory();
        } catch (const std::bad_alloc& e) {
            threw = std::string(e.what()) == "std::bad_alloc(): Invalid thread!";
        }
        chainFreed = memory::NewHandler::callOurHandlers();
    });
    worker.join();
    EXPECT_TRUE(threw);
    EXPECT_FALSE(chainFreed) << "the only handler of this process refused";
    EXPECT_EQ(log.count("std::bad_alloc(): Invalid thread!"), 2u);
    EXPECT_EQ(cache->freeCount(), 1u);
    EXPECT_TRUE(glIsTexture(spareId));

    // Asked directly, the cache deletes nothing off the GL thread either.
    bool released = true;
    std::thread direct([&] {
        released = cache->releaseFreeTextures();
        cache->clearCache();
    });
    direct.join();
    EXPECT_FALSE(released);
    EXPECT_EQ(log.assertions("glwIsGLThread()"), 2u);
    EXPECT_EQ(cache->freeCount(), 1u);
    EXPECT_EQ(cache->costs(), TextureGLCache::computeCost(8, 8, PfRGBA8, false));
    EXPECT_TRUE(glIsTexture(spareId));

    cache->clearCache();
    cache.reset();
    TextureGLCache::freeCache();
    EXPECT_FALSE(TextureGLCache::instance());
    glwShutdown();
}

}  // namespace
}  // namespace qor::gpu
