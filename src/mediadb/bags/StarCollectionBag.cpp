#include "mediadb/bags/StarCollectionBag.h"

#include <exception>

#include "base/Log.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

void StarCollectionBag::setStarRaiting(int stars) {
    _starRaiting = stars;
    markItemsInvalid();
}

bool StarCollectionBag::fitsIntoCollection(ResourceID id) const {
    Library* lib = library();
    ILibraryCacheConnector* connector = lib ? lib->cacheConnector() : nullptr;
    if (!connector) return false;
    try {
        return connector->hasMetadata(id) && connector->rating(id) == _starRaiting;
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "StarCollectionBag: no rating of image %*: %*", id, e.what());
        return false;
    }
}

}  // namespace qor::mediadb
