#include "mediadb/bags/Bag.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/Log.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

// ---- Node ----

Bag::Node Bag::Node::makeItem(ResourceID id) {
    Node node;
    node._isItemNode = true;
    node._item = id;
    return node;
}

Bag::Node Bag::Node::makeGroup(std::string type) {
    Node node;
    node._isItemNode = false;
    node._groupType = std::move(type);
    return node;
}

ResourceID Bag::Node::item() const {
    QOR_ASSERT(_isItemNode);
    return _item;
}

const std::string& Bag::Node::groupType() const {
    QOR_ASSERT(!_isItemNode);
    return _groupType;
}

size_t Bag::Node::childrenSize() const {
    QOR_ASSERT(!_isItemNode);
    return _children.size();
}

const Bag::Node* Bag::Node::parent() const { return _parent; }

std::string Bag::Node::tag(const std::string& key) const {
    auto it = _tags.find(key);
    return it == _tags.end() ? std::string() : it->second;
}

// ---- Bag ----

Bag::Bag() : _rootNode(Node::makeGroup("root")) {}

Bag::Bag(const Bag& other)
    : _name(other._name),
      _library(other._library),
      _id(other._id),
      _images(other._images),
      _rootNode(other._rootNode) {
    _rootNode._parent = nullptr;
    updateChildren(&_rootNode);
}

Bag::~Bag() = default;

const HashSet& Bag::images() const { return _images; }

bool Bag::containsImage(ResourceID id) const { return images().count(id) != 0; }

bool Bag::containsAnyImage(const HashSet& ids) const {
    for (const ResourceID& id : ids)
        if (containsImage(id)) return true;
    return false;
}

void Bag::settingsToXml(NodeIterator&) const {}
void Bag::settingsFromXml(const NodeIterator&) {}
void Bag::onItemInserted(ResourceID) {}

void Bag::setName(const std::string& name) { _name = name; }
void Bag::setLibrary(Library* library) { _library = library; }

void Bag::insertImage(ResourceID id) {
    if (_images.count(id)) return;
    insertItem(id, &_rootNode, EmptyNodeIterator);
}

void Bag::removeImage(ResourceID id) {
    const Node* node = nodeForItem(id);
    QOR_ASSERT_MSG(node != EmptyNodeIterator, "image %* has no node in bag '%*'", id, _name);
    if (node)
        removeNode(node);
    else
        _images.erase(id);
}

ResourceName Bag::getResourceName() const {
    if (!_library || !_id.isValid()) return ResourceName();
    return _library->getBagResourceName(_id);
}

std::string Bag::localPath() const { return getResourceName().localPath(); }

bool Bag::libraryShuttingDown() const { return _library && _library->isShuttingDown(); }

ResourceName Bag::getImageResourceName(ResourceID id) const {
    if (!_library) return ResourceName();
    return _library->getImageResourceName(id);
}

bool Bag::containsImage(std::string_view path) const {
    if (!_library) return false;
    ResourceID id = _library->getImageId(path);
    return id.isValid() && containsImage(id);
}

bool Bag::imagesDiffer(const Bag& old) const { return images() != old.images(); }

// ---- Node operations ----

const Bag::Node* Bag::nodeForItem(ResourceID id) const {
    auto it = _nodeMap.find(id);
    return it == _nodeMap.end() ? EmptyNodeIterator : it->second;
}

std::vector<const Bag::Node*> Bag::nodesForItem(const std::vector<ResourceID>& ids) const {
    std::vector<const Node*> nodes;
    nodes.reserve(ids.size());
    for (const ResourceID& id : ids)
        if (const Node* node = nodeForItem(id)) nodes.push_back(node);
    return nodes;
}

void Bag::collectItems(const Node* node, std::vector<const Node*>& out) const {
    for (const Node& child : node->_children) {
        if (child._isItemNode)
            out.push_back(&child);
        else
            collectItems(&child, out);
    }
}

std::vector<const Bag::Node*> Bag::itemNodes() const {
    std::vector<const Node*> nodes;
    nodes.reserve(_nodeMap.size());
    collectItems(&_rootNode, nodes);
    return nodes;
}

const Bag::Node* Bag::addTag(const Node* node, const std::string& key, const std::string& value) {
    QOR_ASSERT(node != EmptyNodeIterator);
    if (node) mutableNode(node)->_tags[key] = value;
    return node;
}

const Bag::Node* Bag::removeTag(const Node* node, const std::string& key) {
    QOR_ASSERT(node != EmptyNodeIterator);
    if (node) mutableNode(node)->_tags.erase(key);
    return node;
}

bool Bag::inThisTree(const Node* node) const {
    const Node* cur = node;
    while (cur != EmptyNodeIterator && cur != &_rootNode) cur = cur->_parent;
    QOR_ASSERT_TEXT(cur != EmptyNodeIterator, "cur != EmptyNodeIterator");
    return cur != EmptyNodeIterator;
}

void Bag::updateChildren(const Node* node) {
    Node* n = mutableNode(node);
    for (Node& child : n->_children) {
        child._parent = n;
        if (child._isItemNode)
            _nodeMap[child._item] = &child;
        else
            updateChildren(&child);
    }
}

const Bag::Node* Bag::insertNode(Node node, const Node* parent, const Node* sibling, bool update) {
    QOR_ASSERT(parent != EmptyNodeIterator);
    if (!parent || !inThisTree(parent)) return EmptyNodeIterator;
    // Only moveNode places a node before a sibling.
    QOR_ASSERT(sibling == EmptyNodeIterator);
    if (sibling != EmptyNodeIterator) return EmptyNodeIterator;
    QOR_ASSERT(parent->isGroup());
    if (!parent->isGroup()) return EmptyNodeIterator;
    if (node._isItemNode) {
        QOR_ASSERT_MSG(_nodeMap.count(node._item) == 0, "item %* is in bag '%*' already",
                       node._item, _name);
        if (_nodeMap.count(node._item)) return EmptyNodeIterator;
    }
    Node* p = mutableNode(parent);
    // Appending moves the siblings only when the vector grows its buffer (rarely: it doubles).
    const bool siblingsMove = p->_children.size() == p->_children.capacity();
    p->_children.push_back(std::move(node));
    Node* inserted = &p->_children.back();
    inserted->_parent = p;
    if (inserted->_isItemNode) _nodeMap[inserted->_item] = inserted;
    // The new node's own subtree always gets its pointers; moved siblings only with `update`.
    updateChildren(inserted);
    if (update && siblingsMove) updateChildren(parent);
    return inserted;
}

const Bag::Node* Bag::insertGroup(const std::string& type, const Node* parent,
                                  const Node* sibling) {
    return insertNode(Node::makeGroup(type), parent, sibling, true);
}

const Bag::Node* Bag::insertItem(ResourceID id, const Node* parent, const Node* sibling) {
    if (!insertNode(Node::makeItem(id), parent, sibling, true)) return EmptyNodeIterator;
    _images.insert(id);
    onItemInserted(id);
    return nodeForItem(id);
}

namespace {

// Index path of a node from the root (empty for the root).
std::vector<size_t> pathFromRoot(const Bag::Node* node) {
    std::vector<size_t> path;
    for (const Bag::Node* cur = node; cur->parent(); cur = cur->parent()) {
        const auto& siblings = cur->parent()->children();
        path.push_back(static_cast<size_t>(cur - siblings.data()));
    }
    std::reverse(path.begin(), path.end());
    return path;
}

}  // namespace

void Bag::removeNode(const Node* node) {
    QOR_ASSERT(node != EmptyNodeIterator && node->_parent != nullptr);
    if (!node || !node->_parent) return;
    Node* parent = mutableNode(node->_parent);
    auto it = std::find_if(parent->_children.begin(), parent->_children.end(),
                           [node](const Node& child) { return &child == node; });
    QOR_ASSERT_TEXT(it != parent->_children.end(), "node is among its parent's children");
    if (it == parent->_children.end()) return;
    std::vector<const Node*> items;
    if (node->_isItemNode)
        items.push_back(node);
    else
        collectItems(node, items);
    for (const Node* item : items) {
        _nodeMap.erase(item->_item);
        _images.erase(item->_item);
    }
    parent->_children.erase(it);
    updateChildren(&_rootNode);
}

const Bag::Node* Bag::moveNode(const Node* node, const Node* parent, const Node* sibling) {
    QOR_ASSERT(node != EmptyNodeIterator && node != &_rootNode);
    QOR_ASSERT(parent != EmptyNodeIterator);
    if (!node || node == &_rootNode || !parent || !inThisTree(node) || !inThisTree(parent))
        return EmptyNodeIterator;
    QOR_ASSERT_TEXT(sibling != node, "moving a node before itself");
    if (sibling == node) return node;
    QOR_ASSERT(sibling == EmptyNodeIterator || sibling->_parent == parent);
    if (sibling && sibling->_parent != parent) return EmptyNodeIterator;
    QOR_ASSERT(parent->isGroup());
    if (!parent->isGroup()) return EmptyNodeIterator;
    // A node cannot move into its own subtree.
    for (const Node* cur = parent; cur; cur = cur->_parent) {
        QOR_ASSERT_TEXT(cur != node, "moving a node into its own subtree");
        if (cur == node) return node;
    }

    // Addresses change when the node leaves its vector: work with index paths.
    std::vector<size_t> from = pathFromRoot(node);
    std::vector<size_t> to = pathFromRoot(parent);
    size_t position = sibling ? static_cast<size_t>(sibling - parent->_children.data())
                              : parent->_children.size();
    Node moved = *node;
    Node* oldParent = mutableNode(node->_parent);
    oldParent->_children.erase(oldParent->_children.begin() + from.back());
    // The removal shifts the later siblings of the moved node, and what lies below them.
    const size_t depth = from.size() - 1;
    if (to.size() > depth && std::equal(from.begin(), from.begin() + depth, to.begin()) &&
        to[depth] > from.back())
        --to[depth];
    else if (to.size() == depth && std::equal(to.begin(), to.end(), from.begin()) &&
             position > from.back())
        --position;
    Node* target = &_rootNode;
    for (size_t index : to) target = &target->_children[index];
    target->_children.insert(target->_children.begin() + position, std::move(moved));
    updateChildren(&_rootNode);
    return &target->_children[position];
}

const Bag::Node* Bag::replaceItem(ResourceID oldId, ResourceID newId) {
    const Node* node = nodeForItem(oldId);
    QOR_ASSERT_MSG(node != EmptyNodeIterator, "image %* is not in bag '%*'", oldId, _name);
    QOR_ASSERT_MSG(_images.count(newId) == 0, "image %* is in bag '%*' already", newId, _name);
    if (!node || _images.count(newId)) return EmptyNodeIterator;
    mutableNode(node)->_item = newId;
    _nodeMap.erase(oldId);
    _nodeMap[newId] = node;
    _images.erase(oldId);
    _images.insert(newId);
    return node;
}

void Bag::notifyItemInsertedRec(const Node* node) {
    for (const Node& child : node->_children) {
        if (child._isItemNode)
            onItemInserted(child._item);
        else
            notifyItemInsertedRec(&child);
    }
}

// ---- .bag files ----

namespace {

constexpr std::string_view kTagPrefix = "tag:";

void readTags(const NodeIterator& xml, Bag::Node::Tags& tags) {
    for (XmlAttribute attr : xml.attributes()) {
        if (attr.name.size() >= kTagPrefix.size() && attr.name.substr(0, 4) == kTagPrefix)
            tags[std::string(attr.name.substr(kTagPrefix.size()))] = std::string(attr.value);
    }
}

void writeTags(NodeIterator& xml, const Bag::Node::Tags& tags) {
    for (const auto& [key, value] : tags) xml.appendAttribute(std::string(kTagPrefix) + key, value);
}

}  // namespace

void Bag::clearContent() {
    _rootNode = Node::makeGroup("root");
    _images.clear();
    _nodeMap.clear();
}

void Bag::fromXml(const NodeIterator& root) {
    NodeIterator settings;
    try {
        for (NodeIterator child : root.children()) {
            if (child.name() == "settings") {
                settings = child;
            } else if (child.name() == "group") {
                // The root group: its tags belong to the root node, its children are the tree.
                readTags(child, _rootNode._tags);
                for (NodeIterator node : child.children()) nodeFromXml(node, &_rootNode);
            }
        }
        updateChildren(&_rootNode);
        notifyItemInsertedRec(&_rootNode);
        if (settings) settingsFromXml(settings);
    } catch (const std::exception& e) {
        updateChildren(&_rootNode);
        QOR_LOG(LogWarning, "Broken bag file: %*", e.what());
    }
}

void Bag::nodeFromXml(const NodeIterator& xml, const Node* parent) {
    Node node;
    if (xml.name() == "item") {
        std::string_view persistent = xml.attribute("name");
        if (persistent.empty() || !_library) {
            QOR_LOG(LogWarning, "Invalid node '%*' in image node", "item without a name");
            return;
        }
        ResourceName name = _library->imageManager()->nameFromPersistentString(persistent);
        ResourceID id = _library->addImage(name.localPath());
        if (!id.isValid() || _nodeMap.count(id)) {
            QOR_LOG(LogWarning, "Invalid node '%*' in image node", persistent);
            return;
        }
        node = Node::makeItem(id);
        _images.insert(id);
    } else if (xml.name() == "group") {
        node = Node::makeGroup(std::string(xml.attribute("type")));
    } else {
        QOR_LOG(LogWarning, "Invalid node '%*' in image node", xml.name());
        return;
    }
    readTags(xml, node._tags);
    const Node* inserted = insertNode(std::move(node), parent, EmptyNodeIterator, false);
    if (!inserted || inserted->_isItemNode) return;
    for (NodeIterator child : xml.children()) nodeFromXml(child, inserted);
}

void Bag::toXml(NodeIterator& node) const {
    NodeIterator settings = node.appendChild("settings");
    settingsToXml(settings);
    nodeToXml(node, &_rootNode);
}

void Bag::nodeToXml(NodeIterator& xml, const Node* node) const {
    if (node->_isItemNode) {
        NodeIterator item = xml.appendChild("item");
        ResourceName name = getImageResourceName(node->_item);
        if (!name.empty()) item.appendAttribute("name", name.persistentString());
        writeTags(item, node->_tags);
        return;
    }
    NodeIterator group = xml.appendChild("group");
    group.appendAttribute("type", node->_groupType);
    writeTags(group, node->_tags);
    for (const Node& child : node->_children) nodeToXml(group, &child);
}

// ---- Copy-on-write ----

SharedPtr<Bag> Bag::modifyLock(LibraryLockPtr lock) const {
    Library* library = _library;
    if (!library || !_id.isValid()) return nullptr;
    const ResourceID id = _id;
    std::string path = localPath();
    SharedPtr<const Bag> current;
    if (path.empty()) {
        // A bag that is not on disk: a plain copy with no lock.
        current = library->bag(id);
    } else if (lock) {
        current = library->bag(id);
    } else {
        // Lock the bag's path. A writer may have moved or changed the bag while we waited: lock
        // the present path and take the snapshot that is current under the lock.
        for (;;) {
            lock = LibraryLock::acquire(path, 1);
            std::string now = library->getBagResourceName(id).localPath();
            if (now.empty()) return nullptr;
            if (FilesystemScopedLock::lockKey(now) == lock->path()) break;
            lock.reset();
            path = std::move(now);
        }
        current = library->bag(id);
    }
    if (!current) return nullptr;
    Bag* copy = current->mutableCopy();
    return SharedPtr<Bag>(copy, [lock](Bag* bag) { writeunlock(bag, lock); });
}

void Bag::writeunlock(Bag* bag, const LibraryLockPtr& lock) {
    ScopedPtr<Bag> owned(bag);
    try {
        Library* library = bag->_library;
        const ResourceID id = bag->_id;
        SharedPtr<const Bag> old = library->bag(id);
        const bool imagesChanged = !old || bag->imagesDiffer(*old);
        if (!library->storeBag(id, SharedPtr<const Bag>(owned.release()))) {
            QOR_LOG(LogWarning, "Failed to store modified bag: %*",
                    "the bag is no longer in the library");
            return;
        }
        library->addUnsaved(id);
        if (lock)
            lock->onReleased(
                [library, id, imagesChanged] { notifyUpdated(library, id, imagesChanged); });
        else
            notifyUpdated(library, id, imagesChanged);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Failed to store modified bag: %*", e.what());
    } catch (...) {
        QOR_LOG(LogError, "Failed to store modified bag: %*", "unknown exception");
    }
}

void Bag::notifyUpdated(Library* library, ResourceID id, bool imagesChanged) {
    library->notifyBagUpdated(id, imagesChanged);
}

}  // namespace qor::mediadb
