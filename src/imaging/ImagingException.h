#pragma once
// ImagingException: the failure of a tile computation, as it reaches whoever asked for the tiles.
// It carries a type (what kind of failure), a message and the source file that raised it, and can
// be cloned and thrown again on another thread.
//
// The two exceptions of higher layers that tile jobs translate (a render target failure of the GPU
// layer, a file that cannot be read of the image I/O layer) are declared here, below both, so that
// the jobs can catch them; their layers throw them.

#include <string>

#include "base/Exception.h"
#include "text/FastString.h"

namespace qor::imaging {

class ImagingException : public CloneableException<ImagingException> {
public:
    enum Type : int {
        TypeUnknown = 0,
        TypeIO = 1,
        TypeGPU = 2,
        TypeRendering = 3,
        TypeOutOfMemory = 4,
    };

    explicit ImagingException(Type type = TypeUnknown, std::string message = std::string(),
                              std::string file = std::string())
        : CloneableException<ImagingException>(std::move(message)),
          _type(type),
          _file(std::move(file)) {}

    Type type() const { return _type; }
    const std::string& file() const { return _file; }

    // "Unknown", "IO", "GPU error", "Rendering error", "Out of memory"; "Unknown" for other values.
    static const char* typeWords(Type type);

private:
    Type _type;
    std::string _file;
};

}  // namespace qor::imaging

namespace qor::gpu {
// A render target could not be made or used.
class RenderTargetException : public CloneableException<RenderTargetException> {
public:
    using CloneableException<RenderTargetException>::CloneableException;
};
}  // namespace qor::gpu

namespace qor::imageio {
// An image file could not be read.
class ImageLoaderException : public CloneableException<ImageLoaderException> {
public:
    using CloneableException<ImageLoaderException>::CloneableException;
};
}  // namespace qor::imageio
