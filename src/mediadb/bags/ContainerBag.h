#pragma once
// ContainerBag: a bag that owns the files of its images, which lie in its folder (EventBag,
// ImportBag). Every image of the library has at most one container, kept in the image's
// "Library::BagId" property: inserting an image sets it, removing it clears it.
//
// Families. An original picture and its edited versions are kept together in a group node of type
// "family" whose item children carry the tag "family" with the value "original" (exactly one) or
// "edited" (at most one); further members carry no family tag. A family of one member is
// dissolved: the remaining item takes the family's place as a plain item.
//
// Thread contract: that of Bag. The family operations change the tree and run on a mutable copy;
// the queries run on any snapshot.

#include <set>
#include <vector>

#include "mediadb/bags/Bag.h"

namespace qor::mediadb {

class ContainerBag : public Bag {
public:
    // One family, or one image that is in none (then `original` is that image, `edited` invalid).
    struct FamilyInfo {
        ResourceID original;
        ResourceID edited;
        std::set<ResourceID> members;  // every member, original and edited included
    };

    // Group type and tag of families.
    static constexpr const char* FamilyGroupType = "family";
    static constexpr const char* FamilyTag = "family";
    static constexpr const char* OriginalTagValue = "original";
    static constexpr const char* EditedTagValue = "edited";

    // Makes `edited` the edited version of `original`. When the original is in no family yet, a
    // family group takes its place and the original moves into it. An item that was the edited
    // version before becomes a plain member; `edited` leaves another family first. Both images
    // must be in the bag (assertion otherwise, nothing changes).
    void setEditedItem(ResourceID original, ResourceID edited);
    // The same, but `item` joins as a plain member, with no "edited" tag.
    void addItemToFamily(ResourceID original, ResourceID item);

    // The original of the image's family; the image itself when it is in no family; invalid when
    // it is not in the bag.
    ResourceID getOriginalItem(ResourceID id) const { return getImageId(id, true); }
    // The edited version of the image's family; invalid when there is none.
    ResourceID getEditedItem(ResourceID id) const { return getImageId(id, false); }
    bool isOriginalItem(ResourceID id) const;
    bool isEditedItem(ResourceID id) const;
    // The family of the image (see FamilyInfo); all invalid when the image is not in the bag.
    FamilyInfo getFamilyInfo(ResourceID id) const;
    // One FamilyInfo per child of the root, in order: a family group gives its family, an item a
    // family of its own. `families` must be empty (assertion).
    void getFamilies(std::vector<FamilyInfo>& families) const;

    // Reads the tree and settings (Bag::fromXml), then puts right the families of the root that a
    // file got wrong: an empty family goes, one without an original gets its first member as the
    // original, one with a single member gives way to it. Each repair is logged.
    void fromXml(const NodeIterator& root) override;
    // Sets "Library::BagId" of the image to this bag; a container it had must be this bag.
    void onItemInserted(ResourceID id) override;
    // Clears "Library::BagId" and removes the item. In a family: when the original went, the
    // first remaining member becomes the original; a family left with one member is dissolved.
    void removeImage(ResourceID id) override;

protected:
    ContainerBag() = default;
    ContainerBag(const ContainerBag&) = default;

    ResourceID getImageId(ResourceID id, bool wantOriginal) const;
    static bool isFamily(const Node* node);

private:
    // Builds the FamilyInfo of a family group (asserts the type and a valid original).
    static FamilyInfo createFamilyInfo(const Node* family);
    // The family group of `original`, made when it has none. Returns EmptyNodeIterator when the
    // original has no node.
    const Node* familyOf(ResourceID original);
    // Moves `item` into the family of `original`, out of any other family first, and returns its
    // node there; EmptyNodeIterator when either has no node.
    const Node* joinFamily(ResourceID original, ResourceID item);
    // Takes `item` out of its family, to just before the family group in the family's parent.
    void leaveFamily(ResourceID item);
    // Gives the members of original's family their roles once `joined` is in: `original` is the
    // original, `joined` the edited version (asEdited) or a plain member; whoever held a role
    // given away becomes a plain member.
    void assignRoles(ResourceID original, ResourceID joined, bool asEdited);
    // Restores the rules of a family whose members changed: an original exists when any member
    // does, and a family of one member gives way to that member.
    void repairFamily(const Node* family);
};

}  // namespace qor::mediadb
