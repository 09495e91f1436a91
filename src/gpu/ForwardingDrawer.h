#pragma once
// ForwardingDrawer: the base of drawers that stand in front of another one (BatchDrawer,
// ColorManagementDrawer). Every operation goes on to the wrapped drawer, after beforeForward()
// for those that draw nothing themselves; a subclass overrides what it changes.
//
// Ownership: holds the wrapped drawer by SharedPtr. Thread contract: that of the wrapped drawer.

#include "gpu/Drawer.h"

namespace qor::gpu {

class ForwardingDrawer : public Drawer {
public:
    virtual void setDrawer(const SharedPtr<Drawer>& drawer) { _drawer = drawer; }
    const SharedPtr<Drawer>& drawer() const { return _drawer; }

    void begin() override;
    void end() override;
    void setClipping(const Recti& rect, bool enabled) override;
    void clear(float r, float g, float b, float a) override;
    void setViewport(const Recti& rect) override;
    void setOrtho(const Rectf& area, float zNear, float zFar) override;
    void readPixels(const Recti& rect, const ImageDataOut<unsigned char, 4>& data) override;
    QOR_DRAWER_DRAW_OVERRIDES

protected:
    explicit ForwardingDrawer(const SharedPtr<Drawer>& drawer = nullptr) : _drawer(drawer) {}
    // Runs before end, setClipping, clear, setViewport, setOrtho and readPixels go on.
    virtual void beforeForward() {}

    SharedPtr<Drawer> _drawer;
};

}  // namespace qor::gpu
