#include "gpu/ColorManagementDrawer.h"

#include <algorithm>

#include "base/Log.h"
#include "imaging/ColorTransform.h"

namespace qor::gpu {

using namespace imaging;

void ColorManagementDrawer::setTransform(const SharedPtr<const ColorTransform>& transform,
                                         int cubeSize) {
    QOR_ASSERT_TEXT(cubeSize >= 2, "cubeSize >= 2");
    _transform = transform;
    _cubeSize = std::max(cubeSize, 2);
    _table.reset();
}

void ColorManagementDrawer::setSource(int index, const SharedPtr<Texture>& texture,
                                      const Vec2f& scale, const Vec2f& trans) {
    const bool ok = index >= 1 && index < MaxSources;
    QOR_ASSERT_TEXT(ok, "index >= 1 && index < MaxSources");
    if (!ok) return;
    if (int(_sources.size()) <= index) _sources.resize(std::size_t(index) + 1);
    _sources[std::size_t(index)] = Source{texture, scale, trans};
}

void ColorManagementDrawer::uploadTable() {
    SharedPtr<Renderer> r = renderer();
    if (!r || !_transform || _table) return;
    const int n = _cubeSize;
    const std::vector<float> cube = _transform->lookupTable3D(n);
    // Slice b of the cube at columns b * n .. b * n + n - 1.
    auto packed = GenImageData<float, 3>::create(n * n, n);
    for (int b = 0; b < n; ++b)
        for (int g = 0; g < n; ++g)
            for (int red = 0; red < n; ++red)
                for (int c = 0; c < 3; ++c)
                    packed->at(b * n + red, g, c) =
                        cube[((std::size_t(b) * n + g) * n + red) * 3 + c];
    _table =
        r->createTexture(Vec2i(n * n, n), PfRGB32F, DrawParameters(MM_OFF, IM_LINEAR, IM_LINEAR));
    if (_table->pixelFormat() != PfRGB32F || _table->getDrawParameters().mag != IM_LINEAR)
        QOR_LOG(LogWarning,
                "ColorManagementDrawer: the driver has no filtered float textures; the table "
                "is made as %*",
                pixelFormatString(_table->pixelFormat()));
    _table->setDataRGB(packed);
}

void ColorManagementDrawer::reloadShader() {
    SharedPtr<Renderer> r = renderer();
    QOR_ASSERT_TEXT(r, "renderer()");
    if (!r) return;
    uploadTable();
    const int count = int(_sources.size());
    std::string defines = formatLog("#define SOURCECOUNT %*\n#define MODE 1\n", count);
    if (_table) defines += "#define PACKED_DATA 1\n";
    _shader = r->createShader("filters/ColorManagement", defines);
    QOR_ASSERT_TEXT(_shader, "_shader");
    if (!_shader) return;
    for (int i = 0; i < count; ++i) {
        const int texture = _shader->uniformIndex(formatLog("S%*", i));
        if (texture >= 0 && _sources[std::size_t(i)].texture)
            _shader->setUniform(texture, _sources[std::size_t(i)].texture);
        setSourceUniforms(i);
    }
    if (_table) {
        const float n = float(_cubeSize);
        _shader->setUniform(_shader->uniformIndex("lut"), _table);
        _shader->setUniform(
            _shader->uniformIndex("packparams"),
            Vec4f(n, 1.0f / float(_table->texSize().x), 1.0f / float(_table->texSize().y), 0.0f));
        _shader->setUniform(_shader->uniformIndex("cubesamples"), n);
    }
}

void ColorManagementDrawer::setUniformIfActive(const std::string& name, const Vec2f& value) {
    // A compiler may drop what the program does not use; that is no fault.
    const int index = _shader->uniformIndex(name);
    if (index >= 0) _shader->setUniform(index, value);
}

void ColorManagementDrawer::setSourceUniforms(int i) {
    const Source& source = _sources[std::size_t(i)];
    Vec2f delta(1, 1), res(1, 1);
    if (source.texture) {
        const Vec2i texSize = source.texture->texSize();
        delta = Vec2f(1.0f / float(texSize.x), 1.0f / float(texSize.y));
        const Rectf coords = source.texture->texCoords();
        res = Vec2f(coords.xmax(), coords.ymax());
    }
    setUniformIfActive(formatLog("source_scale[%*]", i), source.scale);
    setUniformIfActive(formatLog("source_trans[%*]", i), source.trans);
    setUniformIfActive(formatLog("source_delta[%*]", i), delta);
    setUniformIfActive(formatLog("source_res[%*]", i), res);
}

void ColorManagementDrawer::setup(const SharedPtr<Texture>& image) {
    const bool ok = _drawer && _shader && image;
    QOR_ASSERT_TEXT(ok, "_drawer && _shader && image");
    if (!ok) return;
    _sources[0] = Source{image, Vec2f(1, 1), Vec2f(0, 0)};
    const int texture = _shader->uniformIndex("S0");
    if (texture >= 0) _shader->setUniform(texture, image);
    setSourceUniforms(0);
}

ShadingState ColorManagementDrawer::withShader(const ShadingState& state) const {
    ShadingState s = state;
    s.shader = _shader;
    s.texture = _sources[0].texture;
    return s;
}

void ColorManagementDrawer::begin() {
    QOR_ASSERT_TEXT(_shader, "_shader");
    ForwardingDrawer::begin();
}

#define QOR_CM_CHECK()                            \
    const bool ready = _drawer && _shader;        \
    QOR_ASSERT_TEXT(ready, "_drawer && _shader"); \
    if (!ready) return

void ColorManagementDrawer::drawArray(Primitive primitive, const Points& points,
                                      const TexCoords2& texCoords, const Colors& colors,
                                      const ShadingState& state) {
    QOR_CM_CHECK();
    _drawer->drawArray(primitive, points, texCoords, colors, withShader(state));
}

void ColorManagementDrawer::drawArray(Primitive primitive, const Points& points,
                                      const TexCoords4& texCoords, const Colors& colors,
                                      const ShadingState& state) {
    QOR_CM_CHECK();
    _drawer->drawArray(primitive, points, texCoords, colors, withShader(state));
}

void ColorManagementDrawer::drawIndices(Primitive primitive, const Points& points,
                                        const TexCoords2& texCoords, const Colors& colors,
                                        const Indices& indices, const ShadingState& state) {
    QOR_CM_CHECK();
    _drawer->drawIndices(primitive, points, texCoords, colors, indices, withShader(state));
}

void ColorManagementDrawer::drawIndices(Primitive primitive, const Points& points,
                                        const TexCoords4& texCoords, const Colors& colors,
                                        const Indices& indices, const ShadingState& state) {
    QOR_CM_CHECK();
    _drawer->drawIndices(primitive, points, texCoords, colors, indices, withShader(state));
}

#undef QOR_CM_CHECK

}  // namespace qor::gpu
