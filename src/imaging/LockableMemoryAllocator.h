#pragma once

// The lockable allocator interface, for image code. The types live in the base layer, where the
// pool allocator builds on them; image code names them through qor::imaging.

#include "base/memory/LockableMemoryAllocator.h"

namespace qor::imaging {

using memory::LockableMemoryAllocator;
using memory::LockableMemoryHandle;
using memory::StackedLockableMemoryAllocator;
using memory::StackedMemoryHandle;

}  // namespace qor::imaging
