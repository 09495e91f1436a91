#include "gpu/detail/SystemQueries.h"

#include <sys/mman.h>

namespace qor::gpu::detail {

std::string osVersion() { return "0.0.0"; }

int osVersionNumber() { return 0; }

bool probeAddressSpace(std::size_t bytes) {
    if (bytes == 0) return true;
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) return false;
    munmap(p, bytes);
    return true;
}

}  // namespace qor::gpu::detail
