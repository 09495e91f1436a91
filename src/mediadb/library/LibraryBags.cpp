// Library: creating, renaming, moving, removing and erasing bags, and their mutable copies.

#include <exception>
#include <utility>

#include "base/Log.h"
#include "base/filesystem/AtomicFileWriter.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/filesystem/Path.h"
#include "base/platform/RecycleBin.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryExceptions.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

// ---- Mutable copies ----

SharedPtr<Bag> Library::modifyLockBag(const SharedPtr<const Bag>& bag, LibraryLockPtr lock) {
    if (!bag) return nullptr;
    return bag->modifyLock(std::move(lock));
}

SharedPtr<Bag> Library::modifyLockBag(ResourceID id, LibraryLockPtr lock) {
    return modifyLockBag(bag(id), std::move(lock));
}

// ---- Create ----

void Library::checkUniqueName(const std::string& type, const std::string& name,
                              ResourceID except) const {
    const std::string wanted = text::upcase(name);
    for (const ResourceID& id : bags(type)) {
        if (except.isValid() && id == except) continue;
        SharedPtr<const Bag> other = bag(id);
        if (other && text::upcase(other->name()) == wanted)
            throw UniqueNameException("qor::LibraryException::UniqueNameException");
    }
}

std::string Library::uniqueBagPath(const std::string& base, const std::string& name,
                                   const std::string& extension) const {
    for (int attempt = 0;; ++attempt) {
        const std::string leaf =
            attempt == 0 ? name + extension : name + "_" + std::to_string(attempt) + extension;
        const std::string candidate = filesystem::pathJoin(base, leaf);
        if (!filesystem::exists(candidate) && !bagIdFromLocalPath(candidate).isValid())
            return candidate;
    }
}

ResourceID Library::createBag(const std::string& type, const std::string& name,
                              const std::string& path) {
    auto record = _bagTypes.find(type);
    QOR_ASSERT_MSG(record != _bagTypes.end(), "unknown bag type '%*'", type);
    if (record == _bagTypes.end())
        throw LibraryException("Failed to create bag: unknown type " + type);
    ResourceID id = createBag(record->second.creator(), name, path);
    // The name once more on the snapshot, as the creator may have set its own.
    if (SharedPtr<const Bag> created = bag(id); created && created->name() != text::trim(name)) {
        if (SharedPtr<Bag> copy = modifyLockBag(created)) copy->setName(text::trim(name));
    }
    return id;
}

ResourceID Library::createBag(Bag* newBag, const std::string& name, const std::string& path) {
    ScopedPtr<Bag> owned(newBag);
    QOR_ASSERT_TEXT(owned != nullptr, "init");
    if (!owned) throw LibraryException("Failed to create bag: no bag");
    const std::string trimmed = text::trim(name);
    const std::string fsName = filesystem::replaceSpecialChars(trimmed, "_");
    if (!path.empty() && !filesystem::exists(path))
        throw LibraryException("Failed to create bag path doesn't exist: " + path);

    const std::string type = owned->bagType();
    const bool folder = owned->isFolder();
    ResourceID id;
    std::string localPath;
    {
        FilesystemScopedLock lock(_path);
        owned->setName(trimmed);
        owned->setLibrary(this);
        if (isUniqueType(type)) checkUniqueName(type, trimmed, InvalidResourceID);

        if (!path.empty()) {
            id = _bagManager->add(_bagManager->nameFromLocalPath(path));
            if (!id.isValid()) throw LibraryException("Failed to create bag: path exists");
        } else {
            const std::string extension = folder ? "" : "." + type;
            std::string base = _path;
            const std::string initial = initialBagPath();
            if (folder && !initial.empty()) {
                base = filesystem::pathJoin(_path, initial);
                try {
                    if (!filesystem::exists(base)) filesystem::createDirectoryFromUrl(base);
                } catch (const std::exception& e) {
                    throw LibraryException(std::string("Failed to create initial path: ") +
                                           e.what());
                }
            }
            id = _bagManager->add(
                _bagManager->nameFromLocalPath(uniqueBagPath(base, fsName, extension)));
            if (!id.isValid()) throw LibraryException("Failed to create bag: path exists");
        }
        localPath = _bagManager->localPath(id);
        const bool persistent = owned->persistent();
        bool listed = false;
        try {
            owned->_id = id;
            storeBag(id, SharedPtr<const Bag>(owned.release()));
            addBag(type, id);
            listed = true;
            // Noted before anything is on disk, so that a crash before the next save loses
            // neither the bag nor what goes into it meanwhile.
            if (persistent) recordMoves({{std::string(), localPath}});
            if (folder && path.empty()) filesystem::createDirectoryFromUrl(localPath);
            QOR_LOG(LogInfo, "Created bag %* as %*", trimmed, localPath);
        } catch (const std::exception& e) {
            if (listed) {
                ScopedLock guard(_mutex);
                _bags[type]->erase(id);
            }
            _bagManager->remove(id);
            throw LibraryException(std::string("Failed to create bag: ") + e.what());
        }
        // Still under the library folder's lock: a save that lists the bag in library.xml finds
        // its file written, and writes it again.
        saveBag(id);
        addUnsaved(id);
    }
    if (_loaded) {
        OnBagListUpdated.emit();
        OnBagCreated.emit(id);
        OnBagCreatedOrganizer.emit(id);
    }
    return id;
}

// ---- Rename and move ----

bool Library::renameBag(ResourceID id, const std::string& name) {
    const std::string trimmed = text::trim(name);
    try {
        internalMoveBag(id, "", trimmed);
        if (SharedPtr<Bag> copy = modifyLockBag(id)) copy->setName(trimmed);
        // The new name goes into the bag's own file now: after a crash before the next save, load
        // finds the bag through the move journal and takes its name from there.
        saveBag(id);
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Couldn't move bag: %*", e.what());
        return false;
    }
}

void Library::moveBag(ResourceID id, const std::string& folder, const std::string& name) {
    internalMoveBag(id, folder, text::trim(name));
    addUnsaved(id);
}

void Library::internalMoveBag(ResourceID id, const std::string& folder, const std::string& name) {
    FilesystemScopedLock lock(_path);
    SharedPtr<const Bag> b;
    try {
        b = bag(id);
    } catch (const std::exception& e) {
        throw LibraryException(std::string("Failed to get bag for moving: ") + e.what());
    }
    QOR_ASSERT(b != nullptr);
    if (!b) throw LibraryException("Failed to get bag for moving: no such bag");

    const std::string type = b->bagType();
    if (isUniqueType(type) && !name.empty() && text::upcase(name) != text::upcase(b->name())) {
        try {
            checkUniqueName(type, name, id);
        } catch (const UniqueNameException&) {
            throw;
        } catch (const std::exception& e) {
            QOR_ASSERT_MSG(0, "unique name check failed: %*", e.what());
        }
    }
    if (!b->persistent()) return;

    const std::string newName = name.empty() ? b->name() : name;
    const std::string oldPath = _bagManager->localPath(id);
    const std::string targetFolder =
        folder.empty() ? filesystem::parentPath(oldPath) : filesystem::normalizePathUnix(folder);
    const std::string extension = b->isFolder() ? "" : "." + type;
    const std::string fsName = filesystem::replaceSpecialChars(newName, "_");
    const std::string wanted = filesystem::pathJoin(targetFolder, fsName + extension);
    if (_bagManager->nameFromLocalPath(wanted).localPath() == oldPath) return;  // no move
    const std::string newPath = uniqueBagPath(targetFolder, fsName, extension);

    recordMoves({{oldPath, newPath}});
    _bagManager->rename(id, _bagManager->nameFromLocalPath(newPath));
    // Marked while the library folder is locked, so that the save that drops the journal entry
    // writes this bag (see save).
    addUnsaved(id);
    if (!filesystem::exists(oldPath)) {
        QOR_LOG(LogWarning, "Bag cannot be moved because the path (%*) doesn't exist", oldPath);
        return;
    }
    try {
        filesystem::createDirectoryFromUrl(filesystem::parentPath(newPath));
        filesystem::moveUrl(oldPath, newPath);
        if (b->isFolder()) {
            for (const ResourceID& image : b->images()) {
                ResourceName imageName;
                if (!_imageManager->tryGetName(image, imageName)) continue;
                const std::string& imagePath = imageName.localPath();
                if (!isBelow(imagePath, oldPath)) continue;
                const std::string moved = newPath + imagePath.substr(oldPath.size());
                ResourceID existing = _imageManager->findLocalPath(moved);
                if (existing.isValid() && existing != image) {
                    QOR_ASSERT_MSG(0, "image %* exists already", moved);
                    _imageManager->remove(existing);
                }
                _imageManager->rename(image, _imageManager->nameFromLocalPath(moved));
            }
            if (_cacheConnector) _cacheConnector->folderMoved(oldPath, newPath);
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Event moving failed from \"%*\" to \"%*\": %*", oldPath, newPath,
                e.what());
        _bagManager->rename(id, _bagManager->nameFromLocalPath(oldPath));
        throw;
    }
}

// ---- Remove and erase ----

void Library::removeBag(ResourceID id) {
    SharedPtr<const Bag> b = bag(id);
    if (!b) return;
    forgetBag(id, b);
}

void Library::forgetBag(ResourceID id, const SharedPtr<const Bag>& b) {
    // Unlisted first: the changes below commit copies of the bag, and a save that runs meanwhile
    // must not write the files of a bag that is being forgotten (saveBag skips unlisted bags).
    {
        ScopedLock lock(_mutex);
        auto it = _bags.find(b->bagType());
        const bool listed = it != _bags.end() && it->second->erase(id) == 1;
        QOR_ASSERT_MSG(listed, "bag %* was not listed", id);
    }
    if (isContainer(*b)) {
        std::vector<ResourceID> images;
        if (b->images().empty() && bagState(id) == Broken) {
            // A broken bag never listed its images: take those that lie in its folder and have
            // no container.
            const std::string folder = _bagManager->localPath(id);
            for (const ResourceID& image : _imageManager->ids()) {
                ResourceName name;
                if (_imageManager->tryGetName(image, name) && isBelow(name.localPath(), folder) &&
                    !containerId(image).isValid())
                    images.push_back(image);
            }
        } else {
            images.assign(b->images().begin(), b->images().end());
        }
        removeImagesFromAssociativeBags(images);
        if (SharedPtr<Bag> copy = modifyLockBag(id)) {
            for (const ResourceID& image : images)
                if (copy->containsImage(image)) copy->removeImage(image);
        }
        for (const ResourceID& image : images) _imageManager->remove(image);
    } else if (isAssociative(*b)) {
        // Each removal takes the bag out of the image's "Library::AssociativeBags".
        if (SharedPtr<Bag> copy = modifyLockBag(id)) {
            const HashSet images = copy->images();
            for (const ResourceID& image : images) copy->removeImage(image);
        }
    }
    bool noted = false;
    {
        const std::string path = _bagManager->localPath(id);
        ScopedLock lock(_mutex);
        _unsaved.erase(id);
        _postponed.erase(id);
        // A bag created since the last save stays gone after a crash.
        noted = std::erase_if(_pendingMoves, [&](const auto& move) {
                    return move.first.empty() && move.second == path;
                }) > 0;
    }
    if (noted) writeMoves();
    _bagManager->remove(id);
    OnBagListUpdated.emit();
    OnBagRemoved.emit(id);
    saveLibraryFile();
}

void Library::eraseBag(ResourceID id, bool checkAliens) {
    try {
        SharedPtr<const Bag> b;
        std::string path;
        {
            LibraryLockPtr lock = LibraryLock::acquire(_path, 1);
            b = bag(id);
            if (!b) throw LibraryException("Remove failed: bag not exists");
            QOR_ASSERT_MSG(b->persistent(), "erasing transient bag %*", b->name());
            if (!b->persistent()) return;
            path = _bagManager->localPath(id);
            if (filesystem::exists(path)) {
                if (isContainer(*b) && checkAliens && filesystem::isDirectory(path)) {
                    for (filesystem::UrlIterator it(path); it.valid(); it.next()) {
                        const std::string& entry = it.name();
                        // A temporary of a save that a crash interrupted is the library's own.
                        if ((entry == "originals" && it.isDirectory()) || entry == ".bag" ||
                            entry == "Thumbs.db" || filesystem::isAtomicWriterTemporary(entry) ||
                            b->containsImage(_imageManager->findLocalPath(it.path())))
                            continue;
                        QOR_LOG(LogWarning, "ContainerBag::hasAliens: %*", it.path());
                        throw AliensInLibraryException(
                            "qor::LibraryException::AlienFilesInTheLibraryBag");
                    }
                }
                if (!eos::moveToRecycleBin(path)) {
                    QOR_LOG(LogWarning, "Remove failed");
                    throw LibraryException("qor::LibraryException");
                }
                if (_cacheConnector && b->isFolder()) _cacheConnector->folderRemoved(path);
            }
        }
        forgetBag(id, b);
    } catch (const LibraryException&) {
        throw;
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Cannot remove bag: %*", e.what());
        QOR_ASSERT_MSG(0, "Cannot remove bag: %*", e.what());
    }
}

}  // namespace qor::mediadb
