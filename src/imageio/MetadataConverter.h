#pragma once
// MetadataConverter: the raw key and value map of a Metadata ("exif:FNumber" -> "2.8") carried
// between the system's strings and the narrow std::string text of the metadata library (Exiv2).
// Both sides are UTF-8, so the conversion copies bytes; the two directions are exact inverses, for
// any bytes, embedded NULs included.
//
// Thread contract: immutable after construction; a shared converter may be read from any thread.

#include <map>
#include <string>

#include "text/FastString.h"

namespace qor::imageio {

class MetadataConverter {
public:
    using MetadataMap = std::map<FastString<char>, FastString<char>>;
    using NarrowMap = std::map<std::string, std::string>;

    // A converter needs a map: default construction is a programming error, reported by the
    // assertion "false"; the converter is then empty.
    MetadataConverter();
    explicit MetadataConverter(const MetadataMap& map);
    // Converts each key and value of the metadata library's text.
    explicit MetadataConverter(const NarrowMap& map);

    // The map in the metadata library's text.
    NarrowMap getAsQorMetadata() const;
    // The map in the system's strings.
    const MetadataMap& getAsMetadataMap() const { return _map; }

private:
    MetadataMap _map;
};

}  // namespace qor::imageio
