#pragma once
// One-time set-up of Exiv2 for the whole process, and the opening of images, shared by every
// imageio user of Exiv2.

#include <cstddef>
#include <cstdint>
#include <exiv2/basicio.hpp>
#include <exiv2/image.hpp>
#include <memory>

namespace qor::imageio::detail {

// Initialises the XMP toolkit with a lock of ours, so that namespace registration during parsing is
// serialised, and routes Exiv2's own messages into our log at debug level (warnings and errors)
// and trace level (anything below). The first call does the work; later calls return at once, and
// concurrent first calls wait for it. Call before any use of Exiv2. Never throws.
void ensureExiv2Initialized();
// The image that Exiv2 finds in `io`, which it takes over; null when Exiv2 knows no format in it.
// Exiv2 0.27 hands images out through std::auto_ptr typedefs (AutoPtr); from here on they are held
// in std::unique_ptr. Throws Exiv2::Error.
std::unique_ptr<Exiv2::Image> openExiv2Image(std::unique_ptr<Exiv2::BasicIo> io);
// The same over `size` bytes in memory, which Exiv2 copies.
std::unique_ptr<Exiv2::Image> openExiv2Image(const uint8_t* data, size_t size);

}  // namespace qor::imageio::detail
