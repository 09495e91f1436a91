#pragma once
// Test hooks of the OpenGL layer: they exist only in builds with QOR_TESTING, and change nothing
// until a test sets them. GL thread only, like the code they reach into.

#ifdef QOR_TESTING

#include <cstdint>

#include "gpu/gl2/GLError.h"

namespace qor::gpu::testing {

// The next `times` error checks at `site` report `error`, whatever GL says: TextureAllocation
// is the check after glTexImage2D in the texture cache, Transfer the one after an upload or a
// read-back of texture data, ShaderLink the one after a shader program is linked.
void simulateGLError(GLErrorCheck site, GLenum error, int times);
// Drops every pending simulated error.
void clearSimulatedGLErrors();

// The next `times` address-space probes before a texture allocation fail.
void failAddressSpaceProbes(int times);

// The next `times` completeness checks of a framebuffer object report it unsupported.
void failFramebufferChecks(int times);

// While on, textures are made as on a driver without edge clamping: with a border texel around
// the image.
void forceBorderTexels(bool on);

// Real GL calls that glw has made so far.
std::uint64_t glwCallCount();

}  // namespace qor::gpu::testing

#endif
