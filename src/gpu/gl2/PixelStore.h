#pragma once
// PixelStoreScope: sets GL's pixel store for one transfer (alignment 1, a row length, no skips)
// and restores what was there when it ends, also when the transfer throws. GL thread only.

#include <epoxy/gl.h>

namespace qor::gpu {

class PixelStoreScope {
public:
    enum Direction { Pack, Unpack };

    // `rowLength` in pixels; 0 means rows as wide as the transfer.
    PixelStoreScope(Direction direction, int rowLength);
    ~PixelStoreScope();
    PixelStoreScope(const PixelStoreScope&) = delete;
    PixelStoreScope& operator=(const PixelStoreScope&) = delete;

private:
    static constexpr int Count = 4;
    GLenum _names[Count];
    GLint _saved[Count] = {0, 0, 0, 0};
};

}  // namespace qor::gpu
