#include "imageio/detail/FfmpegCalls.h"

#include <memory>
#include <string>
#include <vector>

#include "imageio/detail/SharedLibraries.h"

namespace qor::imageio::detail {

namespace {

std::unique_ptr<FfmpegCalls> openFfmpeg() {
    auto libraries = std::make_unique<SharedLibraries>(
        std::vector<std::string>{kAvcodecLibrary, kAvformatLibrary});
    if (!libraries->open()) return nullptr;
    auto calls = std::make_unique<FfmpegCalls>();
    bool found = true;
#define QOR_FFMPEG_RESOLVE(name) found = libraries->resolve(calls->name, #name) && found;
    QOR_FFMPEG_FUNCTIONS(QOR_FFMPEG_RESOLVE)
#undef QOR_FFMPEG_RESOLVE
    if (!found) return nullptr;
    // Never closed: a thread of the application may still be in a video when the process exits.
    libraries.release();
    return calls;
}

}  // namespace

const FfmpegCalls* ffmpegCalls() {
    // Initialised once, thread-safely, by the first caller; a failure stays null.
    static const std::unique_ptr<FfmpegCalls> calls = openFfmpeg();
    return calls.get();
}

}  // namespace qor::imageio::detail
