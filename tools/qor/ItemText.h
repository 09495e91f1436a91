#pragma once
// What the file and cache commands share: the checks of a file before it is read, the one line
// of a bad file, and metadata values as text and as JSON (the form of 'qor info --json').

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "imageio/MetadataValue.h"

namespace qor::tool {

using Json = nlohmann::ordered_json;

// Why `file` cannot be read at all, before any library call: missing, not a plain file, empty.
// Empty when it can be tried.
std::string unreadable(const std::string& file);
// Whether a decoder recognises the content of `file` (for a name that does not tell).
bool recognisedPicture(const std::string& file);
// Prints "qor: <command>: '<file>': <reason>" on standard error and returns 1.
int reportBad(const char* command, const std::string& file, const std::string& reason);

// Raw values as one readable line: control bytes (the GPS separators 0x01 among them) as \xNN,
// and long values (binary blobs in text form) cut short with their length.
std::string readable(std::string_view value);
// The value as MetadataValue writes it: a time in ISO form, a digest in hex.
std::string valueText(const imageio::MetadataValue& value);
// Numbers as numbers, vectors as arrays, everything else as valueText.
Json jsonValue(const imageio::MetadataValue& value);

}  // namespace qor::tool
