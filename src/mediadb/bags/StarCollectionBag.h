#pragma once
// StarCollectionBag: the smart collection of the pictures rated with a given number of stars, as
// the library's cache connector reports their ratings. The rating is a setting of the bag object
// (default 0), not saved: the bag is not persistent.
//
// Thread contract: that of ProceduralBag. Computing the set asks the cache connector for every
// picture of every event, which may read files.

#include <string>

#include "mediadb/bags/SmartCollectionBag.h"

namespace qor::mediadb {

class StarCollectionBag : public SmartCollectionBag {
public:
    static std::string bagTypeStatic() { return "starcollection"; }

    StarCollectionBag() = default;

    std::string bagType() const override { return bagTypeStatic(); }
    Bag* mutableCopy() const override { return new StarCollectionBag(*this); }

    // Sets the number of stars shown; the set is computed again. On a mutable copy.
    void setStarRaiting(int stars);
    int starRaiting() const { return _starRaiting; }

    // Whether the connector has metadata of the image and its rating is starRaiting(). A
    // connector failure is logged and counts as no.
    bool fitsIntoCollection(ResourceID id) const override;

protected:
    StarCollectionBag(const StarCollectionBag&) = default;

private:
    int _starRaiting = 0;
};

}  // namespace qor::mediadb
