#include "mediadb/bags/StandardBagTypes.h"

#include "mediadb/bags/AllImagesBag.h"
#include "mediadb/bags/CollectionBag.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/ImportBag.h"
#include "mediadb/bags/StarCollectionBag.h"
#include "mediadb/books/BookBag.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

namespace {

template <class T>
void registerType(Library& library, bool uniqueNames) {
    library.registerBag(
        T::bagTypeStatic(), [] { return static_cast<Bag*>(new T()); }, uniqueNames);
}

}  // namespace

void registerStandardBagTypes(Library& library) {
    registerType<EventBag>(library, false);
    registerType<ImportBag>(library, false);
    registerType<CollectionBag>(library, true);
    registerType<AllImagesBag>(library, true);
    registerType<StarCollectionBag>(library, true);
    registerType<BookBag>(library, true);
}

}  // namespace qor::mediadb
