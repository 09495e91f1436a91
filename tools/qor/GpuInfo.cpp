// qor gpuinfo: what the GPU layer finds on this machine, through a headless GL context.

#include <cstdio>
#include <string>
#include <vector>

#include "Commands.h"
#include "gpu/HeadlessContext.h"
#include "gpu/Renderer.h"
#include "gpu/gl2/RendererGL.h"

namespace qor::tool {

int runGpuInfo(const std::vector<std::string>& args) {
    if (!args.empty()) return usageError("gpuinfo takes no arguments");
    gpu::HeadlessContext context;
    std::string why;
    if (!gpu::createHeadlessContext(context, why)) {
        std::printf("no usable GL context: %s\n", why.c_str());
        return 0;
    }
    // The renderer's start-up report goes to the library's log, shown with -v.
    const bool loaded = gpu::loadRenderer();
    auto* r = dynamic_cast<gpu::RendererGL*>(gpu::renderer().get());
    if (!loaded || !r) {
        std::printf("no usable GL context: the renderer could not be loaded\n");
        return 0;
    }
    std::printf("renderer:             %s\n", r->rendererString().c_str());
    std::printf("version:              %s (GL %d.%d, GLSL %s)\n", r->versionString().c_str(),
                r->glMajor(), r->glMinor(), r->glslVersion().c_str());
    std::printf("system info bits:     0x%08x\n", r->systemInfoBits());
    std::printf("texture capabilities: 0x%08x\n", r->textureCapabilities());
    std::printf("max texture size:     %d x %d\n", r->maxTextureSize().x, r->maxTextureSize().y);
    const gpu::GPUMemoryInfo memory = r->memoryInfo();
    if (memory.known)
        std::printf("free texture memory:  %llu MiB\n",
                    static_cast<unsigned long long>(memory.freeBytes >> 20));
    std::printf("uniqueId:             %s\n", r->uniqueId().c_str());
    gpu::unloadRenderer();
    return 0;
}

}  // namespace qor::tool
