#pragma once
// BookBag: the bag of a photo book. It is an AssociativeBag (it refers to pictures that event
// bags own) and a Book (the pages that show them). Its .bag file is a file in the library folder
// with the extension ".picturebook", written crash-safe by Library::saveBag like every bag file.
//
// File content, below the `bag` root:
//   <images> <image name="persistent string"/> ... </images>   the bag's images no frame shows
//   <layout ...> ... </layout>                                   the book (see Book.h)
// The node tree of the bag is not stored: on reading, the pictures of the pages come first, then
// those of `images`, in that order.
//
// Thread contract: that of Bag (changes on a mutable copy, queries on any snapshot).

#include <string>
#include <string_view>

#include "mediadb/bags/AssociativeBag.h"
#include "mediadb/books/Book.h"

namespace qor::mediadb {

class BookBag : public AssociativeBag, public Book {
public:
    static std::string bagTypeStatic() { return "picturebook"; }

    BookBag() = default;

    std::string bagType() const override { return bagTypeStatic(); }
    Bag* mutableCopy() const override { return new BookBag(*this); }

    // As AssociativeBag::replace; the frames showing `oldId` show `newId` afterwards.
    void replace(ResourceID oldId, ResourceID newId) override;
    // As AssociativeBag::removeImage; the frames that showed the image are left empty, so that it
    // does not come back into the bag when the book is read again.
    void removeImage(ResourceID id) override;

    // Writes `images` (saveRemainingImages) and `layout` (Book::toXML with getPStrcb).
    void toXml(NodeIterator& node) const override;
    // Reads the book (Book::fromXML with getIDcb) and the remaining images; every picture of the
    // pages and of `images` enters the bag. A failure is logged as "Broken event file: %*" and
    // leaves what was read.
    void fromXml(const NodeIterator& root) override;

    // The persistent string of an image's name; "" for InvalidResourceID or an unknown image.
    std::string getPStrcb(ResourceID id) const;
    // The image with that persistent string, added to the library's ImageManager when it is not
    // there yet; InvalidResourceID for an empty text (and, after an assertion, when the library
    // cannot add it or the bag has no library).
    ResourceID getIDcb(std::string_view text) const;

    // Appends an `image` child with `name` to `node` for each image of the bag that no frame
    // shows, in the bag's order.
    void saveRemainingImages(NodeIterator& node) const;
    // Reads the `image` children of `node` (another child is logged as "Invalid node '%*' in image
    // node"), then inserts every picture of the pages and those images into the bag.
    void loadRemainingImages(const NodeIterator& node);

protected:
    BookBag(const BookBag&) = default;
};

}  // namespace qor::mediadb
