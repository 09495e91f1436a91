#pragma once
// Duplicate detection for imports, by the item checksum (MD5 of a file's first 20480 bytes, see
// imageio::imageChecksum), which the metadata cache keeps for every image it has read.
//
// LibraryDuplicateManager: an index from checksum to the library's images (the images of
// container bags). It is built on the first question from the cache connector's stored checksums,
// so a library of 100 000 pictures answers without reading any picture file, and is kept up to
// date by the library's signals and by the import (add / remove).
//
// ExternalDuplicateManager: what an import asks of it. For an image that is about to come in (a
// library image, or a temporary resource for a file outside the library), calculateDuplicates
// finds the library images with an equal checksum and remembers them; hasDuplicates and
// getImages answer from that.
//
// Thread contract: every member may be called from any thread at once; one mutex in each class
// guards its maps (a leaf; never held while calling the connector or the library).

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "base/ResourceID.h"
#include "base/thread/Mutex.h"
#include "util/Digest.h"
#include "util/Signal.h"

namespace qor::mediadb {

class Library;

class LibraryDuplicateManager {
public:
    // `library` is not owned and must outlive the manager.
    explicit LibraryDuplicateManager(Library* library);
    ~LibraryDuplicateManager();
    LibraryDuplicateManager(const LibraryDuplicateManager&) = delete;
    LibraryDuplicateManager& operator=(const LibraryDuplicateManager&) = delete;

    // The library images with this checksum (none for the null digest).
    std::vector<ResourceID> images(const Digest& digest);
    // Enters or drops one image (its checksum from the cache connector).
    void add(ResourceID id);
    void add(ResourceID id, const Digest& digest);
    void remove(ResourceID id);

private:
    // Reads the checksums of every image of the library's container bags (once).
    void build();
    // Reads the checksums of the images noted by add(id) and the adopt signal, and enters them.
    void resolvePending();
    void enter(ResourceID id, const Digest& digest) QOR_REQUIRES(_mutex);
    void drop(ResourceID id) QOR_REQUIRES(_mutex);

    Library* const _library;  // not owned
    // Serialises build(); held while the library and the connector are read, taken before _mutex.
    thread::Mutex _buildMutex;
    thread::Mutex _mutex QOR_ACQUIRED_AFTER(_buildMutex);  // guards the fields below; a leaf
    bool _built QOR_GUARDED_BY(_mutex) = false;
    std::unordered_map<Digest, std::vector<ResourceID>> _byDigest QOR_GUARDED_BY(_mutex);
    std::unordered_map<ResourceID, Digest> _byId QOR_GUARDED_BY(_mutex);
    // Images that came in whose checksum has not been asked yet (asked on the next question,
    // after the build, never on the thread that adopted them).
    std::set<ResourceID> _pending QOR_GUARDED_BY(_mutex);
    ScopedConnection _adopted;  // Library::OnImageAdopted
};

class ExternalDuplicateManager {
public:
    // Neither is owned; both must outlive the manager.
    ExternalDuplicateManager(Library* library, LibraryDuplicateManager* index);
    ~ExternalDuplicateManager();
    ExternalDuplicateManager(const ExternalDuplicateManager&) = delete;
    ExternalDuplicateManager& operator=(const ExternalDuplicateManager&) = delete;

    // Finds the library images (other than `id` itself) whose checksum equals id's and remembers
    // them; reads the file only when the cache lacks its checksum. An unreadable file has none.
    void calculateDuplicates(ResourceID id);
    // Whether calculateDuplicates found any; with `calculate` it is run first when it has not
    // been for this id.
    bool hasDuplicates(ResourceID id, bool calculate);
    // The library images with this checksum (the list is cleared first).
    void getImages(const Digest& digest, std::vector<ResourceID>& images);
    // The duplicates found for `id` (empty when none or not calculated).
    std::vector<ResourceID> duplicatesOf(ResourceID id) const;
    // Forgets what was remembered for `id`.
    void forget(ResourceID id);
    // An image that an import has just brought in, with the checksum its copy computed: entered
    // into the index without reading the file again.
    void imageImported(ResourceID id, const Digest& digest);

private:
    Library* const _library;                // not owned
    LibraryDuplicateManager* const _index;  // not owned
    mutable thread::Mutex _mutex;           // guards _found; a leaf
    std::map<ResourceID, std::vector<ResourceID>> _found QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::mediadb
