#include "mediadb/bags/ContainerBag.h"

#include "base/Log.h"
#include "mediadb/library/Library.h"

namespace qor::mediadb {

namespace {

using Node = Bag::Node;

// The first item child of a group other than `except`; invalid when there is none.
ResourceID otherMember(const Node* group, ResourceID except) {
    for (const Node& child : group->children())
        if (child.isItem() && !(child.item() == except)) return child.item();
    return InvalidResourceID;
}

// The child of node's parent that follows node; EmptyNodeIterator at the end.
const Node* nextSibling(const Node* node) {
    const std::vector<Node>& siblings = node->parent()->children();
    for (size_t i = 0; i + 1 < siblings.size(); ++i)
        if (&siblings[i] == node) return &siblings[i + 1];
    return Bag::EmptyNodeIterator;
}

}  // namespace

bool ContainerBag::isFamily(const Node* node) {
    return node && node->isGroup() && node->groupType() == FamilyGroupType;
}

ResourceID ContainerBag::getImageId(ResourceID id, bool wantOriginal) const {
    const Node* node = nodeForItem(id);
    if (!node) return InvalidResourceID;
    const Node* family = node->parent();
    if (!isFamily(family)) return wantOriginal ? id : InvalidResourceID;
    const char* wanted = wantOriginal ? OriginalTagValue : EditedTagValue;
    for (const Node& child : family->children())
        if (child.isItem() && child.tag(FamilyTag) == wanted) return child.item();
    return InvalidResourceID;
}

bool ContainerBag::isOriginalItem(ResourceID id) const {
    ResourceID original = getOriginalItem(id);
    return original.isValid() && original == id;
}

bool ContainerBag::isEditedItem(ResourceID id) const {
    ResourceID edited = getEditedItem(id);
    return edited.isValid() && edited == id;
}

ContainerBag::FamilyInfo ContainerBag::createFamilyInfo(const Node* family) {
    QOR_ASSERT(isFamily(family));
    FamilyInfo info;
    for (const Node& child : family->children()) {
        if (!child.isItem()) continue;
        info.members.insert(child.item());
        std::string role = child.tag(FamilyTag);
        if (role == OriginalTagValue)
            info.original = child.item();
        else if (role == EditedTagValue)
            info.edited = child.item();
    }
    QOR_ASSERT(info.original.isValid());
    return info;
}

ContainerBag::FamilyInfo ContainerBag::getFamilyInfo(ResourceID id) const {
    const Node* node = nodeForItem(id);
    if (!node) return FamilyInfo();
    if (isFamily(node->parent())) return createFamilyInfo(node->parent());
    return FamilyInfo{id, InvalidResourceID, {id}};
}

void ContainerBag::getFamilies(std::vector<FamilyInfo>& families) const {
    QOR_ASSERT(families.empty());
    for (const Node& child : rootNode()->children()) {
        if (isFamily(&child))
            families.push_back(createFamilyInfo(&child));
        else if (child.isItem())
            families.push_back(FamilyInfo{child.item(), InvalidResourceID, {child.item()}});
    }
}

const Bag::Node* ContainerBag::familyOf(ResourceID original) {
    const Node* node = nodeForItem(original);
    if (!node) return EmptyNodeIterator;
    if (isFamily(node->parent())) return node->parent();
    // The new family takes the original's place, then the original moves in.
    const Node* parent = node->parent();
    const Node* family = insertGroup(FamilyGroupType, parent);
    family = moveNode(family, parent, nodeForItem(original));
    moveNode(nodeForItem(original), family, EmptyNodeIterator);
    return nodeForItem(original)->parent();
}

const Bag::Node* ContainerBag::joinFamily(ResourceID original, ResourceID item) {
    const Node* itemNode = nodeForItem(item);
    const Node* originalNode = nodeForItem(original);
    QOR_ASSERT(itemNode && originalNode);
    QOR_ASSERT(!(original == item));
    if (!itemNode || !originalNode || original == item) return EmptyNodeIterator;
    if (isFamily(itemNode->parent()) && itemNode->parent() == originalNode->parent())
        return itemNode;
    leaveFamily(item);
    const Node* family = familyOf(original);
    return moveNode(nodeForItem(item), family, EmptyNodeIterator);
}

void ContainerBag::leaveFamily(ResourceID item) {
    const Node* node = nodeForItem(item);
    if (!node || !isFamily(node->parent())) return;
    const Node* family = node->parent();
    ResourceID other = otherMember(family, item);
    node = moveNode(node, family->parent(), family);
    removeTag(node, FamilyTag);
    if (other.isValid())
        repairFamily(nodeForItem(other)->parent());
    else
        removeNode(nextSibling(nodeForItem(item)));
}

void ContainerBag::repairFamily(const Node* family) {
    std::vector<ResourceID> members;
    bool hasOriginal = false;
    for (const Node& child : family->children()) {
        if (!child.isItem()) continue;
        members.push_back(child.item());
        hasOriginal = hasOriginal || child.tag(FamilyTag) == OriginalTagValue;
    }
    if (members.empty()) return;
    if (!hasOriginal) addTag(nodeForItem(members.front()), FamilyTag, OriginalTagValue);
    if (members.size() > 1 || family->childrenSize() > 1) return;
    // One member left: it takes the family's place as a plain item.
    ResourceID lone = members.front();
    const Node* node = moveNode(nodeForItem(lone), family->parent(), family);
    removeNode(nextSibling(node));
    removeTag(nodeForItem(lone), FamilyTag);
}

void ContainerBag::assignRoles(ResourceID original, ResourceID joined, bool asEdited) {
    const Node* family = nodeForItem(original)->parent();
    std::vector<ResourceID> members;
    for (const Node& child : family->children())
        if (child.isItem()) members.push_back(child.item());
    for (ResourceID member : members) {
        const Node* node = nodeForItem(member);
        const std::string role = node->tag(FamilyTag);
        if (member == original)
            addTag(node, FamilyTag, OriginalTagValue);
        else if (member == joined && asEdited)
            addTag(node, FamilyTag, EditedTagValue);
        else if (member == joined || role == OriginalTagValue ||
                 (asEdited && role == EditedTagValue))
            removeTag(node, FamilyTag);
    }
}

void ContainerBag::setEditedItem(ResourceID original, ResourceID edited) {
    if (joinFamily(original, edited)) assignRoles(original, edited, true);
}

void ContainerBag::addItemToFamily(ResourceID original, ResourceID item) {
    if (joinFamily(original, item)) assignRoles(original, item, false);
}

void ContainerBag::fromXml(const NodeIterator& root) {
    Bag::fromXml(root);
    // Every repair moves nodes: look for the next broken family from the start each time.
    for (bool repaired = true; repaired;) {
        repaired = false;
        for (const Node& child : rootNode()->children()) {
            if (!isFamily(&child)) continue;
            ResourceID member = otherMember(&child, InvalidResourceID);
            const char* fault = !member.isValid()                     ? "no member"
                                : child.childrenSize() == 1           ? "a single member"
                                : !getImageId(member, true).isValid() ? "no original"
                                                                      : nullptr;
            if (!fault) continue;
            QOR_LOG(LogWarning, "Bag '%*': repaired a family with %*", name(), fault);
            if (member.isValid())
                repairFamily(&child);
            else
                removeNode(&child);
            repaired = true;
            break;
        }
    }
}

void ContainerBag::onItemInserted(ResourceID id) {
    Library* lib = library();
    if (!lib) return;
    ResourceID contId = lib->imageContainerProperty(id);
    QOR_ASSERT_TEXT(!contId.isValid() || contId == this->id(),
                    "!contId.valid() || contId == this->id()");
    lib->setImageContainerProperty(id, this->id());
}

void ContainerBag::removeImage(ResourceID id) {
    if (Library* lib = library()) {
        ResourceID contId = lib->imageContainerProperty(id);
        QOR_ASSERT_TEXT(contId == this->id(), "contId == this->id()");
        lib->clearImageContainerProperty(id);
    }
    const Node* node = nodeForItem(id);
    if (!node || !isFamily(node->parent())) {
        Bag::removeImage(id);
        return;
    }
    const Node* family = node->parent();
    ResourceID other = otherMember(family, id);
    if (!other.isValid()) {
        // The family held nothing else: it goes as a whole.
        removeNode(family);
        return;
    }
    Bag::removeImage(id);
    repairFamily(nodeForItem(other)->parent());
}

}  // namespace qor::mediadb
