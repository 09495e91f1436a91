#pragma once
// Library: the root object of the photo library. It owns the library folder, the index file
// "library.xml", the list of bags and the bookkeeping that ties every image to its bag. All
// file-system changes of images and bags go through it, so that the disk, the two resource
// managers (the application's ImageManager and the library's own bag manager) and the bag objects
// stay consistent. It reports to the application through signals.
//
// Life: construct, register the bag types (registerBag) and settings keys (registerProperty),
// load (or loadAsync), use, shutdown (the destructor calls it).
//
// Per-resource properties, registered by the constructor:
//   "Library::Bag"             bag manager    SharedPtr<const Bag>   the bag's current snapshot
//   "Library::BagSettings"     bag manager    SharedPtr<PropertyMap> per-bag settings
//   "Library::BagState"        bag manager    BagState               load state of the bag
//   "Library::BagId"           image manager  ResourceID             the image's container bag
//   "Library::Tags"            image manager  Tags                   free tags of the image
//   "Library::AssociativeBags" image manager  HashSet                associative bags holding it
//
// Files. library.xml lists the persistent bags: root `library`, one `bag` per bag with the
// attributes name, type, persistent_str and a `metadata` child holding the bag's non-empty settings
// as attributes. Each bag's content lies in its ".bag" file (inside the folder of a folder bag, or
// the bag's own path otherwise). Both are written crash-safe (temporary file, flush, rename), so a
// crash leaves the old or the new file, never a partial one.
//
// Saving is debounced: a change marks its bag unsaved (addUnsaved) and triggers _saveExecutor,
// which saves 1.0 s after the last change, and at most 3.0 s after the first of a stream.
//
// Threads and locks.
// - Every public member may be called from any thread. load and the saves run on _taskGroup (at
//   priority -50) when started asynchronously.
// - Writers serialise on path locks (FilesystemScopedLock, LibraryLock, ResourceFSScopedLock),
//   taken before a bag copy is made. A lock on the library folder covers every bag. Path lock
//   order: the library folder before a bag's path before an image's path.
// - _mutex guards _bags, _unsaved, _postponed, the aux extension list and the item tags. It is a
//   leaf taken after any path lock, held only for map and set changes, never during file work,
//   signal emission or calls into other objects (bags, the cache connector).
// - Signals run on the thread that made the change, with no lock of the library held. The update
//   notice of a bag (OnBagUpdated) is posted to _taskGroup after the bag's lock is released.

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/ResourceID.h"
#include "base/resource/ResourceManager.h"
#include "base/thread/DelayedExecutor.h"
#include "base/thread/Mutex.h"
#include "base/thread/TaskGroup.h"
#include "mediadb/bags/Bag.h"
#include "mediadb/library/ImageManager.h"
#include "mediadb/library/LibraryLock.h"
#include "mediadb/library/ResourceProperty.h"
#include "util/Digest.h"
#include "util/Function.h"
#include "util/SharedPtr.h"
#include "util/Signal.h"

namespace qor {
class NodeIterator;
class XmlDocumentRapid;
}

namespace qor::mediadb {

class ILibraryCacheConnector;

class Library {
public:
    enum BagState { Regular = 0, Broken = 1 };
    // The move journal in the library folder (see recordMove).
    static constexpr const char* MovesFileName = ".moves.xml";

    using PropertyMap = std::map<std::string, SharedPtr<ResourceProperty>>;
    using Tags = std::map<std::string, std::string>;
    // Called by eraseImages for each file that could not go to the recycle bin, with the image id
    // (invalid for an auxiliary file) and the path.
    using EraseCallback = Function2<void, ResourceID, const std::string&>;

    // The library in folder `path` (normalised; must end in '/', asserted), which is created when
    // absent. Neither `imageManager` nor `cacheConnector` is owned; both must outlive the library.
    // Throws FilesystemException when the folder cannot be created.
    Library(ImageManager* imageManager, ILibraryCacheConnector* cacheConnector,
            std::string_view path);
    // Emits OnLibraryDestroying, shuts down (saving what is unsaved), logs "Library destructed".
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    // ---- Signals ----

    Signal0 OnBagListUpdated;     // a bag was created or removed; once after library.xml is read
    Signal0 OnLibraryLoaded;      // load ended (also when the index is missing or broken)
    Signal0 OnLibraryDestroying;  // first thing in the destructor
    Signal1<ResourceID> OnBagCreated;           // after createBag, once loaded
    Signal1<ResourceID> OnBagCreatedOrganizer;  // the same, for the library organizer
    Signal1<ResourceID> OnBagRemoved;           // after removeBag and eraseBag
    Signal1<ResourceID> OnBagPropertyUpdated;   // a ResourceProperty of the bag changed
    Signal1<ResourceID> OnBagStateChanged;      // setBagState changed the state
    Signal1<ResourceID> OnImageAdopted;         // for each image adopted into a bag
    // A committed bag copy: (bag id, whether its images changed). Posted to the task group after
    // the bag's lock was released, unless the library is shutting down.
    Signal2<ResourceID, bool> OnBagUpdated;

    // ---- Registration, before load ----

    // Registers a bag type: `creator` makes an empty bag of it (the library owns the result).
    // With uniqueNames two bags of the type may not have names that are equal upper-cased.
    // Asserts that the type is new.
    void registerBag(const std::string& type, Function0<Bag*> creator, bool uniqueNames);
    // Registers a settings key with a prototype; asserts that the key is new.
    void registerProperty(const ResourceProperty& prototype, const std::string& key);
    // A sidecar extension ("xmp", without the dot) that image moves and erases take along.
    void addAuxiliaryExtension(const std::string& ext);

    // ---- Load, save, shutdown ----

    // Reads library.xml and every persistent bag's file. Blocks. Never throws: a missing or broken
    // index gives an empty, loaded library (logged).
    void load();
    // load on the task group, at priority -50. Does not block.
    void loadAsync();
    // Writes the unsaved bags and then library.xml. Synchronous: on this thread, blocks (also
    // until a save running on another thread has ended); not to be called while this thread holds
    // a bag copy or a LibraryLock.
    // Asynchronous: posted to the task group when anything is unsaved. Then calls `callback`.
    void save(Function0<void> callback = {}, bool synchronous = false);
    // Writes one bag's file (blocks on its path lock); a broken bag is never written. Failures are
    // logged ("Failed to save bag: %*") and give false.
    bool saveBag(ResourceID id);
    // Writes library.xml. Failures are logged ("Writing of the library file failed: %*") and give
    // false.
    bool saveLibraryFile();
    // Marks a bag for the next save and triggers the debounced save; nothing before load ended.
    void addUnsaved(ResourceID id);
    // Stops the background work (the task group, the save debouncer) and saves synchronously.
    // Blocks. Idempotent.
    void shutdown();

    // ---- Queries ----

    // The library folder, normalised, ending in '/'.
    const std::string& path() const { return _path; }
    ImageManager* imageManager() const { return _imageManager; }
    ResourceManager* bagManager() const { return _bagManager.get(); }
    ILibraryCacheConnector* cacheConnector() const { return _cacheConnector; }
    bool isLoaded() const { return _loaded.load(); }
    bool isShuttingDown() const { return _shuttingDown.load(); }
    // The folder below the library folder where new folder bags go ("" for the folder itself).
    std::string initialBagPath() const;
    void setInitialBagPath(const std::string& path);

    // The current snapshot; null when unknown.
    SharedPtr<const Bag> bag(ResourceID id) const;
    SharedPtr<const Bag> bag(std::string_view localPath) const;
    // All bag ids (by type key, then id), or those of one type.
    std::vector<ResourceID> bags() const;
    std::vector<ResourceID> bags(const std::string& type) const;
    // The registered type keys.
    std::vector<std::string> bagTypes() const;
    // The container bag of an image; invalid when it has none (or the property is stale).
    ResourceID containerId(ResourceID imageId) const;
    ResourceID bagIdFromHash(int32_t hash) const;
    ResourceID bagIdFromPersistentString(std::string_view text) const;
    ResourceID bagIdFromLocalPath(std::string_view path) const;
    ResourceName getBagResourceName(ResourceID bagId) const;
    ResourceName getImageResourceName(ResourceID imageId) const;
    ResourceID getImageId(std::string_view localPath) const;
    // "Library::AssociativeBags" of the image.
    HashSet associativeBags(ResourceID imageId) const;
    // The associative bags whose image set holds the image (walks all bags).
    std::vector<ResourceID> getBagsForImage(ResourceID imageId) const;
    // The bag's settings (empty map when none).
    SharedPtr<const PropertyMap> propertyMap(ResourceID bagId) const;
    // The bag's setting `key`, created from the prototype on first use; its changes are saved. An
    // unregistered key asserts and gives null; an unknown bag gives a detached copy. The property
    // calls back into the library when it changes: do not change it after the library has gone.
    SharedPtr<ResourceProperty> getProperty(ResourceID bagId, const std::string& key);
    std::string itemTag(ResourceID imageId, const std::string& key) const;
    Tags itemTags(ResourceID imageId) const;
    // Stores a tag and marks the image's container unsaved.
    void setItemTag(ResourceID imageId, const std::string& key, const std::string& value);

    BagState bagState(ResourceID id) const;           // Regular for an unknown id
    std::string bagStateString(ResourceID id) const;  // "Regular" or "Broken"
    void setBagState(ResourceID id, BagState state);
    // Reads the bag's file again when it is broken (a broken bag repairs itself once its file is
    // readable) and gives the state.
    BagState checkBagState(ResourceID id);

    // ---- Bags ----

    // A mutable copy of the bag (see Bag::modifyLock); null for an unknown bag. The copy commits
    // into this library when it goes, so it must go before the library does.
    SharedPtr<Bag> modifyLockBag(const SharedPtr<const Bag>& bag, LibraryLockPtr lock = nullptr);
    SharedPtr<Bag> modifyLockBag(ResourceID id, LibraryLockPtr lock = nullptr);

    // Creates a bag of a registered type named `name` (trimmed). With an empty `path` it gets a
    // unique folder or file in the library folder ("Name", "Name_1" ...; a file gets the
    // extension "." + type); otherwise it adopts the existing `path`. Throws UniqueNameException
    // and LibraryException (texts in Library.cpp). Blocks on the library folder's lock.
    ResourceID createBag(const std::string& type, const std::string& name,
                         const std::string& path = "");
    // The same with a bag made by the caller (the library takes ownership).
    ResourceID createBag(Bag* bag, const std::string& name, const std::string& path = "");
    // Renames a bag and moves its folder or file to the new name. False (logged) on failure; the
    // name then stays.
    bool renameBag(ResourceID id, const std::string& name);
    // Moves a bag's folder or file into `folder` ("" its present parent) under `name` ("" its
    // name). Throws LibraryException or UniqueNameException.
    void moveBag(ResourceID id, const std::string& folder, const std::string& name);
    // Forgets a bag and its images; the files stay.
    void removeBag(ResourceID id);
    // Moves a bag's folder or file to the recycle bin and forgets it. With checkAliens a container
    // folder holding unknown files is refused (AliensInLibraryException).
    void eraseBag(ResourceID id, bool checkAliens = true);

    // ---- Images ----

    // Adds images to the ImageManager (no container).
    ResourceID addImage(const std::string& path);
    void addImages(const std::vector<std::string>& paths, std::vector<ResourceID>& ids);
    // Puts a file that lies in the bag's folder (path relative to it) into the bag. Invalid id when
    // the bag is broken or missing.
    ResourceID adoptImage(const std::string& relativePath, ResourceID containerBag);
    void adoptImages(std::vector<ResourceID>& ids, const std::vector<std::string>& relativePaths,
                     ResourceID targetBag);
    // Copies a file into a container bag (relativeFolder and name inside it; empty name: the
    // source's). Gives the new image id, invalid when the bag is broken. Throws LibraryException.
    // The data go to a hidden temporary in the destination folder (CopyTemporaryPrefix), which
    // takes the final name only when complete, so a failed or killed copy never leaves a partial
    // picture; permission bits and times follow the source. The item checksum of the source,
    // computed in the same pass, goes to *checksum when given.
    ResourceID copyImage(const std::string& sourcePath, ResourceID containerBag,
                         const std::string& relativeFolder, const std::string& name,
                         bool makeUnique, Digest* checksum = nullptr);
    ResourceID copyImage(ResourceID sourceId, ResourceID containerBag,
                         const std::string& relativeFolder, const std::string& name,
                         bool makeUnique, Digest* checksum = nullptr);
    // The name prefix of copyImage's temporaries. Each is locked (flock) by its copy while it
    // lives, so one whose lock can be taken belongs to a copy that was killed.
    static constexpr const char* CopyTemporaryPrefix = ".qor-import-";
    // Removes the temporaries of killed copies in `folder` (not below it); a live copy's is never
    // touched. Gives how many went; failures are logged and skipped.
    static size_t removeStaleCopies(const std::string& folder);
    void copyImages();  // not supported: asserts
    // Moves an image file into a container bag (or within its own). Throws LibraryException.
    void moveImage(ResourceID id, ResourceID containerBag, const std::string& relativeFolder,
                   const std::string& name, bool makeUnique);
    void moveImage(ResourceID id, const std::string& relativeFolder, const std::string& name,
                   bool makeUnique);
    // Moves images from their containers into another container bag, under one lock. Failures are
    // logged per image; the image stays where it was.
    void moveImages(const std::vector<ResourceID>& ids, ResourceID dstBag);
    // Forgets images (files stay).
    void removeImages(const std::vector<ResourceID>& ids);
    // Moves image files (and their auxiliary files) to the recycle bin and forgets the images whose
    // files went. `flag` and `callback` go to the recycle bin.
    void eraseImages(const std::vector<ResourceID>& ids, int flag = 0, EraseCallback callback = {});
    void removeImagesFromAssociativeBags(const std::vector<ResourceID>& ids);
    // Puts newId in the place of oldId in every associative bag that holds oldId (a bag that holds
    // both keeps newId only).
    void replaceImageInAssociativeBags(ResourceID oldId, ResourceID newId);
    // Adds the files at a "file:" url or path (a folder recursively) to the ImageManager; true when
    // it was a folder.
    bool scanForImages(const std::string& url, std::vector<ResourceID>& list);
    // The ImageManager renamed an image: associative bags holding it store its path, so they are
    // marked unsaved.
    void onImageRenamed(ResourceID imageId);

    // ---- For the bag classes ----

    // Runs fn after the bag's next commit has become visible (see notifyBagUpdated).
    void postponeFunction(ResourceID bagId, Function0<void> fn);
    // Runs the bag's postponed functions and posts OnBagUpdated. Called after a bag's lock is
    // released.
    void notifyBagUpdated(ResourceID id, bool imagesChanged);
    // Emits OnBagPropertyUpdated and marks the bag unsaved.
    void notifyBagPropertyUpdated(ResourceID id);
    // "Library::BagId" of an image as stored (no check against the bag).
    ResourceID imageContainerProperty(ResourceID imageId) const;
    void setImageContainerProperty(ResourceID imageId, ResourceID bagId);
    void clearImageContainerProperty(ResourceID imageId);
    // Adds / removes a bag in "Library::AssociativeBags" of an image.
    void addAssociativeBagOfImage(ResourceID imageId, ResourceID bagId);
    void removeAssociativeBagOfImage(ResourceID imageId, ResourceID bagId);
    // The file that holds a bag's content: "<folder>/.bag" for a folder bag, the path itself
    // otherwise; "" when the bag has no path.
    static std::string bagFilePath(const Bag& bag, const std::string& localPath);
    // The two kinds of ownership, told by what every bag class declares: a folder bag is a
    // container (ContainerBag: it owns the files of its images, which lie in its folder); a
    // persistent bag that is a file is associative (AssociativeBag: it refers to images of
    // containers); the rest (procedural, transient) own nothing.
    static bool isContainer(const Bag& bag) { return bag.isFolder(); }
    static bool isAssociative(const Bag& bag) { return !bag.isFolder() && bag.persistent(); }

private:
    struct BagTypeRecord {
        Function0<Bag*> creator;
        bool uniqueNames = false;
    };

    // Creates the bags that library.xml lists; false when the file is missing or broken (after
    // its log line).
    bool readBagList();
    ResourceID createBagOnLoad(const std::string& type, const std::string& name,
                               const ResourceName& resourceName);
    void addBag(const std::string& type, ResourceID id);
    // Whether the bag is in _bags (created and not removed).
    bool isListed(ResourceID id) const;
    void loadBagSettings(ResourceID id, const NodeIterator& node);
    void saveBagSettings(ResourceID id, NodeIterator& node) const;
    void loadBag(ResourceID id, bool checkOnly);
    // Sets the snapshot of a bag (commit).
    // False when the bag is no longer a resource.
    bool storeBag(ResourceID id, SharedPtr<const Bag> bag);
    friend class Bag;

    void checkUniqueName(const std::string& type, const std::string& name, ResourceID except) const;
    std::string uniqueBagPath(const std::string& base, const std::string& name,
                              const std::string& extension) const;
    void internalMoveBag(ResourceID id, const std::string& folder, const std::string& name);
    ResourceID internalAdoptImage(const std::string& relativePath, const SharedPtr<Bag>& bag);
    void forgetBag(ResourceID id, const SharedPtr<const Bag>& bag);

    // The move journal. A move of a bag or an image file, and the creation of a bag, change the
    // disk at once but library.xml and the .bag files only at the next save; a crash in between
    // would leave the index naming a path that is gone, or a bag folder that no index names. So
    // each is first noted in the journal file (MovesFileName, written crash-safe): a move as
    // (old path, new path), a creation as ("", path). A synchronous save that wrote every bag it
    // took and library.xml drops the entries noted before it began. load takes back the bags
    // created since the last save, follows each bag and image whose path is gone through the
    // noted moves to where it lies now, and saves the library.
    using Moves = std::vector<std::pair<std::string, std::string>>;
    void recordMoves(const Moves& moves);
    void writeMoves();
    // The journal as the last run left it (also kept in _pendingMoves until a save ends it).
    Moves readMoves();
    // Where a file or folder that the saved files name at `path` lies now: the moves that took
    // it (or a folder above it) away, followed to the last place on the way that exists; "" when
    // none does.
    static std::string followMoves(const std::string& path, const Moves& moves);
    // Where the thing at `path` just before moves[first] is after the moves from `first` on: the
    // last place on its way that exists (the journal notes a batch before its files move, so a
    // crash may stop it half way), or "" when none does.
    static std::string followFrom(const std::string& path, size_t first, const Moves& moves);
    // Loads the bag's own file of the bag at `at` (its folder's ".bag", or the file itself); false
    // when there is none or it is no bag.
    static bool loadOwnBagFile(const std::string& at, XmlDocumentRapid& doc);
    // Each step recovers what the journal tells and returns true when it changed anything. A moved
    // bag takes the name its own file gives (renameBag writes it at once).
    bool recoverMovedBags(const Moves& moves);
    bool recoverCreatedBags(const Moves& moves);
    // After the bags are loaded: an image takes the path where its file lies now, and the folder
    // bag that holds that path; of two entries for one file the stale one goes.
    bool recoverMovedImages(const Moves& moves);
    // The folder bag whose folder holds `path` most closely; invalid when none does.
    ResourceID folderBagHolding(const std::string& path) const;
    class ContainerCopy;
    // Takes an image out of its container (through `copies`), tells the cache connector and
    // removes it from the ImageManager.
    void forgetImage(ResourceID id, ContainerCopy& copies, const std::string& path);
    // True when `path` lies below `folder`.
    static bool isBelow(const std::string& path, const std::string& folder);
    void moveAuxiliaryFiles(const std::string& oldPath, const std::string& newPath);
    std::vector<std::string> auxiliaryExtensions() const;
    bool isUniqueType(const std::string& type) const;

    thread::TaskGroup _taskGroup;
    ILibraryCacheConnector* const _cacheConnector;   // not owned
    std::string _path;                               // normalised, ends in '/'
    ScopedPtr<ResourceManager> _bagManager;          // bag resources, names relative to _path
    std::map<std::string, BagTypeRecord> _bagTypes;  // written only before load
    std::map<std::string, ScopedPtr<ResourceProperty>> _bpRegister;  // written only before load

    // Serialises synchronous saves, so that one returns only after the bags that an earlier one
    // took are written. Held for the whole save, file work included; taken before any path lock.
    thread::Mutex _saveMutex;
    // Serialises the writes of library.xml, so that a later snapshot is never overwritten by an
    // earlier one. Held during the write; taken after any path lock, before _mutex.
    thread::Mutex _libraryFileMutex;
    // Serialises the writes of the move journal; taken after path locks, before _mutex.
    thread::Mutex _movesFileMutex;
    mutable thread::Mutex _mutex QOR_ACQUIRED_AFTER(
        _libraryFileMutex);  // guards the fields below; a leaf (see the class comment)
    std::vector<std::string> _auxExtensions QOR_GUARDED_BY(_mutex);
    std::map<ResourceID, std::vector<Function0<void>>> _postponed QOR_GUARDED_BY(_mutex);
    std::string _initialBagPath QOR_GUARDED_BY(_mutex);
    std::map<std::string, SharedPtr<std::set<ResourceID>>> _bags QOR_GUARDED_BY(_mutex);
    std::set<ResourceID> _unsaved QOR_GUARDED_BY(_mutex);
    // The journal's entries, oldest first (see recordMoves).
    Moves _pendingMoves QOR_GUARDED_BY(_mutex);

    ImageManager* const _imageManager;  // not owned
    ResourcePropertyKey<SharedPtr<const Bag>> _bagProperty;
    ResourcePropertyKey<SharedPtr<PropertyMap>> _bagSettingsProperty;
    ResourcePropertyKey<BagState> _bagStateProperty;
    ResourcePropertyKey<ResourceID> _bagIdProperty;
    ResourcePropertyKey<Tags> _tagsProperty;
    ResourcePropertyKey<HashSet> _associativeBagsProperty;

    std::atomic<bool> _loaded{false};
    std::atomic<bool> _shuttingDown{false};
    std::atomic<bool> _shutDown{false};
    Connection _renameConnection;
    ScopedPtr<thread::DelayedExecutor> _saveExecutor;
};

}  // namespace qor::mediadb
