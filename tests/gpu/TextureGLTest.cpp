#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "GPUTestSupport.h"
#include "gpu/gl2/TextureGL.h"
#include "gpu/gl2/glw.h"
#include "imaging/ImageDataAdapter.h"
#include "imaging/RawImageStorage.h"

namespace qor::gpu {
namespace {

using namespace imaging;
using TextureGLTest = test::RendererTest;

// A pattern that uses the whole range of T, different in every channel and pixel.
template <class T>
T sample(int x, int y, int c, int seed) {
    const int v = x * 31 + y * 17 + c * 7 + seed;
    if constexpr (std::is_same_v<T, unsigned char>) return T(v & 255);
    if constexpr (std::is_same_v<T, unsigned short>) return T((v * 257 + x) & 0xFFFF);
    if constexpr (std::is_same_v<T, half>) return half(float(v % 97) / 16.0f - 3.0f);
    if constexpr (std::is_same_v<T, float>) return float(v % 1009) / 7.0f - 50.0f;
}

template <class T, int N>
SharedPtr<GenImageData<T, N>> pattern(int w, int h, int seed = 0) {
    auto data = GenImageData<T, N>::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < N; ++c) data->at(x, y, c) = sample<T>(x, y, c, seed);
    return data;
}

// The largest difference between `a` and `b` over the w x h corner, as doubles.
template <class T, int N>
double maxDifference(const GenImageData<T, N>& a, const GenImageData<T, N>& b, int w, int h) {
    double worst = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < N; ++c)
                worst = std::max(
                    worst, std::fabs(double(float(a.at(x, y, c))) - double(float(b.at(x, y, c)))));
    return worst;
}

// Uploads a pattern through `up`, reads the texture back through `down`, and returns the largest
// difference over the image area.
template <class T, int N, class Up, class Down>
double roundTrip(Renderer& r, RawPixelFormat format, Up up, Down down) {
    const Vec2i size(37, 19);  // neither axis a power of two
    auto texture = r.createTexture(size, format, DrawParameters());
    EXPECT_EQ(texture->pixelFormat(), format) << "the driver made another format";
    auto src = pattern<T, N>(size.x, size.y, int(format & 0xFF));
    up(*texture, src);
    auto dst = GenImageData<T, N>::create(texture->texSize().x, texture->texSize().y);
    down(*texture, dst);
    return maxDifference(*src, *dst, size.x, size.y);
}

TEST_F(TextureGLTest, EveryFormatOfTheTableRoundTripsExactly) {
    // Each internal format holds its transfer type at full precision (8 and 16-bit unsigned
    // normalised, half and single floats), so the largest difference is 0 for every format.
    LogCapture log;
    Renderer& r = *_renderer;
    using UC = unsigned char;
    using US = unsigned short;
    EXPECT_EQ((roundTrip<UC, 3>(
                  r, PfRGB8, [](Texture& t, auto& s) { t.setDataRGB(s); },
                  [](Texture& t, auto& d) { t.getDataRGB8U(d); })),
              0);
    EXPECT_EQ((roundTrip<US, 3>(
                  r, PfRGB16, [](Texture& t, auto& s) { t.setDataRGB(s); },
                  [](Texture& t, auto& d) { t.getDataRGB16U(d); })),
              0);
    EXPECT_EQ((roundTrip<half, 3>(
                  r, PfRGB16F, [](Texture& t, auto& s) { t.setDataRGB(s); },
                  [](Texture& t, auto& d) { t.getDataRGB16F(d); })),
              0);
    EXPECT_EQ((roundTrip<float, 3>(
                  r, PfRGB32F, [](Texture& t, auto& s) { t.setDataRGB(s); },
                  [](Texture& t, auto& d) { t.getDataRGB32F(d); })),
              0);
    EXPECT_EQ((roundTrip<UC, 4>(
                  r, PfRGBA8, [](Texture& t, auto& s) { t.setDataRGBA(s); },
                  [](Texture& t, auto& d) { t.getDataRGBA8(d); })),
              0);
    EXPECT_EQ((roundTrip<UC, 4>(
                  r, PfBGRA8, [](Texture& t, auto& s) { t.setDataBGRA(s); },
                  [](Texture& t, auto& d) { t.getDataBGRA8(d); })),
              0);
    EXPECT_EQ((roundTrip<US, 4>(
                  r, PfRGBA16, [](Texture& t, auto& s) { t.setDataRGBA(s); },
                  [](Texture& t, auto& d) { t.getDataRGBA16U(d); })),
              0);
    EXPECT_EQ((roundTrip<half, 4>(
                  r, PfRGBA16F, [](Texture& t, auto& s) { t.setDataRGBA(s); },
                  [](Texture& t, auto& d) { t.getDataRGBA16F(d); })),
              0);
    EXPECT_EQ((roundTrip<float, 4>(
                  r, PfRGBA32F, [](Texture& t, auto& s) { t.setDataRGBA(s); },
                  [](Texture& t, auto& d) { t.getDataRGBA32F(d); })),
              0);
    EXPECT_EQ((roundTrip<UC, 1>(
                  r, PfRed8, [](Texture& t, auto& s) { t.setDataRed(s); },
                  [](Texture& t, auto& d) { t.getDataRed8(d); })),
              0);
    EXPECT_EQ((roundTrip<US, 1>(
                  r, PfRed16, [](Texture& t, auto& s) { t.setDataRed(s); },
                  [](Texture& t, auto& d) { t.getDataRed16(d); })),
              0);
    EXPECT_EQ((roundTrip<half, 1>(
                  r, PfRed16F, [](Texture& t, auto& s) { t.setDataRed(s); },
                  [](Texture& t, auto& d) { t.getDataRed16F(d); })),
              0);
    EXPECT_EQ((roundTrip<float, 1>(
                  r, PfRed32F, [](Texture& t, auto& s) { t.setDataRed(s); },
                  [](Texture& t, auto& d) { t.getDataRed32F(d); })),
              0);
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_FALSE(log.contains("OpenGL error"));
}

TEST_F(TextureGLTest, ConvertsBetweenTransferTypes) {
    auto texture = _renderer->createTexture(Vec2i(8, 4), PfRGBA8, DrawParameters());
    auto src = pattern<unsigned char, 4>(8, 4);
    texture->setDataRGBA(src);

    // 8-bit values read as floats are exactly v / 255 up to float rounding.
    auto asFloat = GenImageData<float, 4>::create(8, 4);
    texture->getDataRGBA32F(asFloat);
    double worst = 0;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 4; ++c)
                worst = std::max(worst, std::fabs(asFloat->at(x, y, c) - src->at(x, y, c) / 255.0));
    EXPECT_LT(worst, 1e-6);

    // BGRA swaps red and blue both ways; the float form too.
    auto bgra = GenImageData<unsigned char, 4>::create(8, 4);
    texture->getDataBGRA8(bgra);
    auto bgraFloat = GenImageData<float, 4>::create(8, 4);
    texture->getDataBGRA32F(bgraFloat);
    for (int x = 0; x < 8; ++x) {
        EXPECT_EQ(bgra->at(x, 1, 0), src->at(x, 1, 2));
        EXPECT_EQ(bgra->at(x, 1, 2), src->at(x, 1, 0));
        EXPECT_NEAR(bgraFloat->at(x, 1, 0), src->at(x, 1, 2) / 255.0, 1e-6);
    }

    // Luminance uploads spread the value over red, green and blue.
    auto lum = pattern<unsigned char, 1>(8, 4, 5);
    texture->setDataLum(lum);
    auto rgb = GenImageData<unsigned char, 3>::create(8, 4);
    texture->getDataRGB8U(rgb);
    EXPECT_EQ(rgb->at(3, 2, 0), lum->at(3, 2));
    EXPECT_EQ(rgb->at(3, 2, 2), lum->at(3, 2));
}

TEST_F(TextureGLTest, UploadsIntoARectangleAndHonoursTheStride) {
    auto texture = _renderer->createTexture(Vec2i(16, 8), PfRGBA8, DrawParameters());
    auto zeroes = GenImageData<unsigned char, 4>::create(16, 8);
    std::fill(zeroes->data(), zeroes->data() + zeroes->stride() * 8, 0);
    texture->setDataRGBA(zeroes);

    // A view with rows longer than its width: the row length tells GL where rows start.
    auto wide = GenImageData<unsigned char, 4>::create(40, 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 40; ++x)
            for (int c = 0; c < 4; ++c) wide->at(x, y, c) = (unsigned char)(1 + x + 40 * y);
    texture->setDataRGBA(wide, Recti(4, 2, 5, 3));

    auto back = GenImageData<unsigned char, 4>::create(16, 8);
    texture->getDataRGBA8(back);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 16; ++x) {
            const bool inside = x >= 4 && x < 9 && y >= 2 && y < 5;
            const int expected = inside ? 1 + (x - 4) + 40 * (y - 2) : 0;
            ASSERT_EQ(back->at(x, y, 1), expected) << x << "," << y;
        }
    GLint rowLength = -1;
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &rowLength);
    EXPECT_EQ(rowLength, 0) << "the pixel store was not restored";

    LogCapture log;
    texture->setDataRGBA(wide, Recti(12, 0, 5, 3));  // sticks out of the texture
    EXPECT_EQ(log.assertions("(Recti(size()) & rect) == rect"), 1u);
}

TEST_F(TextureGLTest, TinyTexturesAreAtLeastTwoTexelsAndReadBackSafely) {
    auto texture = _renderer->createTexture(Vec2i(1, 1), PfRGBA8, DrawParameters());
    EXPECT_GE(texture->texSize().x, 2);
    EXPECT_GE(texture->texSize().y, 2);
    EXPECT_EQ(texture->size(), Vec2i(1, 1));
    const Rectf coords = texture->texCoords();
    EXPECT_FLOAT_EQ(coords.xmax(), 1.0f / float(texture->texSize().x));

    auto one = GenImageData<unsigned char, 4>::create(1, 1);
    one->at(0, 0, 0) = 200;
    texture->setDataRGBA(one);
    // A destination of the image's size is smaller than the texture: asserted, then read
    // through a temporary so that nothing is written past it.
    LogCapture log;
    auto back = GenImageData<unsigned char, 4>::create(1, 1);
    texture->getDataRGBA8(back);
    EXPECT_EQ(log.count("Insufficient space allocated for destination image data!"), 2u);
    EXPECT_EQ(back->at(0, 0, 0), 200);
}

TEST_F(TextureGLTest, FiltersFollowTheDrawParameters) {
    struct Case {
        DrawParameters params;
        GLint min, mag;
    } cases[] = {
        {{MM_OFF, IM_LINEAR, IM_LINEAR}, GL_LINEAR, GL_LINEAR},
        {{MM_OFF, IM_NEAREST, IM_LINEAR}, GL_NEAREST, GL_LINEAR},
        {{MM_LINEAR, IM_LINEAR, IM_NEAREST}, GL_LINEAR_MIPMAP_LINEAR, GL_NEAREST},
        {{MM_LINEAR, IM_NEAREST, IM_NEAREST}, GL_LINEAR_MIPMAP_NEAREST, GL_NEAREST},
        {{MM_NEAREST, IM_LINEAR, IM_LINEAR}, GL_NEAREST_MIPMAP_LINEAR, GL_LINEAR},
        {{MM_NEAREST, IM_NEAREST, IM_LINEAR}, GL_NEAREST_MIPMAP_NEAREST, GL_LINEAR},
    };
    for (const Case& c : cases) {
        TextureGL texture(Vec2i(8, 8), PfRGBA8, c.params, false);
        EXPECT_EQ(texture.getInterpolationMode(), std::make_pair(GLenum(c.min), GLenum(c.mag)));
        glwBindTexture(0, GL_TEXTURE_2D, texture.id());
        GLint min = 0, mag = 0, wrap = 0;
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &min);
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, &mag);
        glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, &wrap);
        EXPECT_EQ(min, c.min) << c.params;
        EXPECT_EQ(mag, c.mag) << c.params;
        EXPECT_EQ(wrap, GL_CLAMP_TO_EDGE);
    }

    TextureGL texture(Vec2i(8, 8), PfRGBA8, DrawParameters(MM_OFF, IM_NEAREST, IM_NEAREST), false);
    texture.setDrawParameters(DrawParameters(MM_OFF, IM_LINEAR, IM_LINEAR));
    GLint min = 0;
    glwBindTexture(0, GL_TEXTURE_2D, texture.id());
    glGetTexParameteriv(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, &min);
    EXPECT_EQ(min, GL_LINEAR);
    // Mipmapping cannot change on a texture.
    LogCapture log;
    EXPECT_FALSE(texture.compatibleDrawParameters(DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR)));
    texture.setDrawParameters(DrawParameters(MM_LINEAR, IM_NEAREST, IM_LINEAR));
    EXPECT_EQ(log.assertions("this->compatibleDrawParameters(params)"), 1u);
    EXPECT_EQ(texture.getDrawParameters(), DrawParameters(MM_OFF, IM_NEAREST, IM_LINEAR));
}

TEST_F(TextureGLTest, MipmapsAreBuiltFromLevelZero) {
    TextureGL texture(Vec2i(4, 4), PfRGBA8, DrawParameters(MM_LINEAR, IM_LINEAR, IM_LINEAR), false);
    auto src = GenImageData<unsigned char, 4>::create(4, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 4; ++c) src->at(x, y, c) = (x + y) % 2 ? 200 : 100;
    texture.setDataRGBA(src);
    texture.updateMipmaps();
    glwBindTexture(0, GL_TEXTURE_2D, texture.id());
    unsigned char top[4] = {};
    glGetTexImage(GL_TEXTURE_2D, 2, GL_RGBA, GL_UNSIGNED_BYTE, top);
    EXPECT_NEAR(top[0], 150, 1);  // the 1 x 1 level is the mean of the checkerboard

    LogCapture log;
    TextureGL plain(Vec2i(4, 4), PfRGBA8, DrawParameters(), false);
    plain.updateMipmaps();
    EXPECT_EQ(log.assertions("_drawParameters.isMipmapped()"), 1u);
}

// The levels built on the processor, for formats the driver does not render into, are the
// driver's: 2 x 2 means down to 1 x 1. The driver stores each level before it takes the mean of
// it for the next, the processor keeps the means in float: a step of rounding a level apart.
TEST_F(TextureGLTest, MipmapsBuiltOnTheProcessorEqualTheDriversLevels) {
    const DrawParameters mipmapped(MM_LINEAR, IM_LINEAR, IM_LINEAR);
    const Vec2i size(16, 8);
    struct Case {
        RawPixelFormat format;
        double step;  // of the format
    } cases[] = {{PfRGBA8, 1.01 / 255}, {PfRGB32F, 1e-4}, {PfRed16, 1.01 / 65535}};
    for (const Case& c : cases) {
        SCOPED_TRACE(pixelFormatString(c.format).c_str());
        TextureGL byDriver(size, c.format, mipmapped, false);
        TextureGL byProcessor(size, c.format, mipmapped, false);
        auto src = pattern<float, 4>(size.x, size.y);
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x)
                for (int ch = 0; ch < 4; ++ch) src->at(x, y, ch) = float(src->at(x, y, ch)) / 200;
        byDriver.setDataRGBA(src);
        byProcessor.setDataRGBA(src);
        byDriver.updateMipmaps();
        byProcessor.buildMipmapsOnProcessor();
        for (int level = 1, w = 8, h = 4; level <= 4;
             ++level, w = std::max(w / 2, 1), h = std::max(h / 2, 1)) {
            std::vector<float> a(std::size_t(w) * h * 4), b(a.size());
            glwBindTexture(0, GL_TEXTURE_2D, byDriver.id());
            glGetTexImage(GL_TEXTURE_2D, level, GL_RGBA, GL_FLOAT, a.data());
            glwBindTexture(0, GL_TEXTURE_2D, byProcessor.id());
            glGetTexImage(GL_TEXTURE_2D, level, GL_RGBA, GL_FLOAT, b.data());
            double worst = 0;
            for (std::size_t i = 0; i < a.size(); ++i)
                worst = std::max(worst, std::fabs(double(a[i]) - double(b[i])));
            EXPECT_LE(worst, c.step * level) << "level " << level;
        }
    }
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
}

TEST_F(TextureGLTest, RectangleTexturesAddressTexels) {
    auto texture = _renderer->createTextureRect(Vec2i(5, 3), PfRGBA16);
    auto* gl = dynamic_cast<TextureGL*>(texture.get());
    ASSERT_TRUE(gl);
    EXPECT_EQ(gl->target(), GLenum(GL_TEXTURE_RECTANGLE));
    EXPECT_EQ(texture->texCoords(), Rectf(Vec2f(0, 0), Vec2f(5, 3)));
    auto src = pattern<unsigned short, 4>(5, 3);
    texture->setDataRGBA(src);
    auto back = GenImageData<unsigned short, 4>::create(texture->texSize().x, texture->texSize().y);
    texture->getDataRGBA16U(back);
    EXPECT_EQ(maxDifference(*src, *back, 5, 3), 0);
}

TEST_F(TextureGLTest, ResizeTakesANewNameOfTheNewSize) {
    TextureGL texture(Vec2i(8, 8), PfRGB16F, DrawParameters(), false);
    EXPECT_TRUE(texture.resize(Vec2i(20, 10)));
    EXPECT_EQ(texture.size(), Vec2i(20, 10));
    glwBindTexture(0, GL_TEXTURE_2D, texture.id());
    GLint w = 0, internal = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &w);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &internal);
    EXPECT_EQ(w, 20);
    EXPECT_EQ(internal, GL_RGB16F);

    LogCapture log;
    EXPECT_FALSE(texture.resize(Vec2i(_renderer->maxTextureSize().x + 1, 2)));
    EXPECT_EQ(texture.id(), 0u);
    EXPECT_TRUE(texture.resize(Vec2i(4, 4)));
}

TEST_F(TextureGLTest, TransferErrorsAreLoggedAndOnlyOutOfMemoryThrows) {
    auto texture = _renderer->createTexture(Vec2i(4, 4), PfRGBA8, DrawParameters());
    auto src = pattern<unsigned char, 4>(4, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 7);  // the caller's own pixel store

    LogCapture log;
    testing::simulateGLError(GLErrorCheck::Transfer, GL_INVALID_OPERATION, 1);
    EXPECT_NO_THROW(texture->setDataRGBA(src));
    EXPECT_TRUE(log.contains("OpenGL error: 1282(invalid operation)"));

    testing::simulateGLError(GLErrorCheck::Transfer, 0x1234, 1);
    EXPECT_NO_THROW(texture->setDataRGBA(src));
    EXPECT_TRUE(log.contains("Unknown OpenGL error: 4660"));

    testing::simulateGLError(GLErrorCheck::Transfer, GL_OUT_OF_MEMORY, 1);
    try {
        texture->setDataRGBA(src);
        ADD_FAILURE() << "no std::bad_alloc";
    } catch (const std::bad_alloc& e) {
        EXPECT_STREQ(e.what(), "std::bad_alloc()");
    }
    GLint rowLength = 0;
    glGetIntegerv(GL_UNPACK_ROW_LENGTH, &rowLength);
    EXPECT_EQ(rowLength, 7) << "a throwing upload left the pixel store changed";
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);

    testing::simulateGLError(GLErrorCheck::Transfer, GL_OUT_OF_MEMORY, 1);
    auto dst = GenImageData<unsigned char, 4>::create(4, 4);
    EXPECT_THROW(texture->getDataRGBA8(dst), std::bad_alloc);
}

TEST_F(TextureGLTest, TexturesFromProcessorStorageCarryItsPixels) {
    ImageDataAdapterConfig::setManagingImageData(false);
    auto storage = static_ptr_cast<RawImageStorage>(
        (new RawImageStorage(6, 5, WeakSharedPtr<ImageTile>()))->setupSelfRef());
    auto src = pattern<unsigned short, 3>(6, 5);
    storage->setDataRGB16(src);

    auto texture = _renderer->createTexture(storage, DrawParameters(MM_OFF, IM_LINEAR, IM_LINEAR));
    ASSERT_TRUE(texture);
    EXPECT_EQ(texture->pixelFormat(), _renderer->isRenderable(PfRGB16) ? PfRGB16 : PfRGB16F);
    auto back = GenImageData<unsigned short, 3>::create(texture->texSize().x, texture->texSize().y);
    texture->getDataRGB16U(back);
    if (texture->pixelFormat() == PfRGB16) {
        EXPECT_EQ(maxDifference(*src, *back, 6, 5), 0);
    }

    auto rect = _renderer->createTextureRect(storage);
    ASSERT_TRUE(rect);
    EXPECT_EQ(rect->size(), Vec2i(6, 5));
    EXPECT_EQ(rect->texCoords(), Rectf(Vec2f(0, 0), Vec2f(6, 5)));
    storage.reset();
    ImageDataAdapterConfig::setManagingImageData(true);
}

TEST(TextureGLSettings, EnforcedReadBackAfterUploadKeepsThePixels) {
    QOR_REQUIRE_GL();
    Renderer::enforceReadbackAfterTextureDataUpload(true);
    {
        LogCapture quiet;
        ASSERT_TRUE(loadRenderer());
    }
    {
        LogCapture log;
        auto texture = renderer()->createTexture(Vec2i(9, 9), PfRGB32F, DrawParameters());
        auto src = pattern<float, 3>(9, 9);
        texture->setDataRGB(src);
        auto back = GenImageData<float, 3>::create(9, 9);
        texture->getDataRGB32F(back);
        EXPECT_EQ(maxDifference(*src, *back, 9, 9), 0);
        EXPECT_FALSE(log.contains("OpenGL error"));
    }
    LogCapture quiet;
    unloadRenderer();
    Renderer::enforceReadbackAfterTextureDataUpload(false);
}

}  // namespace
}  // namespace qor::gpu
