// Makes a headless GL context, loads the renderer and prints what it found.
//   example_gpu_query
#include <cstdio>
#include <string>

#include "base/Log.h"
#include "gpu/HeadlessContext.h"
#include "gpu/Renderer.h"
#include "gpu/gl2/RendererGL.h"

int main() {
    using namespace qor;
    qor::setLogLevel(qor::LogWarning);  // the library's own log: warnings and errors only
    gpu::HeadlessContext context;
    std::string why;
    // An application makes its own context current instead; this one needs no window.
    if (!gpu::createHeadlessContext(context, why)) {
        std::printf("no GL context: %s\n", why.c_str());
        return 1;
    }
    // False means: run without a GPU, as every image source can.
    if (!gpu::loadRenderer()) {
        std::printf("no usable renderer\n");
        return 1;
    }
    auto* gl = dynamic_cast<gpu::RendererGL*>(gpu::renderer().get());
    std::printf("%s, OpenGL %d.%d, textures up to %d x %d\n", gl->rendererString().c_str(),
                gl->glMajor(), gl->glMinor(), gl->maxTextureSize().x, gl->maxTextureSize().y);
    gpu::unloadRenderer();
    return 0;
}
