#pragma once
// One-time set-up of Exiv2 for the whole process, shared by every imageio user of Exiv2.

namespace qor::imageio::detail {

// Initialises the XMP toolkit with a lock of ours, so that namespace registration during parsing is
// serialised, and routes Exiv2's own messages into our log at debug level (warnings and errors)
// and trace level (anything below). The first call does the work; later calls return at once, and
// concurrent first calls wait for it. Call before any use of Exiv2. Never throws.
void ensureExiv2Initialized();

}  // namespace qor::imageio::detail
