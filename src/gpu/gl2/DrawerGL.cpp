#include "gpu/gl2/DrawerGL.h"

#include "base/Log.h"
#include "gpu/gl2/GLError.h"
#include "gpu/gl2/PixelStore.h"
#include "gpu/gl2/glw.h"

namespace qor::gpu {

void DrawerGL::begin() {
    _isRendering = true;
    glwEnableScissorTest(false);
    glwBlendMode(GL_ONE, GL_ZERO, GL_ONE, GL_ZERO);
    glwUseProgramObject(0);
}

void DrawerGL::end() {
    QOR_ASSERT_TEXT(_isRendering, "_isRendering");
    glwEnableScissorTest(false);
    _isRendering = false;
}

void DrawerGL::setClipping(const Recti& rect, bool enabled) {
    if (!enabled) {
        glwEnableScissorTest(false);
        return;
    }
    const bool ok = rect.xmin() >= 0 && rect.ymin() >= 0 && rect.width() >= 0 && rect.height() >= 0;
    QOR_ASSERT_TEXT(
        ok, "rect.xmin() >= 0 && rect.ymin() >= 0 && rect.width() >= 0 && rect.height() >= 0");
    if (!ok) return;
    glwEnableScissorTest(true);
    glwScissor(rect.xmin(), rect.ymin(), rect.width(), rect.height());
}

void DrawerGL::clear(float r, float g, float b, float a) {
    QOR_ASSERT_TEXT(_isRendering, "_isRendering");
    glwClearColor(r, g, b, a);
    glClear(GL_COLOR_BUFFER_BIT);
}

void DrawerGL::setViewport(const Recti& rect) {
    glwViewport(rect.xmin(), rect.ymin(), rect.width(), rect.height());
}

void DrawerGL::setOrtho(const Rectf& area, float zNear, float zFar) {
    glMatrixMode(GL_PROJECTION);
    glLoadIdentity();
    glOrtho(area.xmin(), area.xmax(), area.ymin(), area.ymax(), zNear, zFar);
    glMatrixMode(GL_MODELVIEW);
    glLoadIdentity();
}

void DrawerGL::readPixels(const Recti& rect, const ImageDataOut<unsigned char, 4>& data) {
    QOR_ASSERT_TEXT(data, "imageData");
    if (!data) return;
    const bool fits = data->width() >= rect.width() && data->height() >= rect.height();
    QOR_ASSERT_TEXT(fits, "imageData->width()>=rect.width() && imageData->height()>=rect.height()");
    if (!fits) return;
    PixelStoreScope pack(PixelStoreScope::Pack, int(data->stride() / 4));
    glReadPixels(rect.xmin(), rect.ymin(), rect.width(), rect.height(), GL_RGBA, GL_UNSIGNED_BYTE,
                 data->data());
    checkGLError(GLErrorCheck::Transfer);
}

}  // namespace qor::gpu
