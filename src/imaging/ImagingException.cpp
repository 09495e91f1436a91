#include "imaging/ImagingException.h"

namespace qor::imaging {

const char* ImagingException::typeWords(Type type) {
    switch (type) {
        case TypeIO: return "IO";
        case TypeGPU: return "GPU error";
        case TypeRendering: return "Rendering error";
        case TypeOutOfMemory: return "Out of memory";
        default: return "Unknown";
    }
}

}  // namespace qor::imaging
