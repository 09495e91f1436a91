// The shared library libqor: every layer archive is linked in whole; this file only gives the
// library its own object.
#include "base/Version.h"

namespace qor {
const char* libraryName() { return "libqor"; }
}  // namespace qor
