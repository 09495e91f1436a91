#pragma once
// The operating-system facts the GPU layer asks for: the running kernel's version (uname), and a
// probe of the process's address space. Any thread.

#include <cstddef>
#include <string>

namespace qor::gpu::detail {

// The kernel release as "major.minor.patch" ("6.1.0"), without the distribution's suffix.
std::string osVersion();
// The same as a number with the major version in thousands: "6.1.0" gives 6001.
int osVersionNumber();
// The number for a release text as osVersionNumber reads it; 0 when it does not start with a
// number.
int osVersionNumberOf(const std::string& release);

// Reserves `bytes` of readable and writable address space and releases it at once, as the test
// that a large allocation has room. False when the reservation fails. Never touches the pages.
bool probeAddressSpace(std::size_t bytes);

}  // namespace qor::gpu::detail
