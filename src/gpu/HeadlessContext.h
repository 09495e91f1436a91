#pragma once
// A GL context without a window: EGL on the surfaceless platform (Mesa's llvmpipe where there is
// no GPU), current on the calling thread, which should then become the GL thread. For tools and
// tests; an application brings its own context.
//
// Thread contract: call on the thread that is to use GL. The context lives until the process
// ends.

#include <string>

namespace qor::gpu {

struct HeadlessContext {
    void* display = nullptr;
    void* context = nullptr;
};

// Makes a compatibility context (3.0 where offered, else the default) current on this thread.
// False with the reason in `why` when EGL gives none.
bool createHeadlessContext(HeadlessContext& out, std::string& why);

}  // namespace qor::gpu
