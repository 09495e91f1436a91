#include <gtest/gtest.h>

#include <string>

#include "GPUTestSupport.h"
#include "gpu/BatchDrawer.h"
#include "gpu/RenderTarget.h"
#include "gpu/gl2/DrawerGL.h"
#include "gpu/gl2/TextureGL.h"

namespace qor::gpu {
namespace {

using namespace imaging;

// Records what reaches it: one line per call.
class RecordingDrawer : public Drawer {
public:
    std::vector<std::string> calls;
    std::vector<Points> points;
    std::vector<Indices> indices;
    std::vector<ShadingState> states;
    std::vector<std::size_t> colorCounts;  // of the 2-component indexed draws

    void end() override { calls.push_back("end"); }
    void setClipping(const Recti&, bool) override { calls.push_back("clip"); }
    void clear(float, float, float, float) override { calls.push_back("clear"); }
    void setViewport(const Recti&) override { calls.push_back("viewport"); }
    void setOrtho(const Rectf&, float, float) override { calls.push_back("ortho"); }
    void drawArray(Primitive p, const Points& pts, const TexCoords2&, const Colors&,
                   const ShadingState& s) override {
        record("array2", p, pts, Indices(), s);
    }
    void drawArray(Primitive p, const Points& pts, const TexCoords4&, const Colors&,
                   const ShadingState& s) override {
        record("array4", p, pts, Indices(), s);
    }
    void drawIndices(Primitive p, const Points& pts, const TexCoords2&, const Colors& c,
                     const Indices& i, const ShadingState& s) override {
        colorCounts.push_back(c.size());
        record("indices2", p, pts, i, s);
    }
    void drawIndices(Primitive p, const Points& pts, const TexCoords4&, const Colors&,
                     const Indices& i, const ShadingState& s) override {
        record("indices4", p, pts, i, s);
    }

private:
    void record(const std::string& what, Primitive p, const Points& pts, const Indices& i,
                const ShadingState& s) {
        calls.push_back(what + ":" + std::to_string(int(p)));
        points.push_back(pts);
        indices.push_back(i);
        states.push_back(s);
    }
};

const ShadingState Red(Vec4f(1, 0, 0, 1)), Green(Vec4f(0, 1, 0, 1));

TEST(BatchDrawer, ShapesOfOneStateBecomeOneDraw) {
    auto sink = std::make_shared<RecordingDrawer>();
    BatchDrawer batch(sink);
    batch.begin();
    for (int i = 0; i < 100; ++i) batch.drawQuad(Rectf(Vec2f(i, 0), Vec2f(i + 1, 1)), Red);
    EXPECT_TRUE(sink->calls.empty());
    EXPECT_EQ(batch.pendingPoints(), 400u);
    batch.end();
    ASSERT_EQ(sink->calls, (std::vector<std::string>{"indices2:1", "end"}));
    EXPECT_EQ(sink->points[0].size(), 400u);
    EXPECT_EQ(sink->colorCounts.at(0), 400u);  // the state's colour for every point
    ASSERT_EQ(sink->indices[0].size(), 600u);
    // The last quad's triangles point at its own corners.
    EXPECT_EQ(sink->indices[0][594], 396u);
    EXPECT_EQ(sink->indices[0][599], 399u);
}

TEST(BatchDrawer, StateChangesAndOtherOperationsKeepTheOrder) {
    auto sink = std::make_shared<RecordingDrawer>();
    BatchDrawer batch(sink);
    batch.drawQuad(Rectf(Vec2f(0, 0), Vec2f(1, 1)), Red);
    batch.drawQuad(Rectf(Vec2f(1, 0), Vec2f(2, 1)), Red);
    batch.drawQuad(Rectf(Vec2f(2, 0), Vec2f(3, 1)), Green);  // flushes the two red quads
    batch.clear(0, 0, 0, 0);                                 // flushes the green one first
    batch.drawLineStrip({Vec2f(0, 0), Vec2f(1, 1), Vec2f(2, 0)}, Green);
    batch.drawPolygon({Vec2f(0, 0), Vec2f(1, 0), Vec2f(1, 1)}, TexCoords4(3), Colors(), Green);
    batch.flushAll();
    EXPECT_EQ(sink->calls, (std::vector<std::string>{"indices2:1", "indices2:1", "clear",
                                                     "indices2:2", "indices4:1"}));
    EXPECT_EQ(sink->points[0].size(), 8u);
    EXPECT_EQ(sink->states[1].color, Green.color);
    // A line strip of three points is two line pairs.
    EXPECT_EQ(sink->indices[2], (Indices{0, 1, 1, 2}));
    // Nothing is left: a second flush sends nothing.
    batch.flushAll();
    EXPECT_EQ(sink->calls.size(), 5u);
}

TEST(BatchDrawer, BeginWithUnflushedPointsAsserts) {
    auto sink = std::make_shared<RecordingDrawer>();
    BatchDrawer batch(sink);
    batch.drawLine(Vec2f(0, 0), Vec2f(1, 1), Red);
    LogCapture log;
    batch.begin();
    EXPECT_EQ(log.assertions("_tex2dBatch._flushed && _tex4dBatch._flushed"), 1u);
    EXPECT_EQ(log.assertions("_tex2dBatch._points.empty() && _tex4dBatch._points.empty()"), 1u);
}

TEST(Drawer, PolygonsWithArraysOfOtherLengthsAssertAndDrawNothing) {
    RecordingDrawer drawer;
    LogCapture log;
    const Points triangle = {Vec2f(0, 0), Vec2f(1, 0), Vec2f(1, 1)};
    drawer.drawPolygon(triangle, TexCoords2(3), Colors(2), nullptr, Red);
    EXPECT_EQ(log.assertions("pointColors.empty() || polygonCoords.size() == pointColors.size()"),
              1u);
    drawer.drawPolygon(triangle, TexCoords4(2), Colors(), Red);
    EXPECT_EQ(log.assertions("points.size() == imgCoords.size()"), 1u);
    EXPECT_TRUE(drawer.calls.empty());
    // A pentagon is a fan of three triangles.
    drawer.drawPolygon({Vec2f(0, 0), Vec2f(2, 0), Vec2f(3, 1), Vec2f(1, 2), Vec2f(-1, 1)}, Red);
    EXPECT_EQ(drawer.indices.at(0), (Indices{0, 1, 2, 0, 2, 3, 0, 3, 4}));
}

using DrawerGLTest = test::RendererTest;

SharedPtr<GenImageData<unsigned char, 4>> readAll(TextureTarget& target) {
    const Vec2i size = target.size();
    auto pixels = GenImageData<unsigned char, 4>::create(size.x, size.y);
    target.readBackRGBA(pixels, Recti(size));
    return pixels;
}

TEST_F(DrawerGLTest, QuadsLinesAndBlendingLandWhereTheyShould) {
    auto target = _renderer->createTextureTarget(Vec2i(16, 8), PfRGBA8);
    target->setReadBackOffset(Vec2i(100, 50));  // drawing coordinates of the texture's origin
    SharedPtr<Drawer> drawer = target->beginRender();
    drawer->clear(0, 0, 1, 1);
    drawer->drawQuad(Rectf(Vec2f(102, 51), Vec2f(106, 54)), Red);
    ShadingState half(Vec4f(0, 1, 0, 0.5f), BlendAlpha);
    drawer->drawQuad(Rectf(Vec2f(110, 50), Vec2f(116, 58)), half);
    ShadingState constant(Vec4f(1, 1, 1, 1), BlendConstantAlpha);
    constant.blendFactor = 0.25f;
    drawer->drawQuad(Rectf(Vec2f(100, 56), Vec2f(104, 58)), constant);
    target->finishRender(drawer);

    auto px = readAll(*target);
    auto at = [&](int x, int y) {
        return std::vector<int>{px->at(x, y, 0), px->at(x, y, 1), px->at(x, y, 2)};
    };
    EXPECT_EQ(at(3, 2), (std::vector<int>{255, 0, 0}));  // inside the red quad
    EXPECT_EQ(at(6, 2), (std::vector<int>{0, 0, 255}));  // just right of it
    EXPECT_EQ(at(2, 4), (std::vector<int>{0, 0, 255}));  // just above it
    // Half green over blue; a quarter of white over blue. 8-bit rounding: within one step.
    EXPECT_NEAR(px->at(12, 4, 1), 128, 1);
    EXPECT_NEAR(px->at(12, 4, 2), 128, 1);
    EXPECT_NEAR(px->at(1, 7, 0), 64, 1);
    EXPECT_NEAR(px->at(1, 7, 2), 255, 1);
}

TEST_F(DrawerGLTest, TexturedQuadsShowTheTexturePixelForPixel) {
    auto image = GenImageData<unsigned char, 4>::create(8, 8);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 4; ++c) image->at(x, y, c) = (unsigned char)(x * 30 + y * 3 + c);
    auto texture = _renderer->createTexture(Vec2i(8, 8), PfRGBA8, DrawParameters());
    texture->setDataRGBA(image);

    auto target = _renderer->createTextureTarget(Vec2i(12, 12), PfRGBA8);
    SharedPtr<Drawer> drawer = target->beginRender();
    drawer->clear(0, 0, 0, 0);
    BatchDrawer batch(drawer);
    // The texture in four quads of 4 x 4 through the batch: one draw call, same pixels.
    const Rectf coords = texture->texCoords();
    for (int qy = 0; qy < 2; ++qy)
        for (int qx = 0; qx < 2; ++qx) {
            const Rectf part(Vec2f(coords.xmax() * qx / 2, coords.ymax() * qy / 2),
                             Vec2f(coords.xmax() * (qx + 1) / 2, coords.ymax() * (qy + 1) / 2));
            ShadingState s;
            s.texture = texture;
            batch.drawQuad(Rectf(Vec2f(2 + 4 * qx, 3 + 4 * qy), Vec2f(6 + 4 * qx, 7 + 4 * qy)),
                           part, s);
        }
    EXPECT_EQ(batch.pendingPoints(), 16u);
    target->finishRender(SharedPtr<Drawer>(&batch, [](Drawer*) {}));
    EXPECT_EQ(batch.pendingPoints(), 0u);

    auto px = readAll(*target);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(px->at(x + 2, y + 3, c), image->at(x, y, c)) << x << "," << y;
    EXPECT_EQ(px->at(1, 3, 3), 0);
}

TEST_F(DrawerGLTest, AnUnknownBlendModeAssertsAndDrawsNothing) {
    auto target = _renderer->createTextureTarget(Vec2i(4, 4), PfRGBA8);
    SharedPtr<Drawer> drawer = target->beginRender();
    drawer->clear(0, 0, 0, 1);
    LogCapture log;
    drawer->drawQuad(Rectf(Vec2f(0, 0), Vec2f(4, 4)), ShadingState(Vec4f(1, 1, 1, 1), 13));
    EXPECT_EQ(log.assertions("false"), 1u);
    target->finishRender(drawer);
    EXPECT_EQ(readAll(*target)->at(1, 1, 0), 0);
}

}  // namespace
}  // namespace qor::gpu
