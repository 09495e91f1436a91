#pragma once
// The extension of a path as the load roads and the item lists compare it.

#include <string>
#include <string_view>

#include "text/FastString.h"

namespace qor::imageio::detail {

// The extension of the last path element with its dot, upper-cased character by character
// (ASCII); empty when that element has no dot.
inline FastString<char> upperExtension(const FastString<char>& path) {
    const std::string_view p = path.view();
    const size_t dot = p.rfind('.');
    const size_t slash = p.find_last_of("/\\");
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash))
        return FastString<char>();
    std::string extension(p.substr(dot));
    for (char& c : extension)
        if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
    return FastString<char>(std::move(extension));
}

}  // namespace qor::imageio::detail
