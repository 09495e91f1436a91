#pragma once
// ColorManagementDrawer: puts the colour management program (shaders/filters/ColorManagement)
// in front of another drawer. Every shape drawn through it samples its sources with that
// program: source 0 through the shape's texture coordinates, the others mapped from those, laid
// over each other by alpha, and converted through a 3D lookup table of a colour transform.
//
// Use: setDrawer, setTransform (none: colours stay as they are), setup(image) for source 0 and
// setSource for more, reloadShader after a change of the number of sources or of the transform;
// then draw. The table is a cubeSize^3 grid of the transform (ColorTransform::lookupTable3D),
// packed into a 2D float texture and interpolated trilinearly.
//
// Ownership: holds the wrapped drawer, the program, the sources and the table texture by
// SharedPtr. Thread contract: GL thread only (it makes the program and the table texture).

#include "gpu/ForwardingDrawer.h"

namespace qor::imaging {
class ColorTransform;
}

namespace qor::gpu {

class ColorManagementDrawer : public ForwardingDrawer {
public:
    static constexpr int MaxSources = 4;
    static constexpr int DefaultCubeSize = 33;

    ColorManagementDrawer() = default;

    // The transform the table is made from, with `cubeSize` grid points an axis; null for none.
    // Takes effect at the next reloadShader.
    void setTransform(const SharedPtr<const imaging::ColorTransform>& transform,
                      int cubeSize = DefaultCubeSize);
    // Source `index` (1 .. MaxSources - 1): its texture coordinates are those of source 0 times
    // `scale` plus `trans`. Takes effect at the next reloadShader.
    void setSource(int index, const SharedPtr<Texture>& texture, const Vec2f& scale,
                   const Vec2f& trans);
    // Builds the program for the sources set and uploads the table. Throws what createShader
    // throws; asserts "_shader".
    void reloadShader();
    // Makes `image` source 0, drawn through the shapes' texture coordinates. Asserts "_drawer &&
    // _shader && image".
    void setup(const SharedPtr<Texture>& image);

    const SharedPtr<Shader>& shader() const { return _shader; }

    // Asserts "_shader".
    void begin() override;
    // Each asserts "_drawer && _shader", and draws with the program in the state.
    QOR_DRAWER_DRAW_OVERRIDES

private:
    struct Source {
        SharedPtr<Texture> texture;
        Vec2f scale{1, 1};
        Vec2f trans{0, 0};
    };

    // The state to draw with: this program, and source 0 as the texture.
    ShadingState withShader(const ShadingState& state) const;
    void setSourceUniforms(int index);
    void setUniformIfActive(const std::string& name, const Vec2f& value);
    void uploadTable();

    SharedPtr<Shader> _shader;
    std::vector<Source> _sources = std::vector<Source>(1);
    SharedPtr<const imaging::ColorTransform> _transform;
    int _cubeSize = DefaultCubeSize;
    SharedPtr<Texture> _table;
};

}  // namespace qor::gpu
