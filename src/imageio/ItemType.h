#pragma once
// ItemType: what kind of item a file is, by its extension.

namespace qor::imageio {

enum ItemType {
    ItemTypeUnknown = 0,  // extension in no list
    ItemTypeImage = 1,
    ItemTypeVideo = 2,
    ItemTypeRaw = 3,
};

}  // namespace qor::imageio
