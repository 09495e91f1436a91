#include "imageio/detail/Exiv2Setup.h"

#include <exiv2/error.hpp>
#include <exiv2/version.hpp>
#include <exiv2/xmp_exiv2.hpp>
#include <mutex>
#include <string_view>

#include "base/Log.h"

namespace qor::imageio::detail {

namespace {

// Guards the XMP toolkit's namespace registry. Recursive, as the toolkit may register a namespace
// while another registration of the same thread is under way.
std::recursive_mutex& xmpMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

void xmpLock(void* data, bool lock) {
    auto* mutex = static_cast<std::recursive_mutex*>(data);
    if (lock)
        mutex->lock();
    else
        mutex->unlock();
}

void exiv2Message(int level, const char* message) {
    std::string_view text = message ? message : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    QOR_LOG(level >= Exiv2::LogMsg::warn ? LogDebug : LogTrace, "Exiv2: %*", text);
}

}  // namespace

void ensureExiv2Initialized() {
    static std::once_flag once;
    std::call_once(once, [] {
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::warn);
        Exiv2::LogMsg::setHandler(exiv2Message);
        try {
            if (!Exiv2::XmpParser::initialize(xmpLock, &xmpMutex()))
                QOR_LOG(LogError, "Exiv2: the XMP toolkit failed to initialise");
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "Exiv2: the XMP toolkit failed to initialise: %*", e.what());
        }
    });
}

std::unique_ptr<Exiv2::Image> openExiv2Image(std::unique_ptr<Exiv2::BasicIo> io) {
#if EXIV2_TEST_VERSION(0, 28, 0)
    return Exiv2::ImageFactory::open(std::move(io));
#else
    // open() takes the source as Exiv2 0.27's std::auto_ptr typedef: the one place that names it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Exiv2::BasicIo::AutoPtr source(io.release());
#pragma GCC diagnostic pop
    return std::unique_ptr<Exiv2::Image>(Exiv2::ImageFactory::open(source).release());
#endif
}

std::unique_ptr<Exiv2::Image> openExiv2Image(const uint8_t* data, size_t size) {
    auto image = Exiv2::ImageFactory::open(data, static_cast<long>(size));
    return std::unique_ptr<Exiv2::Image>(image.release());
}

}  // namespace qor::imageio::detail
