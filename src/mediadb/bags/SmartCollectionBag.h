#pragma once
// SmartCollectionBag: a procedural bag of the pictures of all event bags that pass a test
// (fitsIntoCollection). It shows one picture per family: the edited version when there is one,
// else the original.
//
// Thread contract: that of ProceduralBag.

#include "mediadb/bags/ProceduralBag.h"

namespace qor::mediadb {

class SmartCollectionBag : public ProceduralBag {
public:
    bool isFolder() const override { return false; }
    // From the computed set when there is one; otherwise fitsIntoCollection alone, without
    // computing the set.
    bool containsImage(ResourceID id) const override;
    using Bag::containsImage;
    // True for the bags it reads: persistent container bags.
    bool dependsOnBag(ResourceID id) const override;
    // One image per family of every event bag (edited before original), those that fit.
    void computeItems(HashSet* items) const override;
    // Whether the image belongs in the collection. Runs while the set is computed.
    virtual bool fitsIntoCollection(ResourceID id) const = 0;

protected:
    SmartCollectionBag() = default;
    SmartCollectionBag(const SmartCollectionBag&) = default;
};

}  // namespace qor::mediadb
