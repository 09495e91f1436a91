#include "mediadb/bags/ImportBag.h"

namespace qor::mediadb {

void ImportBag::clear() {
    std::vector<ResourceID> ids(images().begin(), images().end());
    for (ResourceID id : ids) removeImage(id);
}

}  // namespace qor::mediadb
