#include "SaveImage.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>

#include "Commands.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageSaver.h"

namespace qor::tool {

namespace {

volatile std::sig_atomic_t gSaveInterrupted = 0;
extern "C" void onSaveInterrupt(int) { gSaveInterrupted = 1; }

std::string lowerExtension(const std::string& path) {
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos || path.find('/', dot) != std::string::npos) return "";
    std::string ext = path.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return ext;
}

}  // namespace

bool savableExtension(const std::string& path) {
    const std::string ext = lowerExtension(path);
    return ext == "jpg" || ext == "jpeg" || ext == "tif" || ext == "tiff" || ext == "exr";
}

int saveImage(const SharedPtr<imaging::Image>& image, const std::string& path,
              const SaveOptions& options) {
    const std::string ext = lowerExtension(path);
    std::unique_ptr<imageio::IImageSaver> saver;
    imaging::RawPixelFormat format = imaging::PfRGB8;
    if (ext == "jpg" || ext == "jpeg") {
        auto jpeg = std::make_unique<imageio::ImageSaverJPEG>();
        jpeg->setCompression(options.quality);
        saver = std::move(jpeg);
    } else if (ext == "tif" || ext == "tiff") {
        auto tiff = std::make_unique<imageio::ImageSaverTIFF>();
        tiff->setUseLZW(true);
        saver = std::move(tiff);
        // The image's own depth: 8-bit pictures stay 8-bit, deeper ones keep 16 bits.
        format = imaging::getBitsPerChannel(image->pixelFormat()) > 8 ? imaging::PfRGB16
                                                                      : imaging::PfRGB8;
    } else if (ext == "exr") {
        saver = std::make_unique<imageio::ImageSaverOpenEXR>();
        format = imaging::PfRGBA16F;
    } else {
        std::fprintf(stderr, "qor: %s: cannot write '%s': use .jpg, .tif or .exr\n",
                     options.command, path.c_str());
        return 1;
    }
    if (options.profile) saver->setICCProfile(options.profile);

    imageio::ImageSaver imageSaver(image, saver.get());
    gSaveInterrupted = 0;
    void (*previous)(int) = std::signal(SIGINT, onSaveInterrupt);
    // The saving thread runs the module; this one draws and watches for Ctrl-C.
    auto saving = std::async(std::launch::async,
                             [&] { imageSaver.save(imageio::ImageSaver::String(path), format); });
    const bool bar = isatty(STDERR_FILENO) != 0;
    const unsigned total = unsigned(image->height());
    bool interrupted = false;
    while (saving.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        if (bar) drawProgressBar(imageSaver.rowsWritten(), total, "rows", false);
        if (gSaveInterrupted && !interrupted) {
            interrupted = true;
            imageSaver.cancel();
        }
    }
    std::signal(SIGINT, previous);
    try {
        saving.get();
    } catch (const std::exception& e) {
        if (bar) std::fputc('\n', stderr);
        std::fprintf(stderr, "qor: %s: saving '%s' failed: %s\n", options.command, path.c_str(),
                     e.what());
        return 1;
    }
    if (bar) drawProgressBar(imageSaver.rowsWritten(), total, "rows", true);
    if (imageSaver.status() == imageio::ImageSaver::SaveCancelled) {
        std::fprintf(stderr, "qor: %s: interrupted after %u of %u rows; nothing written\n",
                     options.command, imageSaver.rowsWritten(), total);
        return 130;
    }
    return 0;
}

}  // namespace qor::tool
