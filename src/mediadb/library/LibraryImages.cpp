// Library: adding, adopting, copying, moving, removing and erasing images.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/Md5Stream.h"
#include "base/filesystem/AtomicFileWriter.h"
#include "base/filesystem/Path.h"
#include "base/platform/RecycleBin.h"
#include "imageio/ImageIO.h"
#include "mediadb/bags/AssociativeBag.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryExceptions.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

namespace {

// The file beside `path` with the same stem and extension `ext`.
std::string auxiliaryPath(const std::string& path, const std::string& ext) {
    return filesystem::pathJoin(filesystem::parentPath(path),
                                filesystem::getStem(path) + "." + ext);
}

}  // namespace

// ---- Add and adopt ----

ResourceID Library::addImage(const std::string& path) {
    return _imageManager->add(_imageManager->nameFromLocalPath(path), ResourceManager::AddOrFind);
}

void Library::addImages(const std::vector<std::string>& paths, std::vector<ResourceID>& ids) {
    std::vector<ResourceName> names;
    names.reserve(paths.size());
    for (const std::string& path : paths) names.push_back(_imageManager->nameFromLocalPath(path));
    ids = _imageManager->add(names, ResourceManager::AddOrFind);
    QOR_ASSERT(ids.size() == paths.size());
}

ResourceID Library::internalAdoptImage(const std::string& relativePath, const SharedPtr<Bag>& bag) {
    const std::string path = filesystem::pathJoin(bag->localPath(), relativePath);
    ResourceID id =
        _imageManager->add(_imageManager->nameFromLocalPath(path), ResourceManager::AddOrFind);
    QOR_ASSERT(id.isValid());
    if (id.isValid()) bag->insertImage(id);
    return id;
}

ResourceID Library::adoptImage(const std::string& relativePath, ResourceID containerBag) {
    SharedPtr<const Bag> dst = bag(containerBag);
    QOR_ASSERT(dst != nullptr);
    if (!dst || bagState(containerBag) == Broken) return InvalidResourceID;
    ResourceID id;
    {
        SharedPtr<Bag> copy = modifyLockBag(dst);
        if (!copy) return InvalidResourceID;
        id = internalAdoptImage(relativePath, copy);
        // Announced once the new snapshot is visible, when the copy has been committed.
        if (id.isValid()) postponeFunction(containerBag, [this, id] { OnImageAdopted.emit(id); });
    }
    if (id.isValid() && _cacheConnector) _cacheConnector->imagesAdded({id});
    return id;
}

void Library::adoptImages(std::vector<ResourceID>& ids,
                          const std::vector<std::string>& relativePaths, ResourceID targetBag) {
    SharedPtr<const Bag> dst = bag(targetBag);
    QOR_ASSERT(dst != nullptr);
    if (!dst || bagState(targetBag) == Broken) return;
    {
        SharedPtr<Bag> copy = modifyLockBag(dst);
        if (!copy) return;
        for (const std::string& path : relativePaths) ids.push_back(internalAdoptImage(path, copy));
    }
    for (const ResourceID& id : ids)
        if (id.isValid()) OnImageAdopted.emit(id);
    if (_cacheConnector) _cacheConnector->imagesAdded(ids);
}

// ---- Copy and move one image ----

namespace {

// The destination of a copy or move into `bagPath`; throws LibraryException when it is taken.
std::string destinationPath(const ImageManager& images, const std::string& bagPath,
                            const std::string& relativeFolder, const std::string& name,
                            const std::string& source, bool makeUnique) {
    const std::string leaf = name.empty() ? filesystem::leaf(source) : name;
    std::string dst = images
                          .nameFromLocalPath(filesystem::pathJoin(
                              filesystem::pathJoin(bagPath, relativeFolder), leaf))
                          .localPath();
    if (makeUnique) {
        const std::string base = dst;
        for (int attempt = 1;
             dst != source && (filesystem::exists(dst) || images.findLocalPath(dst).isValid());
             ++attempt)
            dst = images.nameHandler()->uniquePath(base, attempt);
    }
    return dst;
}

// Writes all of `size` bytes at `offset`; false with errno set on failure.
bool writeAll(int fd, const unsigned char* data, size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t n = ::pwrite(fd, data, size, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

// Copies the file `in` into the empty file `out` and gives the item checksum of `in`: its head
// (the bytes the checksum covers) is read once and both hashed and written, the rest goes from
// file to file in the kernel (copy_file_range), or through a buffer where that is not supported.
// Returns the null digest with errno set on failure.
Digest copyData(int in, int out) {
    std::vector<unsigned char> buffer(imageio::ImageChecksumLength);
    size_t head = 0;
    while (head < buffer.size()) {
        const ssize_t n = ::pread(in, buffer.data() + head, buffer.size() - head, off_t(head));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return {};
        if (n == 0) break;
        head += static_cast<size_t>(n);
    }
    const Digest digest = Md5Stream::of(buffer.data(), head);
    if (!writeAll(out, buffer.data(), head, 0)) return {};
    if (head < buffer.size()) return digest;  // the whole file was in the head
    off_t inOffset = off_t(head), outOffset = off_t(head);
    for (;;) {
        const ssize_t n = ::copy_file_range(in, &inOffset, out, &outOffset, size_t(1) << 30, 0);
        if (n > 0) continue;
        if (n == 0) return digest;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return {};
        break;
    }
    buffer.resize(size_t(1) << 20);
    for (;;) {
        const ssize_t n = ::pread(in, buffer.data(), buffer.size(), inOffset);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return {};
        if (n == 0) return digest;
        if (!writeAll(out, buffer.data(), size_t(n), outOffset)) return {};
        inOffset += n;
        outOffset += n;
    }
}

// Copies `source` to the new file `dst` through a hidden temporary beside it and gives the
// source's item checksum (as imageio::imageChecksum gives it), computed on the way. The temporary
// holds an exclusive flock while the copy runs (see Library::removeStaleCopies) and becomes `dst`
// by link(2), which refuses a file that appeared at `dst` meanwhile. Throws LibraryException;
// nothing is left at `dst` or in the temporary then.
Digest copyImageFile(const std::string& source, const std::string& dst) {
    auto failure = [&](const std::string& reason) {
        return LibraryException("Cannot copy '" + source + "' to '" + dst + "': " + reason);
    };
    const int in = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) throw failure(std::strerror(errno));
    struct stat st {};
    if (::fstat(in, &st) != 0) {
        const int error = errno;
        ::close(in);
        throw failure(std::strerror(error));
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(in);
        throw failure("not a file");
    }
    std::string tmp =
        filesystem::pathJoin(filesystem::parentPath(dst), Library::CopyTemporaryPrefix) + "XXXXXX";
    const int fd = ::mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        ::close(in);
        throw failure(std::strerror(error));
    }
    // Taken at once on our own new file: nobody else holds it.
    ::flock(fd, LOCK_EX | LOCK_NB);
    auto abandon = [&](int error) {
        ::unlink(tmp.c_str());
        ::close(fd);
        ::close(in);
        return failure(std::strerror(error));
    };
    const Digest digest = copyData(in, fd);
    if (digest.isNull()) throw abandon(errno);
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (::fchmod(fd, st.st_mode & 07777) != 0 || ::futimens(fd, times) != 0) throw abandon(errno);
    if (::link(tmp.c_str(), dst.c_str()) != 0) {
        const int error = errno;
        // A file system without hard links: a check and a rename, under the bag's path lock.
        if (error == EEXIST || filesystem::exists(dst)) throw abandon(EEXIST);
        if (::rename(tmp.c_str(), dst.c_str()) != 0) throw abandon(errno);
    }
    ::unlink(tmp.c_str());
    ::close(fd);
    ::close(in);
    return digest;
}

void checkFree(const ImageManager& images, const std::string& dst, bool makeUnique) {
    if (filesystem::exists(dst) || images.findLocalPath(dst).isValid()) {
        QOR_ASSERT(makeUnique);
        QOR_ASSERT_MSG(0, "Image already exists in destination: %*", dst);
        throw LibraryException("Image already exists in destination");
    }
}

}  // namespace

ResourceID Library::copyImage(const std::string& sourcePath, ResourceID containerBag,
                              const std::string& relativeFolder, const std::string& name,
                              bool makeUnique, Digest* checksum) {
    SharedPtr<const Bag> dst = bag(containerBag);
    QOR_ASSERT_TEXT(dst != nullptr, "dstM");
    if (!dst || bagState(containerBag) != Regular) return InvalidResourceID;
    if (sourcePath.empty()) throw LibraryException("Move failed: image path is empty");
    std::string dstPath;
    ResourceID id;
    try {
        SharedPtr<Bag> copy = modifyLockBag(dst);
        if (!copy) throw LibraryException("Move failed: image has no container");
        const std::string source = _imageManager->nameFromLocalPath(sourcePath).localPath();
        dstPath = destinationPath(*_imageManager, copy->localPath(), relativeFolder, name, source,
                                  makeUnique);
        if (dstPath == source) {
            QOR_ASSERT_MSG(0, "copying %* onto itself", source);
            return getImageId(source);
        }
        checkFree(*_imageManager, dstPath, makeUnique);
        filesystem::createDirectoryFromUrl(filesystem::parentPath(dstPath));
        const Digest digest = copyImageFile(source, dstPath);
        if (checksum) *checksum = digest;
        id = _imageManager->add(_imageManager->nameFromLocalPath(dstPath),
                                ResourceManager::AddOrFind);
        copy->insertImage(id);
        postponeFunction(containerBag, [this, id] { OnImageAdopted.emit(id); });
        for (const std::string& ext : auxiliaryExtensions()) {
            const std::string aux = auxiliaryPath(source, ext);
            if (filesystem::exists(aux)) filesystem::copyUrl(aux, auxiliaryPath(dstPath, ext));
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Cannot copy image from to %*, error: %*", dstPath, e.what());
        throw;
    }
    if (_cacheConnector) {
        ResourceID src = getImageId(sourcePath);
        if (src.isValid())
            _cacheConnector->imageCopied(src, id);
        else
            _cacheConnector->imagesAdded({id});
    }
    return id;
}

ResourceID Library::copyImage(ResourceID sourceId, ResourceID containerBag,
                              const std::string& relativeFolder, const std::string& name,
                              bool makeUnique, Digest* checksum) {
    return copyImage(getImageResourceName(sourceId).localPath(), containerBag, relativeFolder, name,
                     makeUnique, checksum);
}

size_t Library::removeStaleCopies(const std::string& folder) {
    size_t removed = 0;
    try {
        const std::string prefix = CopyTemporaryPrefix;
        for (filesystem::UrlIterator it(folder); it.valid(); it.next()) {
            if (it.isDirectory() || it.name().compare(0, prefix.size(), prefix) != 0) continue;
            const std::string path = it.path();
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
            if (fd < 0) continue;
            // The lock of a live copy is held; that of a killed one went with its process.
            if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
                if (::unlink(path.c_str()) == 0)
                    ++removed;
                else
                    QOR_LOG(LogWarning, "Cannot remove stale copy %*: %*", path,
                            std::strerror(errno));
            }
            ::close(fd);
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Cannot look for stale copies in %*: %*", folder, e.what());
    }
    return removed;
}

void Library::copyImages() { QOR_ASSERT_MSG(0, "copyImages is not supported"); }

void Library::moveImage(ResourceID id, const std::string& relativeFolder, const std::string& name,
                        bool makeUnique) {
    ResourceID container = containerId(id);
    if (!container.isValid()) throw LibraryException("Move failed: image has no container");
    SharedPtr<const Bag> b = bag(container);
    QOR_ASSERT_TEXT(b && isContainer(*b), "dst");
    moveImage(id, container, relativeFolder, name, makeUnique);
}

void Library::moveImage(ResourceID id, ResourceID containerBag, const std::string& relativeFolder,
                        const std::string& name, bool makeUnique) {
    SharedPtr<const Bag> dst = bag(containerBag);
    if (!dst) throw LibraryException("Move failed: image has no container");
    if (bagState(containerBag) != Regular)
        throw LibraryException("Move failed: container is broken");
    const std::string source = getImageResourceName(id).localPath();
    if (source.empty()) throw LibraryException("Move failed: image path is empty");
    std::string dstPath;
    try {
        // Source and destination bag change together: one lock on the library folder covers
        // both.
        LibraryLockPtr lock = LibraryLock::acquire(_path, 1);
        SharedPtr<Bag> dstM = modifyLockBag(containerBag, lock);
        if (!dstM) throw LibraryException("Move failed: image has no container");
        const ResourceID srcBag = containerId(id);
        SharedPtr<Bag> srcM;
        if (srcBag.isValid() && srcBag != containerBag) srcM = modifyLockBag(srcBag, lock);
        dstPath = destinationPath(*_imageManager, dstM->localPath(), relativeFolder, name, source,
                                  makeUnique);
        if (dstPath == source) {
            QOR_ASSERT_MSG(0, "moving %* onto itself", source);
            return;
        }
        checkFree(*_imageManager, dstPath, makeUnique);
        filesystem::createDirectoryFromUrl(filesystem::parentPath(dstPath));
        recordMoves({{source, dstPath}});
        filesystem::moveUrl(source, dstPath);
        if (!_imageManager->rename(id, _imageManager->nameFromLocalPath(dstPath))) {
            filesystem::moveUrl(dstPath, source);
            throw LibraryException("Image already exists in destination");
        }
        if (srcM) srcM->removeImage(id);
        dstM->insertImage(id);
        moveAuxiliaryFiles(source, dstPath);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Cannot move image from to %*, error: %*", dstPath, e.what());
        throw;
    }
    if (_cacheConnector) _cacheConnector->imageMoved(id, source);
}

void Library::moveAuxiliaryFiles(const std::string& oldPath, const std::string& newPath) {
    for (const std::string& ext : auxiliaryExtensions()) {
        const std::string from = auxiliaryPath(oldPath, ext);
        if (!filesystem::exists(from)) continue;
        try {
            filesystem::moveUrl(from, auxiliaryPath(newPath, ext));
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Cannot move auxiliary file %*, error: %*", from, e.what());
        }
    }
}

// ---- Move many ----

void Library::moveImages(const std::vector<ResourceID>& ids, ResourceID dstBag) {
    LibraryLockPtr lock = LibraryLock::acquire(_path, 1);
    if (bagState(dstBag) == Broken) {
        QOR_LOG(LogWarning, "Cannot move images into bag %*: %*", dstBag,
                "Move failed: container is broken");
        return;
    }
    SharedPtr<Bag> dstM = modifyLockBag(dstBag, lock);
    if (!dstM) return;
    const std::string dstPath = dstM->localPath();
    // Where each image goes, noted in the move journal before the first file moves.
    struct Move {
        ResourceID id, src;
        std::string srcPath, oldPath, newPath;
    };
    std::vector<Move> plan;
    for (const ResourceID& id : ids) {
        const ResourceID src = containerId(id);
        QOR_ASSERT_MSG(src.isValid() && src != dstBag,
                       "image %* has no container or lies in the destination already", id);
        if (!src.isValid() || src == dstBag) continue;
        Move move{
            id, src, getBagResourceName(src).localPath(), getImageResourceName(id).localPath(), {}};
        const std::string relative = isBelow(move.oldPath, move.srcPath)
                                         ? move.oldPath.substr(move.srcPath.size() + 1)
                                         : filesystem::leaf(move.oldPath);
        move.newPath = filesystem::pathJoin(dstPath, relative);
        plan.push_back(std::move(move));
    }
    std::vector<std::pair<std::string, std::string>> noted;
    for (const Move& move : plan) noted.emplace_back(move.oldPath, move.newPath);
    recordMoves(noted);

    SharedPtr<Bag> srcM;
    ResourceID current;
    std::vector<std::pair<ResourceID, std::string>> moved;
    for (const Move& move : plan) {
        const ResourceID& id = move.id;
        if (!current.isValid() || move.src != current) {
            srcM.reset();  // the previous source commits
            srcM = modifyLockBag(move.src, lock);
            current = move.src;
        }
        if (!srcM) continue;
        const std::string& srcPath = move.srcPath;
        const std::string& oldPath = move.oldPath;
        const std::string& newPath = move.newPath;
        try {
            if (!_imageManager->rename(id, _imageManager->nameFromLocalPath(newPath)))
                throw LibraryException("Image already exists in destination");
            filesystem::createDirectoryFromUrl(filesystem::parentPath(newPath));
            filesystem::moveUrl(oldPath, newPath);
            srcM->removeImage(id);
            dstM->insertImage(id);
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Cannot move image from event %* to event %*, error: %*", srcPath,
                    dstPath, e.what());
            _imageManager->rename(id, _imageManager->nameFromLocalPath(oldPath));
            continue;
        }
        moveAuxiliaryFiles(oldPath, newPath);
        moved.emplace_back(id, oldPath);
    }
    srcM.reset();
    dstM.reset();
    lock.reset();
    if (_cacheConnector)
        for (const auto& [id, oldPath] : moved) _cacheConnector->imageMoved(id, oldPath);
}

// ---- Remove and erase ----

// The mutable copy of the container of successive images, kept while the container stays the same;
// the previous copy commits when another container comes.
class Library::ContainerCopy {
public:
    explicit ContainerCopy(Library& library) : _library(library) {}
    // The copy of `bagId`, null for an invalid id or an unknown bag.
    Bag* of(ResourceID bagId) {
        if (!bagId.isValid()) return nullptr;
        if (!_id.isValid() || bagId != _id) {
            _copy.reset();
            _copy = _library.modifyLockBag(bagId);
            _id = bagId;
        }
        return _copy.get();
    }

private:
    Library& _library;
    ResourceID _id;
    SharedPtr<Bag> _copy;
};

void Library::forgetImage(ResourceID id, ContainerCopy& copies, const std::string& path) {
    if (Bag* container = copies.of(containerId(id)))
        if (container->containsImage(id)) container->removeImage(id);
    if (_cacheConnector) _cacheConnector->imageRemoved(id, path);
    _imageManager->remove(id);
}

void Library::removeImages(const std::vector<ResourceID>& ids) {
    removeImagesFromAssociativeBags(ids);
    ContainerCopy copies(*this);
    for (const ResourceID& id : ids) {
        try {
            forgetImage(id, copies, getImageResourceName(id).localPath());
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Cannot remove image %*: %*", id, e.what());
        }
    }
}

void Library::eraseImages(const std::vector<ResourceID>& ids, int flag, EraseCallback callback) {
    removeImagesFromAssociativeBags(ids);
    std::vector<eos::RecycleItem> items;
    std::vector<std::pair<ResourceID, std::string>> noted;
    const std::vector<std::string> extensions = auxiliaryExtensions();
    {
        ContainerCopy copies(*this);
        for (const ResourceID& id : ids) {
            try {
                const std::string path = getImageResourceName(id).localPath();
                if (!filesystem::exists(path)) {
                    // Nothing to move to the recycle bin: forgotten at once.
                    forgetImage(id, copies, path);
                    continue;
                }
                items.push_back({id, path});
                noted.emplace_back(id, path);
                for (const std::string& ext : extensions) {
                    const std::string aux = auxiliaryPath(path, ext);
                    if (filesystem::exists(aux)) items.push_back({InvalidResourceID, aux});
                }
            } catch (const std::exception& e) {
                QOR_LOG(LogWarning, "Cannot erase image %*: %*", id, e.what());
            }
        }
    }
    if (items.empty()) return;
    eos::moveToRecycleBin(items, flag, callback);

    ContainerCopy copies(*this);
    for (const auto& [id, path] : noted) {
        if (filesystem::exists(path)) continue;  // the file survived: the image stays
        try {
            QOR_ASSERT_TEXT(containerId(id).isValid(), "container");
            forgetImage(id, copies, path);
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Cannot erase image %*: %*", id, e.what());
        }
    }
}

void Library::removeImagesFromAssociativeBags(const std::vector<ResourceID>& ids) {
    std::map<ResourceID, std::vector<ResourceID>> byBag;
    for (const ResourceID& id : ids)
        for (const ResourceID& bagId : associativeBags(id)) byBag[bagId].push_back(id);
    for (const auto& [bagId, images] : byBag) {
        // An associative bag's removeImage also updates the image's "Library::AssociativeBags".
        SharedPtr<Bag> copy = modifyLockBag(bagId);
        if (!copy || !isAssociative(*copy)) continue;
        for (const ResourceID& image : images)
            if (copy->containsImage(image)) copy->removeImage(image);
    }
}

void Library::replaceImageInAssociativeBags(ResourceID oldId, ResourceID newId) {
    for (const ResourceID& bagId : associativeBags(oldId)) {
        SharedPtr<Bag> copy = modifyLockBag(bagId);
        if (!copy || !isAssociative(*copy) || !copy->containsImage(oldId)) continue;
        if (copy->containsImage(newId)) {
            copy->removeImage(oldId);  // holds both: one place is enough
            continue;
        }
        // In place, so that the order of the bag is kept. An AssociativeBag replaces it itself,
        // so that a subclass that shows the image elsewhere too (a book's frames) follows.
        if (auto* associative = dynamic_cast<AssociativeBag*>(copy.get())) {
            associative->replace(oldId, newId);
            continue;
        }
        copy->replaceItem(oldId, newId);
        removeAssociativeBagOfImage(oldId, bagId);
        addAssociativeBagOfImage(newId, bagId);
    }
}

void Library::onImageRenamed(ResourceID imageId) {
    for (const ResourceID& bagId : associativeBags(imageId)) addUnsaved(bagId);
}

// ---- Scan ----

bool Library::scanForImages(const std::string& url, std::vector<ResourceID>& list) {
    std::string path = filesystem::normalizePathUnix(text::urlToLocalPath(url));
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (filesystem::isDirectory(path)) {
        std::vector<std::string> folders{path};
        while (!folders.empty() && !_shuttingDown) {
            const std::string folder = folders.back();
            folders.pop_back();
            try {
                for (filesystem::UrlIterator it(folder); it.valid() && !_shuttingDown; it.next()) {
                    if (it.isDirectory()) {
                        folders.push_back(it.path());
                        continue;
                    }
                    // Not a file of its own: a save that a crash interrupted left it.
                    if (filesystem::isAtomicWriterTemporary(it.name())) continue;
                    ResourceID id = addImage(it.path());
                    if (id.isValid()) list.push_back(id);
                }
            } catch (const std::exception& e) {
                QOR_LOG(LogWarning, "scanForImages: cannot read %*: %*", folder, e.what());
            }
        }
        return true;
    }
    QOR_ASSERT_MSG(text::utf16_to_utf8(text::utf8_to_utf16(path)) == path,
                   "path does not survive UTF-16: %*", path);
    ResourceID id = addImage(path);
    if (id.isValid()) list.push_back(id);
    return false;
}

}  // namespace qor::mediadb
