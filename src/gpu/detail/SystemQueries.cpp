#include "gpu/detail/SystemQueries.h"

#include <sys/mman.h>
#include <sys/utsname.h>

#include "text/TextUtils.h"

namespace qor::gpu::detail {

namespace {

std::string kernelRelease() {
    utsname info{};
    if (uname(&info) != 0) return std::string();
    return info.release;
}

}  // namespace

std::string osVersion() {
    const std::string release = kernelRelease();
    size_t end = 0;
    while (end < release.size() &&
           ((release[end] >= '0' && release[end] <= '9') || release[end] == '.'))
        ++end;
    return release.substr(0, end);
}

int osVersionNumberOf(const std::string& release) {
    const size_t dot = release.find('.');
    int major = 0, minor = 0;
    if (!text::tryStrtoi(std::string_view(release).substr(0, dot), major)) return 0;
    if (dot != std::string::npos) {
        std::string_view rest = std::string_view(release).substr(dot + 1);
        size_t end = 0;
        while (end < rest.size() && rest[end] >= '0' && rest[end] <= '9') ++end;
        minor = text::strtoi(rest.substr(0, end), 0);
    }
    return major * 1000 + minor;
}

int osVersionNumber() { return osVersionNumberOf(osVersion()); }

bool probeAddressSpace(std::size_t bytes) {
    if (bytes == 0) return true;
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) return false;
    munmap(p, bytes);
    return true;
}

}  // namespace qor::gpu::detail
