#pragma once
// The operating-system facts the GPU layer asks for: the OS version its driver rules compare, and
// a probe of the process's address space. Any thread.

#include <cstddef>
#include <string>

namespace qor::gpu::detail {

// The OS version as the driver rules read it ("%d.%d.%d", the number with the major version in
// thousands). Those rules work around the drivers of particular systems: Windows XP (number /
// 1000 of 5), Vista and 7 (6), Mac OS X 10.7. Linux is none of them, so it gives one fixed answer
// that matches no rule, "0.0.0" and 0, never the kernel's version (a 5.x or 6.x kernel would
// otherwise be taken for one of those systems).
std::string osVersion();
int osVersionNumber();

// Reserves `bytes` of readable and writable address space and releases it at once, as the test
// that a large allocation has room. False when the reservation fails. Never touches the pages.
bool probeAddressSpace(std::size_t bytes);

}  // namespace qor::gpu::detail
