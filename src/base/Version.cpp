#include "base/Version.h"

namespace qor {

const char* version() { return "0.1.0"; }

}  // namespace qor
