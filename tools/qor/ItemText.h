#pragma once
// What the file, cache and thumbnail commands share: the pictures below a folder, the checks of a
// file before it is read, the one line of a bad file, and metadata values as text and as JSON
// (the form of 'qor info --json').

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "imageio/MetadataValue.h"

namespace qor::tool {

using Json = nlohmann::ordered_json;

// Why `file` cannot be read at all, before any library call: missing, not a plain file, empty.
// Empty when it can be tried.
std::string unreadable(const std::string& file);
// Whether a decoder recognises the content of `file` (for a name that does not tell).
bool recognisedPicture(const std::string& file);
// Appends every picture below `folder` (image and raw extensions, or content a decoder
// recognises; hidden entries left out), in name order. Throws FilesystemException when a folder
// cannot be listed.
void collectPictures(const std::string& folder, std::vector<std::string>& out);
// Prints "qor: <command>: '<file>': <reason>" on standard error and returns 1.
int reportBad(const char* command, const std::string& file, const std::string& reason);

// Raw values as one readable line: control bytes (the GPS separators 0x01 among them) as \xNN,
// and long values (binary blobs in text form) cut short with their length.
std::string readable(std::string_view value);
// The value as MetadataValue writes it: a time in ISO form, a digest in hex.
std::string valueText(const imageio::MetadataValue& value);
// Numbers as numbers, vectors as arrays, everything else as valueText.
Json jsonValue(const imageio::MetadataValue& value);

// A typed field read through `get`, a generic callable `bool(T&)` called with a value of the
// field's type; empty when it gives false.
template <class Get>
imageio::MetadataValue typedValue(imageio::MetadataField field, Get&& get) {
    auto read = [&]<class T>(T value) {
        return get(value) ? imageio::MetadataValue(value) : imageio::MetadataValue();
    };
    switch (imageio::fieldDataType(field)) {
        case imageio::MdtInt:
            return read(0);
        case imageio::MdtVec2i:
            return read(imageio::Vec2i());
        case imageio::MdtDouble:
            return read(0.0);
        case imageio::MdtVec3d:
            return read(imageio::Vec3d());
        case imageio::MdtString:
            return read(FastString<char>());
        case imageio::MdtTime:
            return read(Timestamp());
        case imageio::MdtDigest:
            return read(Digest());
        case imageio::MdtUnknown:
            break;
    }
    return imageio::MetadataValue();
}

}  // namespace qor::tool
