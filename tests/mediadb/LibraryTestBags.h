#pragma once
// Bag types of the library tests' own (a folder bag that owns its images and a file bag that
// refers to them, kept up as the bag family keeps the image properties), a cache connector that
// records what the library tells it, and small file helpers. Shared by the test executable and the
// child program that the crash and save failure tests run.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "base/filesystem/Path.h"
#include "mediadb/bags/Bag.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/ImageManager.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb::testing {

// A folder bag that owns its images: it keeps "Library::BagId" of each image.
class TestFolderBag : public Bag {
public:
    static std::string bagTypeStatic() { return "testfolder"; }
    std::string bagType() const override { return bagTypeStatic(); }
    bool isFolder() const override { return true; }
    Bag* mutableCopy() const override { return new TestFolderBag(*this); }
    void onItemInserted(ResourceID id) override {
        if (library()) library()->setImageContainerProperty(id, this->id());
    }
    void removeImage(ResourceID id) override {
        if (library()) library()->clearImageContainerProperty(id);
        Bag::removeImage(id);
    }

    // Node operations opened for the tests of the base class.
    using Bag::addTag;
    using Bag::insertGroup;
    using Bag::insertItem;
    using Bag::insertNode;
    using Bag::itemNodes;
    using Bag::moveNode;
    using Bag::nodeForItem;
    using Bag::removeNode;
    using Bag::rootNode;
};

// A file bag that refers to images of folder bags: it keeps "Library::AssociativeBags".
class TestListBag : public Bag {
public:
    static std::string bagTypeStatic() { return "testlist"; }
    std::string bagType() const override { return bagTypeStatic(); }
    bool isFolder() const override { return false; }
    Bag* mutableCopy() const override { return new TestListBag(*this); }
    void onItemInserted(ResourceID id) override {
        if (library()) library()->addAssociativeBagOfImage(id, this->id());
    }
    void removeImage(ResourceID id) override {
        if (library()) library()->removeAssociativeBagOfImage(id, this->id());
        Bag::removeImage(id);
    }
};

// Records the notices; answers queries with nothing known.
class RecordingConnector : public ILibraryCacheConnector {
public:
    void imageMoved(ResourceID id, const std::string& oldPath) override {
        note("moved " + std::to_string(id.id()) + " " + oldPath);
    }
    void imageCopied(ResourceID src, ResourceID dst) override {
        note("copied " + std::to_string(src.id()) + " " + std::to_string(dst.id()));
    }
    void imageRemoved(ResourceID id, const std::string&) override {
        note("removed " + std::to_string(id.id()));
    }
    void folderMoved(const std::string& from, const std::string& to) override {
        note("folder " + from + " " + to);
    }
    void folderRemoved(const std::string& folder) override { note("folder removed " + folder); }
    void imageChanged(ResourceID) override {}
    void imagesAdded(const std::vector<ResourceID>&) override {}
    bool hasMetadata(ResourceID) override { return false; }
    int rating(ResourceID) override { return 0; }
    time::Timestamp captureTime(ResourceID) override { return {}; }
    Digest checksum(ResourceID) override { return {}; }
    uint64_t fileSize(ResourceID) override { return 0; }
    time::Timestamp fileLastWriteTime(ResourceID) override { return {}; }
    bool isCached(ResourceID) override { return false; }
    void setRating(ResourceID, int) override {}
    void flush() override {}

    std::vector<std::string> notes() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _notes;
    }

private:
    void note(std::string text) {
        std::lock_guard<std::mutex> lock(_mutex);
        _notes.push_back(std::move(text));
    }
    mutable std::mutex _mutex;
    std::vector<std::string> _notes;
};

inline void writeFile(const std::string& path, const std::string& content) {
    filesystem::createDirectoryFromUrl(filesystem::parentPath(path));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void registerTestBags(Library& library) {
    library.registerBag(
        TestFolderBag::bagTypeStatic(), [] { return new TestFolderBag; }, false);
    library.registerBag(
        TestListBag::bagTypeStatic(), [] { return new TestListBag; }, true);
}

}  // namespace qor::mediadb::testing
