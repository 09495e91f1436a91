#include "imageio/ImageLogPng.h"

#include <memory>
#include <stdexcept>

#include "base/filesystem/AtomicFileWriter.h"
#include "imageio/PngMemoryEncoder.h"

namespace qor::imageio {

void PngImageLogWriter::write(const std::string& path, const imaging::ImageLogPicture& picture) {
    std::string bytes, failure;
    // A log is written while the engine runs and looked at once: the fastest level.
    if (!encodePngRgba(picture, 1, &bytes, &failure)) throw std::runtime_error(failure);
    filesystem::writeFileAtomically(path, bytes, false);
}

void installImageLogPngWriter() {
    imaging::ImageLog::setWriter(std::make_shared<PngImageLogWriter>());
}

namespace {

// When the library is loaded: the writer first, then the log if the environment asks for it.
[[maybe_unused]] const bool gInstalledAtLoad = [] {
    installImageLogPngWriter();
    imaging::ImageLog::startFromEnvironment();
    return true;
}();

}  // namespace

}  // namespace qor::imageio
