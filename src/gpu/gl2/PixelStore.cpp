#include "gpu/gl2/PixelStore.h"

namespace qor::gpu {

PixelStoreScope::PixelStoreScope(Direction direction, int rowLength)
    : _names{direction == Pack ? GLenum(GL_PACK_ALIGNMENT) : GLenum(GL_UNPACK_ALIGNMENT),
             direction == Pack ? GLenum(GL_PACK_ROW_LENGTH) : GLenum(GL_UNPACK_ROW_LENGTH),
             direction == Pack ? GLenum(GL_PACK_SKIP_ROWS) : GLenum(GL_UNPACK_SKIP_ROWS),
             direction == Pack ? GLenum(GL_PACK_SKIP_PIXELS) : GLenum(GL_UNPACK_SKIP_PIXELS)} {
    for (int i = 0; i < Count; ++i) glGetIntegerv(_names[i], &_saved[i]);
    const GLint wanted[Count] = {1, rowLength, 0, 0};
    for (int i = 0; i < Count; ++i)
        if (_saved[i] != wanted[i]) glPixelStorei(_names[i], wanted[i]);
}

PixelStoreScope::~PixelStoreScope() {
    for (int i = 0; i < Count; ++i) glPixelStorei(_names[i], _saved[i]);
}

}  // namespace qor::gpu
