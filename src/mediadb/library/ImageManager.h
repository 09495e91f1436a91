#pragma once
// ImageManager: the ResourceManager of a library's images, one resource per image file. The
// application creates it and hands it to Library; it adds nothing to ResourceManager but the
// constructor.

#include <utility>

#include "base/resource/ResourceManager.h"

namespace qor::mediadb {

class ImageManager : public ResourceManager {
public:
    // A null handler takes the default ResourceNameHandler (absolute local paths). Ids are by
    // index, which the metadata cache needs.
    explicit ImageManager(SharedPtr<const ResourceNameHandler> handler = nullptr)
        : ResourceManager(std::move(handler), IdsByIndex) {}
};

}  // namespace qor::mediadb
