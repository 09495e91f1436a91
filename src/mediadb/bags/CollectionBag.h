#pragma once
// CollectionBag: an album the user puts together from pictures of any events. It owns no files;
// its .bag file is a file in the library folder with the extension ".collection".

#include <string>

#include "mediadb/bags/AssociativeBag.h"

namespace qor::mediadb {

class CollectionBag : public AssociativeBag {
public:
    static std::string bagTypeStatic() { return "collection"; }

    CollectionBag() = default;

    std::string bagType() const override { return bagTypeStatic(); }
    Bag* mutableCopy() const override { return new CollectionBag(*this); }

protected:
    CollectionBag(const CollectionBag&) = default;
};

}  // namespace qor::mediadb
