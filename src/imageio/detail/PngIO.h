#pragma once
// The libpng set-up shared by loadPng and PngBandReader: reading from a RandomAccessFile, errors
// and warnings kept and logged our way, and the transformations to RGB or RGBA rows.

#include <cstdint>
#include <string>

#include "base/filesystem/RandomAccessFile.h"

struct png_struct_def;
struct png_info_def;

namespace qor::imageio::detail {

// The most memory libpng takes for one chunk (text, ICC profile, EXIF ...).
constexpr unsigned long kPngChunkMallocMax = 16ul << 20;

// Where libpng reads from, and what its last error said.
struct PngInput {
    RandomAccessFile* file = nullptr;
    std::string name;       // for messages
    uint64_t position = 0;  // the offset of the next read
    std::string error;      // the message of the last libpng error
};

// A read struct and its info struct, reading from `input` past the 8-byte signature, whose
// errors keep their message in input.error and long-jump to png_jmpbuf, and whose warnings go to
// the debug log. False (nothing to free) when libpng cannot be set up; otherwise the caller
// destroys both. Does not long-jump.
bool createPngReader(PngInput& input, png_struct_def** png, png_info_def** info);

// After png_read_info: sets the transformations that make rows of RGB or RGBA at `bits` (8 or 16,
// in native byte order), RGBA always when `fillAlpha`, then updates the info. Returns whether
// the rows have alpha and sets *passes to the interlace passes. Long-jumps through png_error
// when the rows would not have that layout.
bool setPngTransforms(png_struct_def* png, png_info_def* info, int bits, bool fillAlpha,
                      int* passes);

}  // namespace qor::imageio::detail
