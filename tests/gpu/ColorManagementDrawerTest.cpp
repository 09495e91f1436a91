#include <gtest/gtest.h>

#include <cmath>

#include "GPUTestSupport.h"
#include "gpu/ColorManagementDrawer.h"
#include "gpu/RenderTarget.h"
#include "imaging/ColorTransform.h"

namespace qor::gpu {
namespace {

using namespace imaging;

class ColorManagementDrawerTest : public test::RendererTest {
protected:
    void SetUp() override {
        test::RendererTest::SetUp();
        if (_renderer) _paths.emplace(std::vector<std::string>{QOR_SHADER_DIR});
    }
    void TearDown() override {
        _paths.reset();
        test::RendererTest::TearDown();
    }

    // A gradient over the whole cube: red across, green down, blue in steps; alpha 1.
    SharedPtr<GenImageData<float, 4>> gradient() {
        auto image = GenImageData<float, 4>::create(Width, Height);
        for (int y = 0; y < Height; ++y)
            for (int x = 0; x < Width; ++x) {
                image->at(x, y, 0) = float(x) / (Width - 1);
                image->at(x, y, 1) = float(y) / (Height - 1);
                image->at(x, y, 2) = float((x * 7 + y * 3) % 11) / 10;
                image->at(x, y, 3) = 1.0f;
            }
        return image;
    }

    // Draws `image` through a colour management drawer with `transform` and reads it back.
    SharedPtr<GenImageData<float, 4>> drawThrough(
        const SharedPtr<GenImageData<float, 4>>& image,
        const SharedPtr<const ColorTransform>& transform) {
        auto texture = _renderer->createTexture(Vec2i(Width, Height), PfRGBA32F, DrawParameters());
        texture->setDataRGBA(image);
        auto target = _renderer->createTextureTarget(Vec2i(Width, Height), PfRGBA32F);
        SharedPtr<Drawer> drawer = target->beginRender();
        drawer->clear(0, 0, 0, 0);
        ColorManagementDrawer cm;
        cm.setDrawer(drawer);
        cm.setTransform(transform);
        cm.reloadShader();
        cm.setup(texture);
        cm.drawQuad(Rectf(Vec2f(0, 0), Vec2f(Width, Height)), texture->texCoords(), ShadingState());
        target->finishRender(drawer);
        auto back = GenImageData<float, 4>::create(Width, Height);
        target->readBackRGBA(back, Recti(Vec2i(Width, Height)));
        return back;
    }

    static double largestDifference(const GenImageData<float, 4>& a,
                                    const GenImageData<float, 4>& b) {
        double worst = 0;
        for (int y = 0; y < Height; ++y)
            for (int x = 0; x < Width; ++x)
                for (int c = 0; c < 4; ++c)
                    worst = std::max(worst, double(std::fabs(a.at(x, y, c) - b.at(x, y, c))));
        return worst;
    }

    static constexpr int Width = 24, Height = 12;
    std::optional<test::SearchPathsScope> _paths;
};

TEST_F(ColorManagementDrawerTest, WithoutATransformTheImageIsDrawnAsItIs) {
    LogCapture log;
    auto image = gradient();
    EXPECT_EQ(largestDifference(*drawThrough(image, nullptr), *image), 0.0);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST_F(ColorManagementDrawerTest, TheTableAgreesWithTheProcessorTransform) {
    // sRGB to linear sRGB: the steepest common tone curve. A 33-point table interpolated
    // trilinearly stays within 0.002 of Little CMS's own float transform.
    LogCapture log;
    auto transform = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::linearSRGB(), 0.0,
                                            -1, PfRGBA32F);
    auto image = gradient();
    auto drawn = drawThrough(image, transform);
    auto expected = gradient();
    transform->apply(*expected);
    EXPECT_LT(largestDifference(*drawn, *expected), 0.002);
    // Not the identity: mid grey goes from 0.5 to about 0.214.
    EXPECT_GT(largestDifference(*drawn, *image), 0.2);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST_F(ColorManagementDrawerTest, DrawingBeforeTheProgramIsBuiltAsserts) {
    ColorManagementDrawer cm;
    LogCapture log;
    cm.drawQuad(Rectf(Vec2f(0, 0), Vec2f(1, 1)), ShadingState());
    cm.setup(nullptr);
    EXPECT_EQ(log.assertions("_drawer && _shader"), 1u);
    EXPECT_EQ(log.assertions("_drawer && _shader && image"), 1u);
}

}  // namespace
}  // namespace qor::gpu
