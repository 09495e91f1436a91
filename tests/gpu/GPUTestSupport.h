#pragma once
// The fixture of the GPU tests that need a loaded renderer: a headless context, the renderer
// loaded in SetUp and unloaded in TearDown, and checks that nothing was left behind.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "GLTestContext.h"
#include "base/Log.h"
#include "gpu/Renderer.h"
#include "gpu/gl2/GLTestHooks.h"
#include "gpu/gl2/RendererGL.h"
#include "gpu/gl2/TextureGLCache.h"

namespace qor::gpu::test {

// Sets the shader search paths while it lives, and puts back those that were there.
class SearchPathsScope {
public:
    explicit SearchPathsScope(const std::vector<std::string>& paths)
        : _saved(Renderer::searchPaths()) {
        Renderer::setSearchPaths(paths);
    }
    ~SearchPathsScope() { Renderer::setSearchPaths(_saved); }
    SearchPathsScope(const SearchPathsScope&) = delete;
    SearchPathsScope& operator=(const SearchPathsScope&) = delete;

private:
    std::vector<std::string> _saved;
};

class RendererTest : public ::testing::Test {
protected:
    void SetUp() override {
        QOR_REQUIRE_GL();
        {
            LogCapture quiet;  // the renderer's start-up report
            ASSERT_TRUE(loadRenderer());
        }
        _renderer = dynamic_cast<RendererGL*>(renderer().get());
        ASSERT_TRUE(_renderer);
    }
    void TearDown() override {
        if (!_renderer) return;
        testing::clearSimulatedGLErrors();
        testing::failAddressSpaceProbes(0);
        testing::forceBorderTexels(false);
        _renderer = nullptr;
        LogCapture quiet;
        unloadRenderer();
        EXPECT_FALSE(renderer());
        EXPECT_FALSE(TextureGLCache::instance()) << "a texture outlived its test";
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    }

    RendererGL* _renderer = nullptr;
};

}  // namespace qor::gpu::test
