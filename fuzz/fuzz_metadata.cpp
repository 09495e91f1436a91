// libFuzzer target: the metadata reader (Exiv2 and our mapping into Metadata) on a file in memory.

#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "imageio/MetadataReader.h"

using namespace qor;
using namespace qor::imageio;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    SharedPtr<Metadata> metadata = readMetadata(data, size);
    if (metadata) {
        // The thumbnail offset must point into the data, at a JPEG start.
        const long at = metadata->thumbLocation();
        if (at < 0 ||
            (at > 0 && (uint64_t(at) + 2 > size || data[at] != 0xFF || data[at + 1] != 0xD8)))
            std::abort();
        (void)metadata->size();
    }
    return 0;
}
