#pragma once
// AllImagesBag: the smart collection of every picture of every event, one per family.

#include <string>

#include "mediadb/bags/SmartCollectionBag.h"

namespace qor::mediadb {

class AllImagesBag : public SmartCollectionBag {
public:
    static std::string bagTypeStatic() { return "allimages"; }

    AllImagesBag() = default;

    std::string bagType() const override { return bagTypeStatic(); }
    Bag* mutableCopy() const override { return new AllImagesBag(*this); }
    bool fitsIntoCollection(ResourceID) const override { return true; }

protected:
    AllImagesBag(const AllImagesBag&) = default;
};

}  // namespace qor::mediadb
