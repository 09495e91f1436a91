#include "mediadb/import/DuplicateManager.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/Log.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

namespace {

// The checksum that the cache connector holds (it reads the file only when it lacks it); the null
// digest when there is none or the connector fails.
Digest checksumOf(Library* library, ResourceID id) {
    ILibraryCacheConnector* connector = library->cacheConnector();
    if (!connector || !id.isValid()) return {};
    try {
        return connector->checksum(id);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "No checksum of image %*: %*", id, e.what());
        return {};
    }
}

}  // namespace

// ---- LibraryDuplicateManager ----

LibraryDuplicateManager::LibraryDuplicateManager(Library* library) : _library(library) {
    // Runs on the adopting thread, after the bag's commit: only noted here, the checksum is asked
    // on the next question. Noted also before the index is built: a build that runs now may have
    // read the bag before this image came.
    _adopted = _library->OnImageAdopted.connect([this](ResourceID id) { add(id); });
}

LibraryDuplicateManager::~LibraryDuplicateManager() { _adopted.disconnect(); }

std::vector<ResourceID> LibraryDuplicateManager::images(const Digest& digest) {
    if (digest.isNull()) return {};
    build();
    resolvePending();
    std::vector<ResourceID> found;
    {
        ScopedLock lock(_mutex);
        auto it = _byDigest.find(digest);
        if (it != _byDigest.end()) found = it->second;
    }
    // Images that left their container since they were entered are no library images any more.
    std::erase_if(found, [this](ResourceID id) { return !_library->containerId(id).isValid(); });
    return found;
}

void LibraryDuplicateManager::add(ResourceID id) {
    if (!id.isValid()) return;
    ScopedLock lock(_mutex);
    if (!_byId.count(id)) _pending.insert(id);
}

void LibraryDuplicateManager::add(ResourceID id, const Digest& digest) {
    if (!id.isValid()) return;
    ScopedLock lock(_mutex);
    _pending.erase(id);
    enter(id, digest);
}

void LibraryDuplicateManager::remove(ResourceID id) {
    ScopedLock lock(_mutex);
    _pending.erase(id);
    drop(id);
}

void LibraryDuplicateManager::build() {
    {
        ScopedLock lock(_mutex);
        if (_built) return;
    }
    ScopedLock building(_buildMutex);
    {
        ScopedLock lock(_mutex);
        if (_built) return;  // another thread built it while this one waited
    }
    std::vector<std::pair<ResourceID, Digest>> entries;
    for (const ResourceID& bagId : _library->bags()) {
        SharedPtr<const Bag> bag = _library->bag(bagId);
        if (!bag || !Library::isContainer(*bag)) continue;
        for (const ResourceID& id : bag->images())
            entries.emplace_back(id, checksumOf(_library, id));
    }
    ScopedLock lock(_mutex);
    // An image that add(id, digest) entered meanwhile keeps that digest.
    for (const auto& [id, digest] : entries)
        if (!_byId.count(id)) enter(id, digest);
    _built = true;
    QOR_LOG(LogDebug, "Duplicate index of %* images built", _byId.size());
}

void LibraryDuplicateManager::resolvePending() {
    std::set<ResourceID> pending;
    {
        ScopedLock lock(_mutex);
        pending.swap(_pending);
        // Those the build entered need no second question.
        std::erase_if(pending, [this](ResourceID id) { return _byId.count(id) != 0; });
    }
    if (pending.empty()) return;
    std::vector<std::pair<ResourceID, Digest>> entries;
    for (const ResourceID& id : pending) entries.emplace_back(id, checksumOf(_library, id));
    ScopedLock lock(_mutex);
    for (const auto& [id, digest] : entries) enter(id, digest);
}

void LibraryDuplicateManager::enter(ResourceID id, const Digest& digest) {
    drop(id);
    if (digest.isNull()) return;  // an unreadable file duplicates nothing
    _byId[id] = digest;
    _byDigest[digest].push_back(id);
}

void LibraryDuplicateManager::drop(ResourceID id) {
    auto it = _byId.find(id);
    if (it == _byId.end()) return;
    auto list = _byDigest.find(it->second);
    if (list != _byDigest.end()) {
        std::erase(list->second, id);
        if (list->second.empty()) _byDigest.erase(list);
    }
    _byId.erase(it);
}

// ---- ExternalDuplicateManager ----

ExternalDuplicateManager::ExternalDuplicateManager(Library* library, LibraryDuplicateManager* index)
    : _library(library), _index(index) {}

ExternalDuplicateManager::~ExternalDuplicateManager() = default;

void ExternalDuplicateManager::calculateDuplicates(ResourceID id) {
    std::vector<ResourceID> found = _index->images(checksumOf(_library, id));
    std::erase(found, id);
    ScopedLock lock(_mutex);
    _found[id] = std::move(found);
}

bool ExternalDuplicateManager::hasDuplicates(ResourceID id, bool calculate) {
    {
        ScopedLock lock(_mutex);
        auto it = _found.find(id);
        if (it != _found.end() || !calculate) return it != _found.end() && !it->second.empty();
    }
    calculateDuplicates(id);
    ScopedLock lock(_mutex);
    return !_found[id].empty();
}

void ExternalDuplicateManager::getImages(const Digest& digest, std::vector<ResourceID>& images) {
    images.clear();
    images = _index->images(digest);
}

std::vector<ResourceID> ExternalDuplicateManager::duplicatesOf(ResourceID id) const {
    ScopedLock lock(_mutex);
    auto it = _found.find(id);
    return it == _found.end() ? std::vector<ResourceID>() : it->second;
}

void ExternalDuplicateManager::forget(ResourceID id) {
    ScopedLock lock(_mutex);
    _found.erase(id);
}

void ExternalDuplicateManager::imageImported(ResourceID id, const Digest& digest) {
    _index->add(id, digest);
}

}  // namespace qor::mediadb
