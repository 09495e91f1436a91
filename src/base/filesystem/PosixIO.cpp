#include "base/filesystem/PosixIO.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace qor::filesystem {

namespace {
constexpr size_t kMaxChunk = size_t(1) << 30;
}  // namespace

ssize_t preadFull(int fd, void* buffer, size_t size, std::uint64_t offset) {
    char* out = static_cast<char*>(buffer);
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::pread(fd, out + done, std::min(size - done, kMaxChunk),
                            static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool pwriteFull(int fd, const void* buffer, size_t size, std::uint64_t offset) {
    const char* in = static_cast<const char*>(buffer);
    size_t done = 0;
    while (done < size) {
        ssize_t n = ::pwrite(fd, in + done, std::min(size - done, kMaxChunk),
                             static_cast<off_t>(offset + done));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            errno = EIO;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace qor::filesystem
