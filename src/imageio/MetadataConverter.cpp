#include "imageio/MetadataConverter.h"

#include "base/Log.h"

namespace qor::imageio {

MetadataConverter::MetadataConverter() { QOR_ASSERT(false); }

MetadataConverter::MetadataConverter(const MetadataMap& map) : _map(map) {}

MetadataConverter::MetadataConverter(const NarrowMap& map) {
    for (const auto& [key, value] : map)
        _map.emplace_hint(_map.end(), FastString<char>(key), FastString<char>(value));
}

MetadataConverter::NarrowMap MetadataConverter::getAsQorMetadata() const {
    NarrowMap out;
    for (const auto& [key, value] : _map) out.emplace_hint(out.end(), key.str(), value.str());
    return out;
}

}  // namespace qor::imageio
