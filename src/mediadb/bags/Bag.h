#pragma once
// Bag: a named collection of images, the base of the bag family (ContainerBag, AssociativeBag,
// ProceduralBag and their subclasses).
//
// Content. A bag holds a set of image ids (images()) and a small tree of nodes that gives them
// their order and grouping: the root is a group of type "root"; a group node has a type and
// children, an item node names one image; every node carries string tags. The tree is stored in
// the bag's ".bag" file (see toXml).
//
// Snapshots and copy-on-write. A bag reachable through Library::bag is an immutable snapshot and is
// never changed. To change a bag, take a private mutable copy with Library::modifyLockBag (which
// calls modifyLock): the copy holds a file-system lock on the bag's path for as long as it lives,
// and when its last reference goes, writeunlock commits it as the bag's new snapshot, marks the bag
// unsaved and queues the update notice (Library::notifyBagUpdated) to run after the lock has been
// released. Old snapshots live as long as someone holds them.
//
// Nodes are stored by value in their parent's children, so any insertion or removal can move
// nodes; the node operations return the node's new address and keep parent pointers and _nodeMap
// (item id -> its node) up to date through updateChildren. A `const Node*` of a bag is valid only
// until the next node operation on that bag.
//
// Subclasses implement bagType(), isFolder() and mutableCopy() (a copy constructor call: Bag's copy
// constructor rebuilds the node pointers of the copy), and override the hooks they need
// (settingsToXml/settingsFromXml, onItemInserted, insertImage/removeImage, images()/containsImage
// for computed bags).
//
// Thread contract: a snapshot is read by any number of threads without a lock. A mutable copy
// belongs to the thread that made it (while it holds the bag's path lock) until it is committed.

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/ResourceID.h"
#include "base/resource/ResourceName.h"
#include "mediadb/library/LibraryLock.h"
#include "util/SharedPtr.h"

namespace qor {
class NodeIterator;
}

namespace qor::mediadb {

class Library;

// A set of image (or bag) ids.
using HashSet = std::unordered_set<ResourceID>;

class Bag {
public:
    // One node of the bag's tree: a group (type, children) or an item (an image id, no children).
    class Node {
    public:
        using Tags = std::map<std::string, std::string>;

        static Node makeItem(ResourceID id);
        static Node makeGroup(std::string type);

        bool isItem() const { return _isItemNode; }
        bool isGroup() const { return !_isItemNode; }
        // Of an item (asserts "_isItemNode").
        ResourceID item() const;
        // Of a group (assert "!_isItemNode").
        const std::string& groupType() const;
        size_t childrenSize() const;
        // The children in order; empty for an item.
        const std::vector<Node>& children() const { return _children; }
        // Null for the root (and for a node that is in no tree).
        const Node* parent() const;
        const Tags& tags() const { return _tags; }
        // The tag's value, "" when absent.
        std::string tag(const std::string& key) const;
        bool hasTag(const std::string& key) const { return _tags.count(key) != 0; }

    private:
        friend class Bag;

        bool _isItemNode = false;
        std::string _groupType;  // groups only
        Tags _tags;
        ResourceID _item;  // items only
        std::vector<Node> _children;
        const Node* _parent = nullptr;
    };

    // The null node handle.
    static constexpr const Node* EmptyNodeIterator = nullptr;

    // ---- Virtual operations, in this order ----

    virtual ~Bag();
    // The bag's images. A reference into the bag: valid as long as the snapshot.
    virtual const HashSet& images() const;
    // Whether the bag is listed in library.xml and has a .bag file. Default true.
    virtual bool persistent() const { return true; }
    // Appends the bag's content below `node` (the `bag` element of a .bag file): a `settings`
    // element filled by settingsToXml, then one `group` element for the root node. Groups carry
    // `type`, items `name` (the persistent string of the image's name; none when the image has no
    // name), every tag K=V as the attribute "tag:K".
    virtual void toXml(NodeIterator& node) const;
    // Reads what toXml wrote (children of the `bag` element; a `metadata` child is ignored). Items
    // are added to the library's ImageManager (Library::addImage). Unknown elements are logged
    // ("Invalid node '%*' in image node") and skipped; any other failure is logged as "Broken bag
    // file: %*" and leaves what was read. Calls onItemInserted for every item in tree order, then
    // settingsFromXml. For a freshly made (or cleared) bag.
    virtual void fromXml(const NodeIterator& root);
    // The type key under which the bag type is registered ("event", "collection" ...).
    virtual std::string bagType() const = 0;
    // Whether the bag is a folder (its .bag file lies inside it) or a file (the .bag file itself).
    virtual bool isFolder() const = 0;
    // Lookup in images().
    virtual bool containsImage(ResourceID id) const;
    // Whether any of `ids` is in the bag.
    virtual bool containsAnyImage(const HashSet& ids) const;
    // Writes the subclass's own settings into the `settings` element. Default: nothing.
    virtual void settingsToXml(NodeIterator& settings) const;
    // Reads them back; runs after all nodes have been read. Default: nothing.
    virtual void settingsFromXml(const NodeIterator& settings);
    // Called for every item inserted into the tree (insertItem, fromXml). Default: nothing.
    virtual void onItemInserted(ResourceID id);
    // A new heap copy of this bag (the caller owns it), same class, same content.
    virtual Bag* mutableCopy() const = 0;
    virtual void setName(const std::string& name);
    virtual void setLibrary(Library* library);
    // Appends the image to the root as an item, unless it is in the bag already.
    virtual void insertImage(ResourceID id);
    // Removes the image's item node (assertion when the image has none).
    virtual void removeImage(ResourceID id);

    // ---- Public queries ----

    // The bag's id in the library's bag manager; invalid until the library has added it.
    ResourceID id() const { return _id; }
    const std::string& name() const { return _name; }
    // The bag's name in the bag manager (its folder or file); the empty name when it has none.
    ResourceName getResourceName() const;
    // The local path of getResourceName(); "" when none.
    std::string localPath() const;
    Library* library() const { return _library; }
    // The root of the node tree (a group of type "root"): the bag's images in their order.
    const Node* rootNode() const { return &_rootNode; }

    // Copy-on-write (see the class comment). Returns a mutable copy of the current snapshot
    // whose last reference commits it. With no `lock`, locks the bag's path exclusively (blocks)
    // and refetches the snapshot, since a writer may have committed while we waited; with a lock,
    // the caller holds a lock that covers the bag. A bag with no path (transient) gives a plain
    // copy with no lock, which commits too. Null when the bag has no library or is no longer in it.
    SharedPtr<Bag> modifyLock(LibraryLockPtr lock = nullptr) const;

protected:
    Bag();
    // Copies content, name, library and id; the copy's node pointers point into the copy.
    Bag(const Bag& other);
    Bag& operator=(const Bag&) = delete;

    // ---- For subclasses ----

    void reserveImages(size_t count) { _images.reserve(count); }
    // Replaces the image set (for bags that compute their images); the tree is left alone.
    void setImages(HashSet images) { _images = std::move(images); }
    // Whether the library is shutting down (long work stops early).
    bool libraryShuttingDown() const;
    // The image's name in the ImageManager; the empty name when unknown.
    ResourceName getImageResourceName(ResourceID id) const;
    // Whether the image with this local path is in the bag. (A subclass that overrides
    // containsImage(ResourceID) brings this one back with `using Bag::containsImage;`.)
    bool containsImage(std::string_view path) const;

    // The item node of an image; EmptyNodeIterator when it has none.
    const Node* nodeForItem(ResourceID id) const;
    // The item nodes of the listed images that have one, in the list's order.
    std::vector<const Node*> nodesForItem(const std::vector<ResourceID>& ids) const;
    // Every item node, in tree order.
    std::vector<const Node*> itemNodes() const;

    // Sets a tag on a node and returns the node.
    const Node* addTag(const Node* node, const std::string& key, const std::string& value);
    // Removes a tag (nothing when absent) and returns the node.
    const Node* removeTag(const Node* node, const std::string& key);
    // Removes a node with its subtree; items leave _nodeMap and _images. Asserts that the node
    // has a parent and is among its children.
    void removeNode(const Node* node);
    // Builds a group / an item and inserts it (insertNode with update). insertItem also adds the
    // id to the image set and calls onItemInserted. `sibling` must be EmptyNodeIterator here.
    const Node* insertGroup(const std::string& type, const Node* parent,
                            const Node* sibling = EmptyNodeIterator);
    const Node* insertItem(ResourceID id, const Node* parent,
                           const Node* sibling = EmptyNodeIterator);
    // Appends a node (with its subtree) to `parent`'s children. Asserts that parent is a group of
    // this tree and that sibling is EmptyNodeIterator (a real sibling inserts nothing and returns
    // EmptyNodeIterator); an item must not be in _nodeMap yet. With `update`, the pointers of the
    // siblings are right afterwards (updateChildren when the append moved them); without, the
    // caller runs updateChildren(parent) before it uses them.
    const Node* insertNode(Node node, const Node* parent, const Node* sibling, bool update);
    // Moves a node (not the root) to `parent`, before `sibling` (a child of parent) or at the end
    // when sibling is EmptyNodeIterator. Returns its new address; moving a node before itself
    // asserts and returns the node unchanged.
    const Node* moveNode(const Node* node, const Node* parent, const Node* sibling);
    // Gives an item node another image id in place (its position and tags stay); the image set
    // and _nodeMap follow. Asserts that oldId is in and newId is not.
    const Node* replaceItem(ResourceID oldId, ResourceID newId);
    // Sets the parent pointers below `node` to the children's present addresses and refreshes
    // the _nodeMap entries of the items there.
    void updateChildren(const Node* node);

    // Commits a mutable copy (the deleter of modifyLock's pointer): stores it as the bag's
    // snapshot, marks it unsaved, and queues notifyUpdated on the lock's release (right away
    // when there is no lock). Failures are logged as "Failed to store modified bag: %*" and
    // swallowed. Deletes `bag`.
    static void writeunlock(Bag* bag, const LibraryLockPtr& lock);
    // The update notice of a committed copy: Library::notifyBagUpdated.
    static void notifyUpdated(Library* library, ResourceID id, bool imagesChanged);
    // Whether a commit of `copy` over `old` changed the images (procedural bags always do).
    virtual bool imagesDiffer(const Bag& old) const;

    std::string _name;
    Library* _library = nullptr;  // not owned
    ResourceID _id;
    HashSet _images;
    Node _rootNode;  // a group of type "root"
    // item id -> its node; changed only by the node operations above
    std::unordered_map<ResourceID, const Node*> _nodeMap;

private:
    friend class Library;

    Node* mutableNode(const Node* node) { return const_cast<Node*>(node); }
    // Empties the tree and the image set (before fromXml reads a file again).
    void clearContent();
    bool inThisTree(const Node* node) const;
    void nodeFromXml(const NodeIterator& xml, const Node* parent);
    void nodeToXml(NodeIterator& xml, const Node* node) const;
    void notifyItemInsertedRec(const Node* node);
    void collectItems(const Node* node, std::vector<const Node*>& out) const;
};

}  // namespace qor::mediadb
