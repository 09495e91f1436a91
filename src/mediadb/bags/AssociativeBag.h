#pragma once
// AssociativeBag: a bag that refers to images owned by container bags (a collection, a book, a web
// gallery). Each image keeps the set of associative bags that hold it in its
// "Library::AssociativeBags" property; the bag keeps that set in step as images come and go.
//
// Thread contract: that of Bag (changes on a mutable copy, queries on any snapshot).

#include <list>

#include "mediadb/bags/Bag.h"

namespace qor::mediadb {

class AssociativeBag : public Bag {
public:
    bool isFolder() const override { return false; }

    // Appends each image that is not in the bag yet, in order.
    virtual void add(const std::list<ResourceID>& ids);
    // Removes each image (each must be in the bag).
    virtual void remove(const std::list<ResourceID>& ids);
    // Puts `newId` in the place of `oldId`, keeping its position and tags. `oldId` must be in the
    // bag and `newId` not (assertion otherwise, nothing changes).
    virtual void replace(ResourceID oldId, ResourceID newId);

    // The image's "Library::AssociativeBags" gains this bag.
    void onItemInserted(ResourceID id) override;
    // Removes the item; the image's "Library::AssociativeBags" loses this bag.
    void removeImage(ResourceID id) override;

protected:
    AssociativeBag() = default;
    AssociativeBag(const AssociativeBag&) = default;
};

}  // namespace qor::mediadb
