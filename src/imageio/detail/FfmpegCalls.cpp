#include "imageio/detail/FfmpegCalls.h"

#include <memory>
#include <string>
#include <vector>

#include "imageio/detail/SharedLibraries.h"

namespace qor::imageio::detail {

namespace {

// The libraries, never closed: a thread of the application may still be in a video or a resize
// while the process exits. Held by a static so that leak checkers see them.
SharedLibraries& neverClosed(std::vector<std::string> names) {
    return *new SharedLibraries(std::move(names));
}

}  // namespace

const ScalerCalls* scalerCalls() {
    // Both initialised once, thread-safely, by the first caller; a failure stays null.
    static SharedLibraries& libraries = neverClosed({kAvutilLibrary, kSwscaleLibrary});
    static const std::unique_ptr<ScalerCalls> calls = [] {
        auto table = std::make_unique<ScalerCalls>();
        bool found = libraries.open();
#define QOR_FFMPEG_RESOLVE(name) found = found && libraries.resolve(table->name, #name);
        QOR_SCALER_FUNCTIONS(QOR_FFMPEG_RESOLVE)
        return found ? std::move(table) : nullptr;
    }();
    return calls.get();
}

const FfmpegCalls* ffmpegCalls() {
    static SharedLibraries& libraries =
        neverClosed({kAvutilLibrary, kSwscaleLibrary, kAvcodecLibrary, kAvformatLibrary});
    static const std::unique_ptr<FfmpegCalls> calls = [] {
        auto table = std::make_unique<FfmpegCalls>();
        bool found = libraries.open();
        QOR_FFMPEG_FUNCTIONS(QOR_FFMPEG_RESOLVE)
#undef QOR_FFMPEG_RESOLVE
        return found ? std::move(table) : nullptr;
    }();
    return calls.get();
}

}  // namespace qor::imageio::detail
