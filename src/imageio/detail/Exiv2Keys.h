#pragma once
// Translation of Exiv2's parsed metadata into the raw key notation of Metadata:
// - EXIF IFD0 ("Exif.Image.Make") becomes "tiff:Make"; the EXIF and GPS IFDs ("Exif.Photo.FNumber",
//   "Exif.GPSInfo.GPSSpeed") become "exif:FNumber", "exif:GPSSpeed"; the user comment is
//   "exif:TiffUserComment". Thumbnail, interoperability and maker note entries are left out.
// - XMP "Xmp.<prefix>.<path>" becomes "<prefix>:<path>" ("dc:subject", "exif:Flash/exif:Fired");
//   only keys that EXIF did not give are taken.
// - IPTC application datasets become "iptc:<name>" ("iptc:City"), repeated ones joined by ", ".
// Values are text: numbers in decimal with '.', rationals as decimals, several components separated
// by spaces, language alternatives by their default entry, XMP arrays joined by ", ". GPS latitude
// and longitude are degrees, minutes and seconds separated by the byte 0x01 with the reference
// letter behind ("48\x01" "30\x01" "0S"); a GPS altitude below sea level is negative. The EXIF
// flash number also yields the XMP flash structure keys, "exif:Flash/exif:Fired" and its fellows.
// Internal to imageio; called on one thread per image. Exiv2 may throw from these calls.

#include <exiv2/exif.hpp>
#include <exiv2/iptc.hpp>
#include <exiv2/xmp_exiv2.hpp>

#include "imageio/Metadata.h"

namespace qor::imageio::detail {

void addExifEntries(const Exiv2::ExifData& exif, Metadata& metadata);
void addXmpEntries(const Exiv2::XmpData& xmp, Metadata& metadata);
void addIptcEntries(const Exiv2::IptcData& iptc, Metadata& metadata);

// Text as UTF-8: valid UTF-8 is kept, anything else is read as Latin-1 (the usual charset of IPTC
// and EXIF text written without a declaration).
std::string asUtf8(std::string_view text);

}  // namespace qor::imageio::detail
