#pragma once
// The extension of a path as the load roads and the item lists compare it, and the camera raw
// extensions that both the raw item list and the raw decoder go by.

#include <array>
#include <string>
#include <string_view>

#include "text/FastString.h"

namespace qor::imageio::detail {

// The camera raw extensions, upper case with the dot.
inline constexpr std::array<std::string_view, 34> RawExtensions = {
    ".3FR", ".ARI", ".ARW", ".SRF", ".SR2", ".BAY", ".CRW", ".CR2", ".CAP", ".IIQ", ".EIP", ".DCS",
    ".DCR", ".DRF", ".K25", ".KDC", ".DNG", ".ERF", ".FFF", ".MEF", ".MOS", ".MRW", ".NEF", ".NRW",
    ".ORF", ".PTX", ".PXN", ".R3D", ".RAF", ".RAW", ".RW2", ".RWL", ".RWZ", ".X3F"};

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
