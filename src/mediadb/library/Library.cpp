// Library: construction, registration, queries, properties, load and save. Bag operations are in
// LibraryBags.cpp, image operations in LibraryImages.cpp.

#include "mediadb/library/Library.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/Log.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceFSScopedLock.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/library/LibraryExceptions.h"

namespace qor::mediadb {

namespace {

constexpr int kBackgroundPriority = -50;
constexpr const char* kLibraryFileName = "library.xml";

std::string withTrailingSeparator(std::string path) {
    if (path.empty() || path.back() != '/') path += '/';
    return path;
}

}  // namespace

// ---- Construction ----

Library::Library(ImageManager* imageManager, ILibraryCacheConnector* cacheConnector,
                 std::string_view path)
    : _taskGroup(nullptr, "Library"),
      _cacheConnector(cacheConnector),
      _path(filesystem::normalizePathUnix(path)),
      _imageManager(imageManager) {
    QOR_ASSERT(!_path.empty());
    QOR_ASSERT(!_path.empty() && _path.back() == '/');
    _path = withTrailingSeparator(_path);
    _bagManager = std::make_unique<ResourceManager>(std::make_shared<AbsRelNameHandler>(_path),
                                                    ResourceManager::IdsByHash);
    filesystem::createDirectoryFromUrl(_path);

    _bagProperty = _bagManager->registerProperty<SharedPtr<const Bag>>("Library::Bag");
    _bagSettingsProperty =
        _bagManager->registerProperty<SharedPtr<PropertyMap>>("Library::BagSettings");
    _bagStateProperty = _bagManager->registerProperty<BagState>("Library::BagState");
    _bagIdProperty = _imageManager->registerProperty<ResourceID>("Library::BagId");
    _tagsProperty = _imageManager->registerProperty<Tags>("Library::Tags");
    _associativeBagsProperty = _imageManager->registerProperty<HashSet>("Library::AssociativeBags");

    _renameConnection = _imageManager->resourceRenamed.connect(
        [this](ResourceID id, const ResourceName&) { onImageRenamed(id); });
    _saveExecutor = std::make_unique<thread::DelayedExecutor>([this] { save({}, true); }, 1.0,
                                                              kBackgroundPriority, 3.0);
    QOR_LOG(LogInfo, "Library initialized");
}

Library::~Library() {
    OnLibraryDestroying.emit();
    shutdown();
    _renameConnection.disconnect();
    _bagManager.reset();
    QOR_LOG(LogInfo, "Library destructed");
}

void Library::shutdown() {
    if (_shutDown.exchange(true)) return;
    _shuttingDown = true;
    _taskGroup.cancel();
    _taskGroup.wait();
    _saveExecutor->stop();
    save({}, true);
}

// ---- Registration ----

void Library::registerBag(const std::string& type, Function0<Bag*> creator, bool uniqueNames) {
    ScopedLock lock(_mutex);
    QOR_ASSERT_MSG(_bagTypes.count(type) == 0 && _bags.count(type) == 0,
                   "bag type '%*' registered twice", type);
    if (_bagTypes.count(type)) return;
    _bagTypes[type] = BagTypeRecord{std::move(creator), uniqueNames};
    _bags[type] = std::make_shared<std::set<ResourceID>>();
}

void Library::registerProperty(const ResourceProperty& prototype, const std::string& key) {
    QOR_ASSERT_MSG(_bpRegister.count(key) == 0, "bag property '%*' registered twice", key);
    if (_bpRegister.count(key)) return;
    _bpRegister[key] = std::make_unique<ResourceProperty>(prototype);
}

void Library::addAuxiliaryExtension(const std::string& ext) {
    ScopedLock lock(_mutex);
    _auxExtensions.push_back(ext);
}

std::vector<std::string> Library::auxiliaryExtensions() const {
    ScopedLock lock(_mutex);
    return _auxExtensions;
}

bool Library::isUniqueType(const std::string& type) const {
    auto it = _bagTypes.find(type);
    return it != _bagTypes.end() && it->second.uniqueNames;
}

std::vector<std::string> Library::bagTypes() const {
    std::vector<std::string> types;
    for (const auto& [type, record] : _bagTypes) types.push_back(type);
    return types;
}

// ---- Queries ----

std::string Library::initialBagPath() const {
    ScopedLock lock(_mutex);
    return _initialBagPath;
}

void Library::setInitialBagPath(const std::string& path) {
    ScopedLock lock(_mutex);
    _initialBagPath = path;
}

SharedPtr<const Bag> Library::bag(ResourceID id) const {
    if (!id.isValid()) return nullptr;
    return _bagManager->property(id, _bagProperty);
}

SharedPtr<const Bag> Library::bag(std::string_view localPath) const {
    return bag(bagIdFromLocalPath(localPath));
}

std::vector<ResourceID> Library::bags() const {
    std::vector<ResourceID> ids;
    ScopedLock lock(_mutex);
    for (const auto& [type, set] : _bags) ids.insert(ids.end(), set->begin(), set->end());
    return ids;
}

std::vector<ResourceID> Library::bags(const std::string& type) const {
    ScopedLock lock(_mutex);
    auto it = _bags.find(type);
    if (it == _bags.end()) return {};
    return std::vector<ResourceID>(it->second->begin(), it->second->end());
}

ResourceID Library::containerId(ResourceID imageId) const {
    ResourceID bagId = imageContainerProperty(imageId);
    if (!bagId.isValid()) return InvalidResourceID;
    SharedPtr<const Bag> container = bag(bagId);
    if (!container || !container->containsImage(imageId)) return InvalidResourceID;
    return bagId;
}

ResourceID Library::bagIdFromHash(int32_t hash) const { return _bagManager->makeID(hash); }

ResourceID Library::bagIdFromPersistentString(std::string_view text) const {
    if (text.empty()) return InvalidResourceID;
    try {
        return _bagManager->find(_bagManager->nameFromPersistentString(text));
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Library: no bag named '%*': %*", text, e.what());
        return InvalidResourceID;
    }
}

ResourceID Library::bagIdFromLocalPath(std::string_view path) const {
    if (path.empty()) return InvalidResourceID;
    return _bagManager->findLocalPath(path);
}

ResourceName Library::getBagResourceName(ResourceID bagId) const {
    ResourceName name;
    if (bagId.isValid()) _bagManager->tryGetName(bagId, name);
    return name;
}

ResourceName Library::getImageResourceName(ResourceID imageId) const {
    ResourceName name;
    if (imageId.isValid()) _imageManager->tryGetName(imageId, name);
    return name;
}

ResourceID Library::getImageId(std::string_view localPath) const {
    if (localPath.empty()) return InvalidResourceID;
    return _imageManager->findLocalPath(localPath);
}

HashSet Library::associativeBags(ResourceID imageId) const {
    return _imageManager->property(imageId, _associativeBagsProperty);
}

std::vector<ResourceID> Library::getBagsForImage(ResourceID imageId) const {
    std::vector<ResourceID> result;
    for (const ResourceID& id : bags()) {
        SharedPtr<const Bag> b = bag(id);
        if (b && isAssociative(*b) && b->containsImage(imageId)) result.push_back(id);
    }
    return result;
}

std::string Library::itemTag(ResourceID imageId, const std::string& key) const {
    Tags tags = itemTags(imageId);
    auto it = tags.find(key);
    return it == tags.end() ? std::string() : it->second;
}

Library::Tags Library::itemTags(ResourceID imageId) const {
    ScopedLock lock(_mutex);
    return _imageManager->property(imageId, _tagsProperty);
}

void Library::setItemTag(ResourceID imageId, const std::string& key, const std::string& value) {
    {
        ScopedLock lock(_mutex);
        _imageManager->modifyProperty(imageId, _tagsProperty,
                                      [&](Tags& tags) { tags[key] = value; });
    }
    ResourceID container = containerId(imageId);
    if (container.isValid()) addUnsaved(container);
}

ResourceID Library::imageContainerProperty(ResourceID imageId) const {
    return _imageManager->property(imageId, _bagIdProperty, InvalidResourceID);
}

void Library::setImageContainerProperty(ResourceID imageId, ResourceID bagId) {
    _imageManager->setProperty(imageId, _bagIdProperty, bagId);
}

void Library::clearImageContainerProperty(ResourceID imageId) {
    _imageManager->clearProperty(imageId, _bagIdProperty);
}

void Library::addAssociativeBagOfImage(ResourceID imageId, ResourceID bagId) {
    _imageManager->modifyProperty(imageId, _associativeBagsProperty,
                                  [&](HashSet& set) { set.insert(bagId); });
}

void Library::removeAssociativeBagOfImage(ResourceID imageId, ResourceID bagId) {
    _imageManager->modifyProperty(imageId, _associativeBagsProperty,
                                  [&](HashSet& set) { set.erase(bagId); });
}

// ---- Bag state and properties ----

Library::BagState Library::bagState(ResourceID id) const {
    if (!id.isValid()) return Regular;
    return _bagManager->property(id, _bagStateProperty, Regular);
}

std::string Library::bagStateString(ResourceID id) const {
    return bagState(id) == Broken ? "Broken" : "Regular";
}

void Library::setBagState(ResourceID id, BagState state) {
    bool changed = false;
    _bagManager->modifyProperty(id, _bagStateProperty, [&](BagState& current) {
        changed = current != state;
        current = state;
    });
    if (changed) OnBagStateChanged.emit(id);
}

Library::BagState Library::checkBagState(ResourceID id) {
    loadBag(id, true);
    return bagState(id);
}

SharedPtr<const Library::PropertyMap> Library::propertyMap(ResourceID bagId) const {
    SharedPtr<PropertyMap> map = _bagManager->property(bagId, _bagSettingsProperty);
    if (!map) return std::make_shared<const PropertyMap>();
    return map;
}

SharedPtr<ResourceProperty> Library::getProperty(ResourceID bagId, const std::string& key) {
    auto proto = _bpRegister.find(key);
    QOR_ASSERT_MSG(proto != _bpRegister.end(), "bag property '%*' is not registered", key);
    if (proto == _bpRegister.end()) return nullptr;
    if (!bagId.isValid() || !_bagManager->contains(bagId))
        return std::make_shared<ResourceProperty>(*proto->second);
    SharedPtr<ResourceProperty> result;
    // The map is replaced, never changed in place, so readers of propertyMap keep a stable one.
    _bagManager->modifyProperty(bagId, _bagSettingsProperty, [&](SharedPtr<PropertyMap>& map) {
        if (map) {
            auto it = map->find(key);
            if (it != map->end()) {
                result = it->second;
                return;
            }
        }
        auto copy = map ? std::make_shared<PropertyMap>(*map) : std::make_shared<PropertyMap>();
        result = std::make_shared<ResourceProperty>(*proto->second);
        result->setLibrary(this);
        result->setChangeCallback([this, bagId] { notifyBagPropertyUpdated(bagId); });
        (*copy)[key] = result;
        map = std::move(copy);
    });
    return result;
}

void Library::notifyBagPropertyUpdated(ResourceID id) {
    OnBagPropertyUpdated.emit(id);
    addUnsaved(id);
}

void Library::loadBagSettings(ResourceID id, const NodeIterator& node) {
    auto map = std::make_shared<PropertyMap>();
    for (XmlAttribute attr : node.attributes()) {
        auto proto = _bpRegister.find(std::string(attr.name));
        if (proto == _bpRegister.end()) continue;  // keys nobody registered are dropped
        auto property = std::make_shared<ResourceProperty>(*proto->second);
        property->setChangeCallback([this, id] { notifyBagPropertyUpdated(id); });
        property->setLibrary(this);
        property->fromString(attr.value);
        (*map)[proto->first] = std::move(property);
    }
    _bagManager->setProperty(id, _bagSettingsProperty, std::move(map));
}

void Library::saveBagSettings(ResourceID id, NodeIterator& node) const {
    SharedPtr<const PropertyMap> map = propertyMap(id);
    for (const auto& [key, property] : *map)
        if (!property->empty()) node.appendAttribute(key, property->toString());
}

// ---- Load ----

void Library::loadAsync() {
    _taskGroup.post([this] { load(); }, kBackgroundPriority);
}

void Library::load() {
    QOR_ASSERT(!_bagTypes.empty());
    const bool listed = readBagList();
    if (_shuttingDown) return;
    const Moves moves = readMoves();
    bool recovered = false;
    if (!moves.empty()) {
        // Moved bags first, so that a created bag that moved since is not taken for a new one.
        recovered = recoverMovedBags(moves);
        recovered |= recoverCreatedBags(moves);
    }
    if (!listed && !recovered) {
        // The normal first start, or an index that cannot be read: an empty library.
        _loaded = true;
        OnLibraryLoaded.emit();
        return;
    }
    OnBagListUpdated.emit();
    for (const ResourceID& id : bags()) {
        if (_shuttingDown) return;
        SharedPtr<const Bag> b = bag(id);
        if (b && b->persistent()) loadBag(id, false);
    }
    _loaded = true;
    if (!moves.empty()) recovered |= recoverMovedImages(moves);
    if (recovered) {
        // Write every bag and the index as they are now; that also ends the journal's entries.
        {
            ScopedLock lock(_mutex);
            for (const auto& [type, set] : _bags) _unsaved.insert(set->begin(), set->end());
        }
        save({}, true);
    }
    OnLibraryLoaded.emit();
    QOR_LOG(LogInfo, "Library loaded");
}

bool Library::readBagList() {
    XmlDocumentRapid doc;
    if (!doc.load(_path + kLibraryFileName, true)) {
        QOR_LOG(LogInfo, "Cannot open library xml file");
        return false;
    }
    NodeIterator root = doc.root();
    if (!root || root.name() != "library") {
        QOR_LOG(LogWarning, "Library xml file seems to be broken");
        return false;
    }
    for (NodeIterator child : root.children()) {
        if (_shuttingDown) break;
        if (child.name() != "bag") continue;
        try {
            std::string name(child.attribute("name"));
            std::string type(child.attribute("type"));
            std::string persistent(child.attribute("persistent_str"));
            ResourceID id =
                createBagOnLoad(type, name, _bagManager->nameFromPersistentString(persistent));
            NodeIterator first = child.firstChild();
            if (id.isValid() && first && first.name() == "metadata") loadBagSettings(id, first);
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Error in library xml file: %*", e.what());
        }
    }
    return true;
}

ResourceID Library::createBagOnLoad(const std::string& type, const std::string& name,
                                    const ResourceName& resourceName) {
    FilesystemScopedLock lock(resourceName.localPath());
    auto record = _bagTypes.find(type);
    if (record == _bagTypes.end()) {
        QOR_LOG(LogWarning, "loadBag: Unknown bag type '%*'", type);
        return InvalidResourceID;
    }
    ScopedPtr<Bag> bag(record->second.creator());
    QOR_ASSERT_TEXT(bag != nullptr, "init");
    if (!bag) return InvalidResourceID;
    bag->setName(name);
    bag->setLibrary(this);
    bag->_id = _bagManager->add(resourceName);
    QOR_ASSERT(bag->_id != InvalidResourceID);
    if (!bag->_id.isValid()) return InvalidResourceID;
    const ResourceID id = bag->_id;
    storeBag(id, SharedPtr<const Bag>(bag.release()));
    addBag(type, id);
    return id;
}

bool Library::isListed(ResourceID id) const {
    ScopedLock lock(_mutex);
    for (const auto& [type, set] : _bags)
        if (set->count(id)) return true;
    return false;
}

void Library::addBag(const std::string& type, ResourceID id) {
    ScopedLock lock(_mutex);
    auto& set = _bags[type];
    if (!set) set = std::make_shared<std::set<ResourceID>>();
    const bool inserted = set->insert(id).second;
    QOR_ASSERT_MSG(inserted, "bag %* is listed already", id);
}

bool Library::storeBag(ResourceID id, SharedPtr<const Bag> bag) {
    return _bagManager->setProperty(id, _bagProperty, std::move(bag));
}

bool Library::isBelow(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
}

std::string Library::bagFilePath(const Bag& bag, const std::string& localPath) {
    if (localPath.empty()) return {};
    return bag.isFolder() ? filesystem::pathJoin(localPath, ".bag") : localPath;
}

void Library::loadBag(ResourceID id, bool checkOnly) {
    SharedPtr<const Bag> b = bag(id);
    if (!b || !b->persistent()) return;
    // Lock the bag's file. The bag may move while we wait for the lock: then lock its new place.
    LibraryLockPtr lock;
    std::string filePath;
    for (;;) {
        std::string path = getBagResourceName(id).localPath();
        if (path.empty()) return;
        filePath = bagFilePath(*b, path);
        lock = LibraryLock::acquire(filePath, 1);
        if (getBagResourceName(id).localPath() == path) break;
        lock.reset();
    }
    XmlDocumentRapid doc;
    if (!doc.load(filePath, false)) {
        setBagState(id, Broken);
        return;
    }
    if (!checkOnly || bagState(id) == Broken) {
        try {
            SharedPtr<Bag> copy = modifyLockBag(id, lock);
            if (copy) {
                copy->clearContent();
                copy->fromXml(doc.root());
            }
        } catch (const std::exception& e) {
            QOR_ASSERT_MSG(0, "reading bag %*: %*", filePath, e.what());
        } catch (...) {
            QOR_ASSERT_MSG(0, "reading bag %*", filePath);
        }
    }
    setBagState(id, Regular);
}

// ---- Save ----

void Library::addUnsaved(ResourceID id) {
    if (!_loaded) return;
    {
        ScopedLock lock(_mutex);
        _unsaved.insert(id);
    }
    _saveExecutor->trigger();
}

void Library::save(Function0<void> callback, bool synchronous) {
    if (!synchronous) {
        bool empty;
        {
            ScopedLock lock(_mutex);
            empty = _unsaved.empty();
        }
        if (!empty) {
            _taskGroup.post([this, callback] { save(callback, true); }, kBackgroundPriority);
            return;
        }
    } else {
        ScopedLock saving(_saveMutex);
        std::set<ResourceID> unsaved;
        Moves moves;
        {
            // A move marks its bags unsaved before it lets go of the library folder, so the moves
            // taken here are written by this save.
            FilesystemScopedLock noMove(_path, FilesystemScopedLock::Shared);
            ScopedLock lock(_mutex);
            unsaved.swap(_unsaved);
            moves = _pendingMoves;
        }
        if (!unsaved.empty()) {
            bool saved = true;
            for (const ResourceID& id : unsaved) saved &= saveBag(id);
            saved &= saveLibraryFile();
            QOR_LOG(LogInfo, "SAVING BAGS FINISHED");
            if (saved && !moves.empty()) {
                {
                    // The entries taken are still the front of the journal, less those that a
                    // removed bag took out meanwhile (forgetBag): drop what is left of them.
                    ScopedLock lock(_mutex);
                    auto kept = _pendingMoves.begin();
                    for (const auto& move : moves)
                        if (kept != _pendingMoves.end() && *kept == move) ++kept;
                    _pendingMoves.erase(_pendingMoves.begin(), kept);
                }
                writeMoves();
            }
        }
    }
    if (callback) callback();
}

bool Library::saveBag(ResourceID id) {
    try {
        if (!_bagManager->contains(id)) return true;
        ResourceFSScopedLock lock(_bagManager.get(), id, 1);
        SharedPtr<const Bag> b = bag(id);
        if (!b || bagState(id) == Broken || !b->persistent() || !isListed(id)) return true;
        const std::string filePath = bagFilePath(*b, lock.path());
        XmlDocumentRapid doc;
        NodeIterator root = doc.create("bag");
        root.appendAttribute("name", b->name())
            .appendAttribute("type", b->bagType())
            .appendAttribute("persistent_str", getBagResourceName(id).persistentString());
        NodeIterator metadata = root.appendChild("metadata");
        saveBagSettings(id, metadata);
        b->toXml(root);
        if (!doc.save(filePath, XmlIndent, XmlDurable))
            throw LibraryException("cannot write " + filePath);
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Failed to save bag: %*", e.what());
        return false;
    }
}

bool Library::saveLibraryFile() {
    ScopedLock fileLock(_libraryFileMutex);
    std::map<std::string, std::set<ResourceID>> bags;
    {
        ScopedLock lock(_mutex);
        for (const auto& [type, set] : _bags) bags[type] = *set;
    }
    XmlDocumentRapid doc;
    NodeIterator root = doc.create("library");
    for (const auto& [type, ids] : bags) {
        for (const ResourceID& id : ids) {
            try {
                SharedPtr<const Bag> b = bag(id);
                if (!b) throw LibraryException("bag " + std::to_string(id.id()) + " is gone");
                if (!b->persistent()) continue;
                NodeIterator node = root.appendChild("bag");
                node.appendAttribute("name", b->name())
                    .appendAttribute("type", b->bagType())
                    .appendAttribute("persistent_str", _bagManager->persistentString(id));
                NodeIterator metadata = node.appendChild("metadata");
                saveBagSettings(id, metadata);
            } catch (const std::exception& e) {
                QOR_LOG(LogWarning, "Failed to get bag for saving: %*", e.what());
            }
        }
    }
    const std::string file = _path + kLibraryFileName;
    if (doc.save(file, XmlIndent, XmlDurable)) {
        QOR_LOG(LogInfo, "Library saved");
        return true;
    }
    QOR_LOG(LogError, "Writing of the library file failed: %*", file);
    QOR_ASSERT_MSG(0, "Writing of the library file failed: %*", file);
    return false;
}

// ---- Move journal ----

void Library::recordMoves(const Moves& moves) {
    if (moves.empty()) return;
    {
        ScopedLock lock(_mutex);
        _pendingMoves.insert(_pendingMoves.end(), moves.begin(), moves.end());
    }
    writeMoves();
}

void Library::writeMoves() {
    ScopedLock fileLock(_movesFileMutex);
    Moves moves;
    {
        ScopedLock lock(_mutex);
        moves = _pendingMoves;
    }
    const std::string file = _path + MovesFileName;
    if (moves.empty()) {
        try {
            filesystem::removeFile(file);
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Library: cannot remove the move journal: %*", e.what());
        }
        return;
    }
    auto persistent = [this](const std::string& path) {
        return _bagManager->nameFromLocalPath(path).persistentString();
    };
    XmlDocumentRapid doc;
    NodeIterator root = doc.create("moves");
    for (const auto& [from, to] : moves) {
        if (from.empty())
            root.appendChild("create").appendAttribute("path", persistent(to));
        else
            root.appendChild("move")
                .appendAttribute("from", persistent(from))
                .appendAttribute("to", persistent(to));
    }
    if (!doc.save(file, XmlIndent, XmlDurable))
        QOR_LOG(LogWarning, "Library: cannot write the move journal %*", file);
}

Library::Moves Library::readMoves() {
    Moves moves;
    XmlDocumentRapid doc;
    if (!doc.load(_path + MovesFileName, true)) return moves;
    auto local = [this](std::string_view persistent) {
        return _bagManager->nameFromPersistentString(persistent).localPath();
    };
    for (NodeIterator entry : doc.root().children()) {
        try {
            if (entry.name() == "move")
                moves.emplace_back(local(entry.attribute("from")), local(entry.attribute("to")));
            else if (entry.name() == "create")
                moves.emplace_back(std::string(), local(entry.attribute("path")));
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Library: bad entry in the move journal: %*", e.what());
        }
    }
    ScopedLock lock(_mutex);
    _pendingMoves = moves;  // kept until a save has written where everything is now
    return moves;
}

std::string Library::followFrom(const std::string& path, size_t first, const Moves& moves) {
    std::string at = path;
    std::string found = filesystem::exists(at) ? at : std::string();
    for (size_t i = first; i < moves.size(); ++i) {
        const auto& [from, to] = moves[i];
        if (from.empty()) continue;
        if (at == from)
            at = to;
        else if (isBelow(at, from))
            at = to + at.substr(from.size());
        else
            continue;
        if (filesystem::exists(at)) found = at;
    }
    return found;
}

std::string Library::followMoves(const std::string& path, const Moves& moves) {
    // The latest move that took the path away is the one that counts, since nothing came back to
    // it (it is gone); an earlier one when the way from the latest ends nowhere.
    for (size_t i = moves.size(); i-- > 0;) {
        const std::string& from = moves[i].first;
        if (from.empty() || (path != from && !isBelow(path, from))) continue;
        std::string at = followFrom(path, i, moves);
        if (!at.empty()) return at;
    }
    return {};
}

bool Library::loadOwnBagFile(const std::string& at, XmlDocumentRapid& doc) {
    const std::string file = filesystem::isDirectory(at) ? filesystem::pathJoin(at, ".bag") : at;
    if (!filesystem::exists(file) || !doc.load(file, true)) return false;
    NodeIterator root = doc.root();
    return root && root.name() == "bag";
}

bool Library::recoverMovedBags(const Moves& moves) {
    bool recovered = false;
    for (const ResourceID& id : bags()) {
        const std::string start = _bagManager->localPath(id);
        if (start.empty() || filesystem::exists(start)) continue;
        const std::string at = followMoves(start, moves);
        if (at.empty() || bagIdFromLocalPath(at).isValid()) continue;
        if (!_bagManager->rename(id, _bagManager->nameFromLocalPath(at))) continue;
        QOR_LOG(LogWarning, "Library: bag %* found at %* after an interrupted move", start, at);
        recovered = true;
        // A rename writes the bag's own file at once: its name there is the newer one.
        XmlDocumentRapid doc;
        if (!loadOwnBagFile(at, doc)) continue;
        const std::string name(doc.root().attribute("name"));
        if (SharedPtr<const Bag> b = bag(id); b && !name.empty() && name != b->name())
            if (SharedPtr<Bag> copy = modifyLockBag(b)) copy->setName(name);
    }
    return recovered;
}

bool Library::recoverCreatedBags(const Moves& moves) {
    bool recovered = false;
    for (size_t i = 0; i < moves.size(); ++i) {
        if (!moves[i].first.empty()) continue;
        const std::string at = followFrom(moves[i].second, i + 1, moves);
        if (at.empty() || bagIdFromLocalPath(at).isValid()) continue;
        // The bag's own file tells what it is; createBag writes it before it returns.
        XmlDocumentRapid doc;
        if (!loadOwnBagFile(at, doc)) continue;
        NodeIterator root = doc.root();
        try {
            const ResourceID id = createBagOnLoad(std::string(root.attribute("type")),
                                                  std::string(root.attribute("name")),
                                                  _bagManager->nameFromLocalPath(at));
            if (!id.isValid()) continue;
            if (NodeIterator first = root.firstChild(); first && first.name() == "metadata")
                loadBagSettings(id, first);
            QOR_LOG(LogWarning, "Library: bag %* created before an interrupted save taken back",
                    at);
            recovered = true;
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Library: cannot take back the bag at %*: %*", at, e.what());
        }
    }
    return recovered;
}

ResourceID Library::folderBagHolding(const std::string& path) const {
    ResourceID holder;
    size_t depth = 0;
    for (const ResourceID& id : bags()) {
        SharedPtr<const Bag> b = bag(id);
        if (!b || !isContainer(*b)) continue;
        const std::string folder = _bagManager->localPath(id);
        if (isBelow(path, folder) && folder.size() > depth) {
            holder = id;
            depth = folder.size();
        }
    }
    return holder;
}

bool Library::recoverMovedImages(const Moves& moves) {
    bool recovered = false;
    for (const ResourceID& image : _imageManager->ids()) {
        ResourceName name;
        if (!_imageManager->tryGetName(image, name)) continue;  // a stale twin removed below
        const std::string path = name.localPath();
        if (filesystem::exists(path)) continue;
        const std::string at = followMoves(path, moves);
        if (at.empty()) continue;
        recovered = true;
        QOR_LOG(LogWarning, "Library: image %* found at %* after an interrupted move", path, at);
        ResourceID kept = image;
        const ResourceID twin = _imageManager->findLocalPath(at);
        if (twin.isValid() && twin != image) {
            // A bag saved after the move names the picture by its new path already: that entry
            // stays, the stale one goes, and the associative bags take the one that stays.
            if (SharedPtr<Bag> copy = modifyLockBag(containerId(image)))
                if (copy->containsImage(image)) copy->removeImage(image);
            replaceImageInAssociativeBags(image, twin);
            _imageManager->remove(image);
            kept = twin;
        } else {
            _imageManager->rename(image, _imageManager->nameFromLocalPath(at));
        }
        // Into the bag whose folder holds the file now.
        const ResourceID target = folderBagHolding(at);
        const ResourceID source = containerId(kept);
        if (!target.isValid() || target == source) continue;
        if (SharedPtr<Bag> copy = modifyLockBag(source))
            if (copy->containsImage(kept)) copy->removeImage(kept);
        if (SharedPtr<Bag> copy = modifyLockBag(target)) copy->insertImage(kept);
    }
    // A picture whose old bag was saved without it before its new bag was saved with it: no
    // container names it, though the journal knows where it went, and an associative bag may
    // name it there. It goes into the bag whose folder holds it.
    for (size_t i = 0; i < moves.size(); ++i) {
        if (moves[i].first.empty()) continue;
        const std::string at = followFrom(moves[i].second, i + 1, moves);
        if (!at.empty() && !filesystem::isDirectory(at) && !bagIdFromLocalPath(at).isValid() &&
            !_imageManager->findLocalPath(at).isValid() && folderBagHolding(at).isValid())
            addImage(at);
    }
    for (const ResourceID& image : _imageManager->ids()) {
        if (containerId(image).isValid()) continue;
        ResourceName name;
        if (!_imageManager->tryGetName(image, name)) continue;
        const std::string& path = name.localPath();
        SharedPtr<Bag> copy = modifyLockBag(folderBagHolding(path));
        if (!copy || !filesystem::exists(path)) continue;
        QOR_LOG(LogWarning, "Library: image %* taken back after an interrupted move", path);
        copy->insertImage(image);
        recovered = true;
    }
    return recovered;
}

// ---- Postponed notices ----

void Library::postponeFunction(ResourceID bagId, Function0<void> fn) {
    ScopedLock lock(_mutex);
    _postponed[bagId].push_back(std::move(fn));
}

void Library::notifyBagUpdated(ResourceID id, bool imagesChanged) {
    std::vector<Function0<void>> postponed;
    {
        ScopedLock lock(_mutex);
        auto it = _postponed.find(id);
        if (it != _postponed.end()) {
            postponed.swap(it->second);
            _postponed.erase(it);
        }
    }
    for (auto& fn : postponed)
        if (fn) fn();
    if (!_shuttingDown)
        _taskGroup.post([this, id, imagesChanged] { OnBagUpdated.emit(id, imagesChanged); },
                        kBackgroundPriority);
}

}  // namespace qor::mediadb
