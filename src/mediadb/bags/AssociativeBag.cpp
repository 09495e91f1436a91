#include "mediadb/bags/AssociativeBag.h"

#include "base/Log.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

void AssociativeBag::add(const std::list<ResourceID>& ids) {
    for (ResourceID id : ids) insertImage(id);
}

void AssociativeBag::remove(const std::list<ResourceID>& ids) {
    for (ResourceID id : ids) removeImage(id);
}

void AssociativeBag::replace(ResourceID oldId, ResourceID newId) {
    QOR_ASSERT(containsImage(oldId));
    QOR_ASSERT(!containsImage(newId));
    if (!containsImage(oldId) || containsImage(newId)) return;
    replaceItem(oldId, newId);
    if (Library* lib = library()) {
        lib->removeAssociativeBagOfImage(oldId, id());
        lib->addAssociativeBagOfImage(newId, id());
    }
}

void AssociativeBag::onItemInserted(ResourceID imageId) {
    if (Library* lib = library()) lib->addAssociativeBagOfImage(imageId, id());
}

void AssociativeBag::removeImage(ResourceID imageId) {
    Bag::removeImage(imageId);
    if (Library* lib = library()) lib->removeAssociativeBagOfImage(imageId, id());
}

}  // namespace qor::mediadb
