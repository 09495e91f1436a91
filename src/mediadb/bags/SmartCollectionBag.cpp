#include "mediadb/bags/SmartCollectionBag.h"

#include <vector>

#include "base/Log.h"
#include "mediadb/bags/ContainerBag.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

bool SmartCollectionBag::containsImage(ResourceID id) const {
    if (SharedPtr<const HashSet> computed = computedImages()) return computed->count(id) != 0;
    return fitsIntoCollection(id);
}

bool SmartCollectionBag::dependsOnBag(ResourceID id) const {
    Library* lib = library();
    if (!lib) return false;
    SharedPtr<const Bag> bag = lib->bag(id);
    return bag && bag->persistent() && dynamic_cast<const ContainerBag*>(bag.get()) != nullptr;
}

void SmartCollectionBag::computeItems(HashSet* items) const {
    Library* lib = library();
    if (!lib) return;
    std::vector<SharedPtr<const Bag>> events;
    size_t total = 0;
    for (ResourceID id : lib->bags(EventBag::bagTypeStatic())) {
        if (SharedPtr<const Bag> bag = lib->bag(id)) {
            total += bag->images().size();
            events.push_back(std::move(bag));
        }
    }
    items->reserve(total);
    for (const SharedPtr<const Bag>& bag : events) {
        if (libraryShuttingDown()) return;
        const auto* cbag = dynamic_cast<const ContainerBag*>(bag.get());
        QOR_ASSERT_TEXT(cbag, "cbag");
        if (!cbag) continue;
        std::vector<ContainerBag::FamilyInfo> families;
        cbag->getFamilies(families);
        for (const ContainerBag::FamilyInfo& family : families) {
            ResourceID id = family.edited.isValid() ? family.edited : family.original;
            if (id.isValid() && fitsIntoCollection(id)) items->insert(id);
        }
    }
}

}  // namespace qor::mediadb
