#include "mediadb/import/ImportJob.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

#include "base/Log.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceSequenceWorker.h"
#include "imageio/ImageIO.h"
#include "mediadb/bags/ContainerBag.h"
#include "mediadb/import/DuplicateManager.h"
#include "mediadb/import/LibraryOrganizer.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryExceptions.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

namespace {

// Raw files of a copy go into this subfolder of the bag.
constexpr const char* kOriginalsFolder = "originals";

// A source that cannot be read any more (gone, or no file).
class BrokenSourceException : public CloneableException<BrokenSourceException, LibraryException> {
public:
    using CloneableException::CloneableException;
};

// A failure of the adopt path: logged there, the job ends with it.
class AdoptException : public CloneableException<AdoptException, LibraryException> {
public:
    using CloneableException::CloneableException;
};

// A "file:///" url as a local path; anything else as it stands.
std::string localUrl(const std::string& url) {
    if (url.rfind("file:///", 0) == 0)
        return filesystem::normalizePathUnix(text::urlToLocalPath(url));
    return url;
}

std::string upperExtension(const std::string& path) {
    std::string ext = filesystem::getExtension(path);
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return ext;
}

bool isJpeg(const std::string& path) {
    const std::string ext = upperExtension(path);
    return ext == "JPG" || ext == "JPEG";
}

imageio::ItemType itemType(const std::string& path) {
    return imageio::getItemType(FastString<char>(path));
}

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

bool sameLocation(const ImportJob::ImageLocation& a, const ImportJob::ImageLocation& b) {
    return a.url == b.url && a.imageId == b.imageId && a.bagId == b.bagId && a.path == b.path;
}

}  // namespace

// ---- Construction ----

ImportJob::ImportJob(const BaseSettings& settings, SharedPtr<const ContainerBag> bag,
                     TaskType taskType, int duplicateHandling) {
    init(settings, taskType, bag);
    _duplicateHandling = duplicateHandling;
    if (bag) _urls.push_back(bag->localPath());
}

ImportJob::ImportJob(const BaseSettings& settings, const std::vector<std::string>& urls,
                     SharedPtr<const ContainerBag> bag, TaskType taskType) {
    init(settings, taskType, std::move(bag));
    _urls = urls;
}

ImportJob::ImportJob(const BaseSettings& settings, SharedPtr<const ContainerBag> bag,
                     const std::list<std::string>& files, TaskType taskType) {
    init(settings, taskType, bag);
    if (taskType == AdoptAfterScan || taskType == CopyAfterScan) {
        _urls.assign(files.begin(), files.end());
        return;
    }
    _scan = false;
    const ResourceID bagId = bag ? bag->id() : InvalidResourceID;
    const std::string bagPath = bag ? bag->localPath() : std::string();
    ScopedLock lock(_mutex);
    for (const std::string& file : files) {
        ImageLocation location;
        location.bagId = bagId;
        if (taskType == Adopt && !bagPath.empty() && !file.empty() && file[0] != '/') {
            location.path = file;
            location.url = filesystem::pathJoin(bagPath, file);
        } else {
            location.url = localUrl(file);
        }
        _sourceImages.push_back(std::move(location));
    }
}

ImportJob::ImportJob(const BaseSettings& settings, const std::list<ResourceID>& images,
                     SharedPtr<const ContainerBag> bag) {
    init(settings, Copy, std::move(bag));
    _scan = false;
    ScopedLock lock(_mutex);
    for (const ResourceID& id : images) {
        ImageLocation location;
        location.imageId = id;
        location.bagId = settings.library->containerId(id);
        _sourceImages.push_back(std::move(location));
    }
}

ImportJob::~ImportJob() = default;

void ImportJob::init(const BaseSettings& settings, TaskType taskType,
                     SharedPtr<const ContainerBag> bag) {
    _settings = settings;
    _taskType = taskType;
    _bag = std::move(bag);
    QOR_ASSERT(_settings.library != nullptr);
    imageio::initSupportedItemsList();
    setProcessState("Scanning");
}

// ---- Run: scan, then copy or adopt ----

void ImportJob::run() {
    auto watch = std::chrono::steady_clock::now();
    try {
        if (_taskType == AdoptAfterScan || _taskType == CopyAfterScan) {
            QOR_LOG(LogInfo, "Started scanning");
            setProcessState("Scanning");
            std::vector<ImageLocation> locations;
            bool found = false;
            for (const std::string& source : _urls) {
                const std::string url = localUrl(source);
                if (!url.empty()) {
                    // Held only while this url is scanned.
                    FilesystemScopedLock lock(url, FilesystemScopedLock::Shared);
                    scanUrl(url, locations, isRecursiveScan(), found);
                }
                if (isCancelled()) break;
            }
            // The destination is locked and committed once, so a writer that holds it ends
            // before the pictures come.
            if (found && _bag) _settings.library->modifyLockBag(_bag).reset();
            {
                ScopedLock lock(_mutex);
                _sourceImages = std::move(locations);
            }
            QOR_LOG(LogInfo, "Scanning finished after '%*' ms", millisecondsSince(watch));
            watch = std::chrono::steady_clock::now();
        } else {
            // Sources given directly: those of no supported type are listed, never imported.
            ScopedLock lock(_mutex);
            std::erase_if(_sourceImages, [this](const ImageLocation& location) {
                if (location.url.empty() || itemType(location.url) != imageio::ItemTypeUnknown)
                    return false;
                _unsupported.push_back(location.url);
                return true;
            });
        }
        {
            ScopedLock lock(_mutex);
            _total = static_cast<unsigned>(_sourceImages.size());
            if (_total == 0) throw LibraryException("No images to import.");
        }
        if (isCancelled()) return;
        if (_taskType == CopyAfterScan || _taskType == Copy)
            runCopy();
        else
            runAdopt();
    } catch (const AdoptException&) {
        throw;  // logged as such
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Import failed: %*", e.what());
        throw;
    }
}

void ImportJob::scanUrl(const std::string& url, std::vector<ImageLocation>& locations,
                        bool recursive, bool& found) {
    const filesystem::UrlInfo info = filesystem::getUrlInfo(url);
    if (url.empty() || isCancelled() || info.hidden) return;
    if (!info.exists) {
        QOR_LOG(LogWarning, "Couldn't scan url %* %*", url, "no such file or folder");
        return;
    }
    if (!info.isDirectory) {
        if (acceptFile(info.path, locations)) found = true;
        return;
    }
    // Folders by device and inode, so that a symbolic link back up the tree ends the walk there.
    std::set<std::pair<dev_t, ino_t>> visited;
    std::vector<std::string> folders{info.path};
    while (!folders.empty() && !isCancelled()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        struct stat st {};
        if (::stat(folder.c_str(), &st) != 0) {
            QOR_LOG(LogWarning, "Couldn't scan url %* %*", folder, std::strerror(errno));
            continue;
        }
        if (!visited.insert({st.st_dev, st.st_ino}).second) continue;
        try {
            std::vector<std::string> subfolders;
            for (filesystem::UrlIterator it(folder); it.valid() && !isCancelled(); it.next()) {
                if (it.isHidden()) continue;
                if (it.isDirectory()) {
                    if (recursive) subfolders.push_back(it.path());
                    continue;
                }
                if (acceptFile(it.path(), locations)) found = true;
            }
            // Taken from the back: the subfolders come in name order.
            folders.insert(folders.end(), subfolders.rbegin(), subfolders.rend());
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Couldn't scan url %* %*", folder, e.what());
        }
    }
}

bool ImportJob::acceptFile(const std::string& path, std::vector<ImageLocation>& locations) {
    if (itemType(path) == imageio::ItemTypeUnknown) {
        ScopedLock lock(_mutex);
        _unsupported.push_back(path);
        return false;
    }
    ImageLocation location;
    location.url = path;
    if (_bag) {
        location.bagId = _bag->id();
        // A file that the bag holds already is not adopted again (asked of the bag as it is now:
        // _bag is the snapshot the job was made with).
        if (_taskType == AdoptAfterScan) {
            const ResourceID known = _settings.library->getImageId(path);
            if (known.isValid() && _settings.library->containerId(known) == _bag->id())
                return false;
        }
    }
    locations.push_back(std::move(location));
    return true;
}

void ImportJob::runCopy() {
    Library* library = _settings.library;
    const std::vector<ImageLocation> sources = getSourceImages();
    std::set<ResourceID> seen;
    _work.clear();
    for (const ImageLocation& location : sources) {
        if (!location.url.empty()) {
            // A file of the library is that image; any other is a temporary resource.
            ResourceID resource = library->getImageId(location.url);
            if (!resource.isValid()) {
                resource = library->addImage(location.url);
                ScopedLock lock(_mutex);
                if (resource.isValid()) _temporary.push_back(resource);
            }
            if (!resource.isValid()) {
                QOR_LOG(LogWarning, "Image Broken: %*", location.url);
                addNotImported(location.url);
                continue;
            }
            _work.push_back({location, resource});
            continue;
        }
        if (!location.imageId.isValid() || !seen.insert(location.imageId).second) continue;
        _work.push_back({location, location.imageId});
        if (!checksDuplicates()) continue;
        // The whole family comes along, so that edited versions stay with their original.
        const ResourceID container = library->containerId(location.imageId);
        auto bag = dynamic_ptr_cast<const ContainerBag>(library->bag(container));
        if (!bag) continue;
        for (const ResourceID& member : bag->getFamilyInfo(location.imageId).members) {
            if (!seen.insert(member).second) continue;
            ImageLocation memberLocation;
            memberLocation.imageId = member;
            memberLocation.bagId = container;
            _work.push_back({memberLocation, member});
        }
    }
    {
        ScopedLock lock(_mutex);
        _total = static_cast<unsigned>(_work.size());
    }
    startSequence(true);
}

void ImportJob::runAdopt() {
    const auto watch = std::chrono::steady_clock::now();
    QOR_LOG(LogInfo, "Started adopting");
    setProcessState("Adopting");
    Library* library = _settings.library;
    std::vector<ResourceID> ids;
    std::vector<std::string> urls;
    try {
        if (!_bag) throw LibraryException("no destination bag to adopt into");
        std::string bagPath = _bag->localPath();
        if (!bagPath.empty() && bagPath.back() != '/') bagPath += '/';
        std::vector<std::string> relativePaths;
        for (const ImageLocation& location : getSourceImages()) {
            const std::string url = getUrl(location);
            const auto itr = &location;
            QOR_ASSERT(itr->url.find(bagPath) == 0);
            if (url.find(bagPath) != 0) {
                addNotImported(url);
                continue;
            }
            relativePaths.push_back(url.substr(bagPath.size()));
            urls.push_back(url);
        }
        library->adoptImages(ids, relativePaths, _bag->id());
        for (size_t i = 0; i < ids.size() && i < urls.size(); ++i) {
            if (!ids[i].isValid()) {
                addNotImported(urls[i]);
                continue;
            }
            {
                ScopedLock lock(_mutex);
                _imported.push_back(ids[i]);
            }
            updateGrouping(ids[i], _bag->id(), urls[i]);
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Error in adopting %*", e.what());
        throw AdoptException(e.what());
    }
    QOR_LOG(LogInfo, "Adopting finished after '%*' ms", millisecondsSince(watch));
    _work.clear();
    for (size_t i = 0; i < ids.size() && i < urls.size(); ++i) {
        if (!ids[i].isValid()) continue;
        ImageLocation location;
        location.imageId = ids[i];
        location.bagId = _bag->id();
        _work.push_back({location, ids[i]});
    }
    startSequence(false);
}

void ImportJob::startSequence(bool withCopy) {
    if (!_settings.worker) throw LibraryException("no worker to read and copy the images");
    std::vector<ResourceID> items;
    items.reserve(_work.size());
    for (const WorkItem& item : _work) items.push_back(item.resource);
    SharedPtr<ResourceSequence> sequence = ResourceSequence::create(std::move(items), 0, 1);
    // The steps run before the completion, which keeps the job alive until it has run.
    sequence->setTouchStep([this](ResourceSequence& s, size_t first, size_t count) {
        for (size_t i = first; i < first + count; ++i) imageTouchCallback(s, i);
    });
    if (withCopy) {
        sequence->setCopyStep([this](ResourceSequence& s, size_t first, size_t count) {
            for (size_t i = first; i < first + count; ++i) imageCopyCallback(s, i);
        });
    }
    SharedPtr<LibraryJob> self = markAsDetached();
    sequence->setCompletion(
        [self](ResourceSequence& s, SequenceStatus) { ImportJob::finalize(self, s); });
    bool cancelled = false;
    {
        ScopedLock lock(_mutex);
        _sequence = sequence;
        cancelled = _cancelRequested;
    }
    setProcessState("Waiting");
    _settings.worker->addSequence(sequence);
    // A cancel that came while the sequence was being built found none to stop.
    if (cancelled) sequence->cancel();
}

// ---- The passes, on the worker's thread ----

void ImportJob::imageTouchCallback(ResourceSequence&, size_t index) {
    if (!_touchStarted) {
        _touchStarted = true;
        QOR_LOG(LogInfo, "Started reading of metadata");
        setProcessState("ReadingMetadata");
    }
    WorkItem& item = _work[index];
    {
        ScopedLock lock(_mutex);
        _currentImage = item.resource;
    }
    try {
        ILibraryCacheConnector* connector = _settings.library->cacheConnector();
        if (connector && !connector->hasMetadata(item.resource))
            throw LibraryException("cannot read " + getUrl(item.location));
        if (checksDuplicates()) _settings.duplicates->calculateDuplicates(item.resource);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Image touching failed: %*", e.what());
        item.broken = true;
        addNotImported(getUrl(item.location));
    }
    notifyUpdated();
}

void ImportJob::imageCopyCallback(ResourceSequence&, size_t index) {
    if (!_copyStarted) {
        _copyStarted = true;
        QOR_LOG(LogInfo, "Started copying");
        setProcessState("Copying");
    }
    const WorkItem& item = _work[index];
    if (item.broken) {  // listed by the touch pass
        ScopedLock lock(_mutex);
        ++_currentNumber;
        return;
    }
    const ResourceID id = copyImage(item, _bag);
    if (!id.isValid()) return;
    ILibraryCacheConnector* connector = _settings.library->cacheConnector();
    bool broken = false;
    try {
        broken = connector && !connector->hasMetadata(id);
    } catch (const std::exception&) {
        broken = true;
    }
    if (!broken) return;
    QOR_LOG(LogWarning, "Image is broken, trying to remove it.");
    addNotImported(getUrl(item.location));
    {
        ScopedLock lock(_mutex);
        std::erase(_imported, id);
    }
    try {
        _settings.library->eraseImages({id});
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Cannot return broken image: %*", e.what());
        ScopedLock lock(_mutex);
        _brokenCopies.push_back(id);  // finalize tries once more
    }
}

ResourceID ImportJob::copyImage(const WorkItem& item, SharedPtr<const ContainerBag> bag) {
    Library* library = _settings.library;
    {
        ScopedLock lock(_mutex);
        ++_currentNumber;
        _currentImage = item.resource;
    }
    const std::string path = getUrl(item.location);
    const std::string name = filesystem::getName(path);
    ResourceID id;
    try {
        if (checksDuplicates()) {
            ExternalDuplicateManager* duplicates = _settings.duplicates;
            std::vector<ResourceID> found;
            if (item.location.imageId.isValid()) {
                duplicates->calculateDuplicates(item.resource);
                if (duplicates->hasDuplicates(item.resource, false))
                    found = duplicates->duplicatesOf(item.resource);
            } else {
                // The touch pass left the checksum in the cache; the file is read only without.
                ILibraryCacheConnector* connector = library->cacheConnector();
                Digest digest = connector ? connector->checksum(item.resource) : Digest();
                if (digest.isNull()) digest = imageio::imageChecksum(FastString<char>(path));
                duplicates->getImages(digest, found);
                std::erase(found, item.resource);
            }
            if (!found.empty()) {
                bool import = false;
                if (duplicateHandling() == AskForDuplicates && _settings.askDuplicate)
                    import = _settings.askDuplicate(item.resource, found);
                if (!import) {
                    QOR_LOG(LogInfo, "Duplicate not imported: %*", name);
                    addNotImported(path);
                    notifyUpdated();
                    return InvalidResourceID;
                }
            }
        }
        if (!filesystem::isFile(path)) throw BrokenSourceException("no file at " + path);

        const std::string subfolder =
            itemType(path) == imageio::ItemTypeRaw ? kOriginalsFolder : "";
        ResourceID bagId = bag ? bag->id() : InvalidResourceID;
        if (!bagId.isValid()) {
            // The partner of a raw and JPEG pair goes where the first of them went, whatever
            // day the other tells.
            if (auto it = _baseNames.find(groupingKey(path)); it != _baseNames.end())
                bagId = library->containerId(it->second);
            if (!bagId.isValid()) {
                if (!_organizer) _organizer = std::make_unique<LibraryOrganizer>(library);
                bagId = _organizer->eventBagFor(item.resource, path);
            }
        }
        // Copies that an earlier run left behind when it was killed go first.
        const std::string folder =
            filesystem::pathJoin(library->getBagResourceName(bagId).localPath(), subfolder);
        if (_cleanedFolders.insert(folder).second) Library::removeStaleCopies(folder);

        Digest digest;
        id = item.location.imageId.isValid()
                 ? library->copyImage(item.location.imageId, bagId, subfolder, "", true, &digest)
                 : library->copyImage(path, bagId, subfolder, "", true, &digest);
        if (!id.isValid()) throw LibraryException("the destination bag is broken");
        {
            ScopedLock lock(_mutex);
            _currentImage = id;
            _imported.push_back(id);
        }
        updateGrouping(id, bagId, path);
        if (_settings.duplicates) {
            _settings.duplicates->imageImported(id, digest);
            _settings.duplicates->calculateDuplicates(id);
        }
    } catch (const BrokenSourceException& e) {
        QOR_LOG(LogWarning, "Image Broken: %*", e.what());
        addNotImported(path);
        id = InvalidResourceID;
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Image cannot be copied: %*", e.what());
        addNotImported(path);
        id = InvalidResourceID;
    }
    notifyUpdated();
    return id;
}

std::string ImportJob::groupingKey(const std::string& path) {
    std::string folder = filesystem::parentPath(path);
    if (itemType(path) == imageio::ItemTypeRaw && filesystem::leaf(folder) == kOriginalsFolder)
        folder = filesystem::parentPath(folder);
    return filesystem::pathJoin(folder, filesystem::getStem(path));
}

void ImportJob::updateGrouping(ResourceID id, ResourceID bagId, const std::string& path) {
    const std::string key = groupingKey(path);
    auto it = _baseNames.find(key);
    if (it == _baseNames.end()) {
        _baseNames.emplace(key, id);
        return;
    }
    const ResourceID partner = it->second;
    const std::string partnerPath = _settings.library->getImageResourceName(partner).localPath();
    ResourceID raw, jpeg;
    if (isJpeg(path) && itemType(partnerPath) == imageio::ItemTypeRaw) {
        raw = partner;
        jpeg = id;
    } else if (itemType(path) == imageio::ItemTypeRaw && isJpeg(partnerPath)) {
        raw = id;
        jpeg = partner;
    }
    if (!raw.isValid() || !jpeg.isValid()) return;
    SharedPtr<Bag> copy = _settings.library->modifyLockBag(bagId);
    auto* container = dynamic_cast<ContainerBag*>(copy.get());
    if (!container || !container->containsImage(raw) || !container->containsImage(jpeg)) {
        QOR_LOG(LogWarning, "Cannot group %* with %*: not in one container", partnerPath, path);
        return;
    }
    container->addItemToFamily(raw, jpeg);
}

// ---- Cancel and end ----

void ImportJob::onCanceled() {
    SharedPtr<ResourceSequence> sequence;
    {
        ScopedLock lock(_mutex);
        _cancelRequested = true;
        sequence = _sequence;
    }
    // Its completion (finalize) still runs on the worker's thread and ends the job.
    if (sequence) sequence->cancel();
}

void ImportJob::finalize(const SharedPtr<LibraryJob>& job, ResourceSequence&) {
    auto* self = static_cast<ImportJob*>(job.get());
    Library* library = self->_settings.library;
    std::vector<ResourceID> broken, temporary;
    size_t imported = 0, notImported = 0;
    {
        ScopedLock lock(self->_mutex);
        broken.swap(self->_brokenCopies);
        temporary.swap(self->_temporary);
        self->_sequence.reset();
        imported = self->_imported.size();
        notImported = self->_notImported.size();
    }
    std::erase_if(broken, [library](ResourceID id) { return !library->containerId(id).isValid(); });
    if (!broken.empty()) {
        try {
            library->eraseImages(broken);
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Cannot return broken image: %*", e.what());
        }
    }
    if (!temporary.empty()) library->removeImages(temporary);
    // The copies are written out before the job ends: once the application hears that the
    // import is done (and the card may be wiped) the pictures are on the disk. One write-out of
    // the whole file system costs what the copies' data cost; a sync of each picture before it
    // took its name made the import more than twice as slow (a journal commit per picture).
    if (imported > 0) {
        try {
            filesystem::syncFileSystem(library->path());
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "Import: the pictures could not be written out: %*", e.what());
        }
    }
    QOR_LOG(LogInfo, "Import ended: %* imported, %* not imported", imported, notImported);
    self->notifyDone(job);
}

// ---- Queries ----

bool ImportJob::isSameJob(const SharedPtr<thread::CompositeJob>& other) const {
    if (other.get() == this) return true;
    auto* job = dynamic_cast<const ImportJob*>(other.get());
    if (!job || job->_taskType != _taskType || job->destinationBagId() != destinationBagId() ||
        job->_scan != _scan)
        return false;
    if (_scan) return job->_urls == _urls;
    const std::vector<ImageLocation> mine = getSourceImages(), theirs = job->getSourceImages();
    return std::equal(mine.begin(), mine.end(), theirs.begin(), theirs.end(), sameLocation);
}

void ImportJob::setRecursiveScan(bool recursive) { _recursive = recursive; }
bool ImportJob::isRecursiveScan() const { return _recursive; }

std::vector<ImportJob::ImageLocation> ImportJob::getSourceImages() const {
    ScopedLock lock(_mutex);
    return _sourceImages;
}

unsigned ImportJob::total() const {
    ScopedLock lock(_mutex);
    return _total;
}

unsigned ImportJob::currentNumber() const {
    ScopedLock lock(_mutex);
    return _currentNumber;
}

ResourceID ImportJob::currentImage() const {
    ScopedLock lock(_mutex);
    return _currentImage;
}

ResourceID ImportJob::destinationBagId() const { return _bag ? _bag->id() : InvalidResourceID; }

ImportJob::DuplicateHandling ImportJob::duplicateHandling() const {
    return static_cast<DuplicateHandling>(_duplicateHandling.load());
}

void ImportJob::setDuplicateHandling(DuplicateHandling handling) { _duplicateHandling = handling; }

std::vector<std::string> ImportJob::getUnsupportedFiles() const {
    ScopedLock lock(_mutex);
    return _unsupported;
}

std::vector<std::string> ImportJob::getNotImportedImages() const {
    ScopedLock lock(_mutex);
    return _notImported;
}

std::vector<ResourceID> ImportJob::getImportedImages() const {
    ScopedLock lock(_mutex);
    return _imported;
}

std::string ImportJob::getUrl(const ImageLocation& location) const {
    if (!location.url.empty()) return location.url;
    if (location.imageId.isValid())
        return _settings.library->getImageResourceName(location.imageId).localPath();
    return filesystem::pathJoin(_settings.library->getBagResourceName(location.bagId).localPath(),
                                location.path);
}

void ImportJob::getSourceFolders(std::set<std::string>& folders) const {
    for (const ImageLocation& location : getSourceImages())
        if (!location.url.empty()) folders.insert(filesystem::parentPath(location.url));
}

void ImportJob::addNotImported(const std::string& path) {
    ScopedLock lock(_mutex);
    _notImported.push_back(path);
}

bool ImportJob::checksDuplicates() const {
    return _settings.duplicates != nullptr && duplicateHandling() != ImportAll;
}

}  // namespace qor::mediadb
