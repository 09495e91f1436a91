#include "mediadb/books/BookBag.h"

#include <exception>
#include <vector>

#include "base/Log.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

std::string BookBag::getPStrcb(ResourceID id) const {
    if (!id.isValid()) return {};
    ResourceName name = getImageResourceName(id);
    return name.empty() ? std::string() : name.persistentString();
}

ResourceID BookBag::getIDcb(std::string_view text) const {
    if (text.empty()) return InvalidResourceID;
    Library* lib = library();
    QOR_ASSERT_TEXT(lib != nullptr, "a book bag has a library");
    if (!lib) return InvalidResourceID;
    ResourceName name = lib->imageManager()->nameFromPersistentString(text);
    ResourceID id = lib->addImage(name.localPath());
    QOR_ASSERT_MSG(id.isValid(), "cannot add the book's image '%*'", text);
    return id;
}

void BookBag::replace(ResourceID oldId, ResourceID newId) {
    const bool possible = containsImage(oldId) && !containsImage(newId);
    AssociativeBag::replace(oldId, newId);
    if (possible) replaceImage(oldId, newId);
}

void BookBag::removeImage(ResourceID id) {
    AssociativeBag::removeImage(id);
    if (id.isValid()) replaceImage(id, InvalidResourceID);
}

void BookBag::saveRemainingImages(NodeIterator& node) const {
    for (const Node* item : itemNodes()) {
        if (imageUsed(item->item())) continue;
        std::string name = getPStrcb(item->item());
        if (name.empty()) {
            QOR_LOG(LogWarning, "Book '%*': image %* has no name and is not saved", this->name(),
                    item->item());
            continue;
        }
        node.appendChild("image").appendAttribute("name", name);
    }
}

void BookBag::loadRemainingImages(const NodeIterator& node) {
    std::vector<ResourceID> remaining;
    for (NodeIterator child : node.children()) {
        if (child.name() != "image") {
            QOR_LOG(LogWarning, "Invalid node '%*' in image node", child.name());
            continue;
        }
        ResourceID id = getIDcb(child.attribute("name"));
        if (id.isValid()) remaining.push_back(id);
    }
    for (const PictureFrame& frame : getPictures())
        if (frame.image.isValid()) insertImage(frame.image);
    for (ResourceID id : remaining) insertImage(id);
}

void BookBag::toXml(NodeIterator& node) const {
    NodeIterator images = node.appendChild("images");
    saveRemainingImages(images);
    NodeIterator layout = node.appendChild("layout");
    Book::toXML(layout, [this](ResourceID id) { return getPStrcb(id); });
}

void BookBag::fromXml(const NodeIterator& root) {
    try {
        NodeIterator images = root.child("images");
        NodeIterator layout = root.child("layout");
        if (!layout) QOR_LOG(LogWarning, "Book '%*' has no layout; its pages are empty", name());
        Book::fromXML(layout, [this](std::string_view text) { return getIDcb(text); });
        loadRemainingImages(images);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Broken event file: %*", e.what());
    }
}

}  // namespace qor::mediadb
