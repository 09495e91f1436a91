#include "imageio/detail/FfmpegCalls.h"

#include <memory>
#include <string>
#include <vector>

#include "imageio/detail/SharedLibraries.h"

namespace qor::imageio::detail {

namespace {

std::unique_ptr<FfmpegCalls> resolveAll(SharedLibraries& libraries) {
    if (!libraries.open()) return nullptr;
    auto calls = std::make_unique<FfmpegCalls>();
    bool found = true;
#define QOR_FFMPEG_RESOLVE(name) found = libraries.resolve(calls->name, #name) && found;
    QOR_FFMPEG_FUNCTIONS(QOR_FFMPEG_RESOLVE)
#undef QOR_FFMPEG_RESOLVE
    return found ? std::move(calls) : nullptr;
}

}  // namespace

const FfmpegCalls* ffmpegCalls() {
    // Both initialised once, thread-safely, by the first caller; a failure stays null. The
    // libraries are never closed: a thread of the application may still be in a video while the
    // process exits.
    static SharedLibraries& libraries =
        *new SharedLibraries(std::vector<std::string>{kAvcodecLibrary, kAvformatLibrary});
    static const std::unique_ptr<FfmpegCalls> calls = resolveAll(libraries);
    return calls.get();
}

}  // namespace qor::imageio::detail
