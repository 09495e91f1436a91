#include "ItemText.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "base/filesystem/Path.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/PathExtension.h"

namespace qor::tool {

using imageio::MetadataValue;

std::string unreadable(const std::string& file) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    if (!std::filesystem::exists(status)) return "no such file";
    if (!std::filesystem::is_regular_file(status)) return "not a file";
    const auto size = std::filesystem::file_size(file, error);
    if (error) return error.message();
    return size == 0 ? "empty file" : "";
}

bool recognisedPicture(const std::string& file) {
    unsigned char head[imageio::DecoderHeadLength];
    size_t length = 0;
    try {
        RandomAccessFileStd opened(file);
        length = opened.readAt(0, head, sizeof head);
    } catch (const std::exception&) {
        return false;
    }
    return imageio::findDecoder(head, length,
                                imageio::detail::upperExtension(FastString<char>(file)));
}

// Every picture below `folder` (image and raw extensions, or content a decoder recognises;
// hidden entries left out), in name order.
void collectPictures(const std::string& folder, std::vector<std::string>& out) {
    for (filesystem::UrlIterator it(folder); it.valid(); it.next()) {
        if (it.isHidden()) continue;
        const std::string path = it.path();
        if (it.isDirectory()) {
            collectPictures(path, out);
            continue;
        }
        const imageio::ItemType type = imageio::getItemType(FastString<char>(path));
        if (type == imageio::ItemTypeImage || type == imageio::ItemTypeRaw ||
            (type == imageio::ItemTypeUnknown && recognisedPicture(path)))
            out.push_back(path);
    }
}

int reportBad(const char* command, const std::string& file, const std::string& reason) {
    std::fprintf(stderr, "qor: %s: '%s': %s\n", command, file.c_str(), reason.c_str());
    return 1;
}

std::string readable(std::string_view value) {
    constexpr size_t Longest = 160;
    std::string out;
    for (size_t i = 0; i < value.size() && i < Longest; ++i) {
        const auto byte = static_cast<unsigned char>(value[i]);
        if (byte < 0x20 || byte == 0x7F) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            out += escaped;
        } else {
            out += char(byte);
        }
    }
    if (value.size() > Longest) out += " ... (" + std::to_string(value.size()) + " bytes)";
    return out;
}

std::string valueText(const MetadataValue& value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

Json jsonValue(const MetadataValue& value) {
    switch (value.type()) {
        case imageio::MdtInt:
            return value.getInt();
        case imageio::MdtVec2i:
            return Json::array({value.getVec2i().x, value.getVec2i().y});
        case imageio::MdtDouble:
            return value.getDouble();
        case imageio::MdtVec3d: {
            const imageio::Vec3d v = value.getVec3d();
            return Json::array({v.x, v.y, v.z});
        }
        default:
            return valueText(value);  // strings, times in ISO form, digests in hex
    }
}

}  // namespace qor::tool
