#pragma once

namespace qor {

// The library's version, "major.minor.patch".
const char* version();

}  // namespace qor
