#pragma once
// Helpers of the bag tests: a library in a temporary folder with the standard bag types, picture
// files put into its bags, and the item order of a saved .bag file.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../support/TempDir.h"
#include "LibraryTestSupport.h"
#include "base/filesystem/Path.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/bags/Bag.h"
#include "mediadb/bags/StandardBagTypes.h"
#include "mediadb/library/ImageManager.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb::testing {

// A library in a temporary folder with the standard bag types, loaded. reopen() destroys it
// (which saves) and loads the folder again with a fresh ImageManager, as a restart would.
class BagLibrary {
public:
    // Makes the connector of a library over its ImageManager (a cache chain, say); the pointer
    // owns whatever the connector needs and goes after the library, before the manager.
    using ConnectorFactory = std::function<SharedPtr<ILibraryCacheConnector>(ImageManager&)>;

    // Without a factory the library gets a RecordingConnector (no metadata known).
    explicit BagLibrary(ConnectorFactory factory = {}) : _factory(std::move(factory)) { open(); }
    ~BagLibrary() { close(); }

    Library& lib() { return *_library; }
    ImageManager& images() { return *_images; }
    ILibraryCacheConnector& connector() { return *_connector; }
    std::string root() const { return _dir.path() + "/library/"; }

    void reopen() {
        close();
        open();
    }

    // A new bag of `type` named `name`.
    ResourceID createBag(const std::string& type, const std::string& name) {
        return _library->createBag(type, name);
    }

    // Writes `bytes` (a few bytes of text when empty) as `name` into the folder of container bag
    // `bagId` and adopts it; returns the image id.
    ResourceID addPicture(ResourceID bagId, const std::string& name,
                          const std::vector<uint8_t>& bytes = {}) {
        std::string path = filesystem::pathJoin(_library->bag(bagId)->localPath(), name);
        writeFile(path,
                  bytes.empty() ? "picture " + name : std::string(bytes.begin(), bytes.end()));
        ResourceID id = _library->adoptImage(name, bagId);
        EXPECT_TRUE(id.isValid()) << name;
        return id;
    }

    ResourceID imageId(ResourceID bagId, const std::string& name) {
        return _library->getImageId(filesystem::pathJoin(_library->bag(bagId)->localPath(), name));
    }

    // Changes a bag through a mutable copy of type T, which commits when fn returns.
    template <class T>
    void modify(ResourceID bagId, const std::function<void(T&)>& fn) {
        SharedPtr<T> copy = dynamic_ptr_cast<T>(_library->modifyLockBag(bagId));
        ASSERT_TRUE(copy) << "no mutable copy of the expected type";
        fn(*copy);
    }

    template <class T>
    SharedPtr<const T> bag(ResourceID bagId) {
        return dynamic_ptr_cast<const T>(_library->bag(bagId));
    }

    // The file that holds a bag's content, written out now.
    std::string savedBagFile(ResourceID bagId) {
        _library->save({}, true);
        SharedPtr<const Bag> b = _library->bag(bagId);
        return Library::bagFilePath(*b, b->localPath());
    }

private:
    void open() {
        _images = std::make_unique<ImageManager>();
        _connector = _factory ? _factory(*_images) : std::make_shared<RecordingConnector>();
        _library = std::make_unique<Library>(_images.get(), _connector.get(), root());
        registerStandardBagTypes(*_library);
        _library->load();
    }
    void close() {
        _library.reset();
        _connector.reset();
        _images.reset();
    }

    test::TempDir _dir;
    ConnectorFactory _factory;
    SharedPtr<ILibraryCacheConnector> _connector;
    std::unique_ptr<ImageManager> _images;
    std::unique_ptr<Library> _library;
};

// One line per node of a saved .bag's root group, in order: "item <leaf of name>" for an item,
// "group <type>(<children, comma-separated>)" for a group, each followed by " tag:K=V" per tag.
inline std::vector<std::string> savedTree(const std::string& bagFile) {
    std::vector<std::string> out;
    XmlDocumentRapid doc;
    if (!doc.load(bagFile)) {
        ADD_FAILURE() << "cannot read " << bagFile;
        return out;
    }
    std::function<std::string(const NodeIterator&)> describe = [&](const NodeIterator& node) {
        std::string text;
        if (node.name() == "item") {
            text = "item " + filesystem::leaf(node.attribute("name"));
        } else {
            text = "group " + std::string(node.attribute("type")) + "(";
            bool first = true;
            for (NodeIterator child : node.children()) {
                text += (first ? "" : ", ") + describe(child);
                first = false;
            }
            text += ")";
        }
        for (XmlAttribute a : node.attributes())
            if (a.name.substr(0, 4) == "tag:")
                text += " " + std::string(a.name) + "=" + std::string(a.value);
        return text;
    };
    NodeIterator root = doc.root().child("group");
    for (NodeIterator child : root.children()) out.push_back(describe(child));
    return out;
}

// Polls `condition` every 20 ms for at most `seconds`.
inline bool eventually(const std::function<bool()>& condition, double seconds = 10.0) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace qor::mediadb::testing
