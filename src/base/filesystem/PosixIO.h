#pragma once
// Positioned reads and writes of a whole buffer on a POSIX file descriptor: they retry after EINTR
// and short transfers and move at most 1 GiB per system call. Thread-safe as pread/pwrite are (no
// shared file offset). Used by the file classes and the swap file of the memory manager.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace qor::filesystem {

// Reads up to `size` bytes at `offset`. Returns the number read, fewer only at the end of the
// file, or -1 with errno set.
ssize_t preadFull(int fd, void* buffer, size_t size, std::uint64_t offset);

// Writes all `size` bytes at `offset`. Returns false with errno set when that failed.
bool pwriteFull(int fd, const void* buffer, size_t size, std::uint64_t offset);

}  // namespace qor::filesystem
