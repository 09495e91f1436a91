#pragma once
// BatchDrawer: collects geometry in front of another drawer, so that many small shapes with the
// same ShadingState reach it as one draw. There are two batches, for 2- and 4-component texture
// coordinates; each holds points, texture coordinates, colours and indices of one state and one
// kind of primitive (triangles, or lines: line strips become line pairs).
//
// Order: a draw into one batch first flushes the other; a draw with another state or kind
// flushes its own batch first; every other operation (end, clipping, clear, viewport, ortho,
// readPixels) flushes both and then forwards. So what is drawn keeps its order.
//
// Ownership: holds the wrapped drawer by SharedPtr (setDrawer). Thread contract: that of the
// wrapped drawer, the GL thread.

#include "gpu/ForwardingDrawer.h"

namespace qor::gpu {

class BatchDrawer : public ForwardingDrawer {
public:
    BatchDrawer() = default;
    explicit BatchDrawer(const SharedPtr<Drawer>& drawer) : ForwardingDrawer(drawer) {}

    // Flushes what was collected for the drawer before.
    void setDrawer(const SharedPtr<Drawer>& drawer) override;

    // Asserts that both batches are empty and flushed; the wrapped drawer has begun already.
    void begin() override;

    QOR_DRAWER_DRAW_OVERRIDES

    // Hands both batches to the wrapped drawer: the 2-component one, then the 4-component one.
    void flushAll();

    // Points waiting in the batches.
    std::size_t pendingPoints() const {
        return _tex2dBatch._points.size() + _tex4dBatch._points.size();
    }

private:
    void beforeForward() override { flushAll(); }

    template <class TexCoord>
    struct Batch {
        Points _points;
        std::vector<TexCoord> _texCoords;  // parallel to _points, zero where a shape had none
        Colors _colors;                    // parallel to _points
        Indices _indices;
        ShadingState _state;
        Primitive _primitive = PrimTriangles;
        bool _hasTexCoords = false;
        bool _flushed = true;
    };

    template <class TexCoord, class Other>
    void append(Batch<TexCoord>& batch, Batch<Other>& other, Primitive primitive,
                const Points& points, const std::vector<TexCoord>& texCoords, const Colors& colors,
                const Indices* indices, const ShadingState& state);
    template <class TexCoord>
    void flush(Batch<TexCoord>& batch);

    Batch<Vec2f> _tex2dBatch;
    Batch<Vec4f> _tex4dBatch;
};

}  // namespace qor::gpu
