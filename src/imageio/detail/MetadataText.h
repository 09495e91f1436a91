#pragma once
// Numbers in the raw metadata map's text, read the way the metadata library writes them. Internal
// to imageio. Pure functions, safe on any thread; none throws.

#include <string_view>

namespace qor::imageio::detail {

// The leading integer of the text, as C's strtol reads it: white space, an optional sign, digits;
// the rest is ignored ("2.9" and "2/3" give 2). No digits give 0; values outside int are clamped.
int metaInt(std::string_view text);

// The leading number of the text, decimal or exponent notation with '.', whatever the locale; a
// rational "a/b" gives a / b (0 when b is 0). No number gives 0.
double metaDouble(std::string_view text);

// A GPS coordinate written in base 60: the first number is degrees, each byte 0x01 starts a further
// number divided by 60 to the power of its position (minutes, then seconds); a letter 'S' or 'W'
// anywhere makes the result negative; other letters around a number are skipped. "48\x01" "30"
// gives 48.5.
double metaGpsCoordinate(std::string_view text);

}  // namespace qor::imageio::detail
