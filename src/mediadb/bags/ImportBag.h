#pragma once
// ImportBag: a transient container bag that shows the pictures of an import source (a folder, a
// card, a camera) before they are imported. It is not listed in library.xml and has no .bag file.
//
// The medium's kind is the application's (MediumType); the bag only keeps it. The recursive-scan
// flags say whether the source is scanned with its subfolders and whether it can be at all;
// `isLoaded` tells that the scan has ended; the icons are the pictures the application shows for
// the medium.
//
// Thread contract: that of Bag (setters on a mutable copy, queries on any snapshot).

#include <string>
#include <vector>

#include "imaging/Image.h"
#include "mediadb/bags/ContainerBag.h"

namespace qor::mediadb {

class ImportBag : public ContainerBag {
public:
    // The kind of import source. Its values are the application's; the library only stores them.
    using MediumType = int;
    static constexpr MediumType UnknownMedium = 0;

    static std::string bagTypeStatic() { return "import"; }

    explicit ImportBag(MediumType mediumType = UnknownMedium) : _mediumType(mediumType) {}

    std::string bagType() const override { return bagTypeStatic(); }
    bool persistent() const override { return false; }
    bool isFolder() const override { return true; }
    Bag* mutableCopy() const override { return new ImportBag(*this); }

    void setMediumType(MediumType type) { _mediumType = type; }
    MediumType getMediumType() const { return _mediumType; }

    bool isRecursiveScan() const { return _recursiveScan; }
    void setRecursiveScan(bool recursive) { _recursiveScan = recursive; }
    bool recursiveScanPossible() const { return _recursiveScanPossible; }
    void setRecursiveScanPossible(bool possible) { _recursiveScanPossible = possible; }
    // Whether the recursive flag may be changed now: the source allows a recursive scan and the
    // scan has not ended yet.
    bool canRecursiveFlagSet() const { return _recursiveScanPossible && !_loaded; }

    bool isLoaded() const { return _loaded; }
    void setLoaded(bool loaded) { _loaded = loaded; }

    const std::vector<SharedPtr<imaging::Image>>& icon() const { return _icons; }
    void setIcon(std::vector<SharedPtr<imaging::Image>> icons) { _icons = std::move(icons); }

    // Removes every image (through removeImage, so that their containers are cleared).
    void clear();

protected:
    ImportBag(const ImportBag&) = default;

private:
    MediumType _mediumType;
    bool _recursiveScan = false;
    bool _recursiveScanPossible = false;
    bool _loaded = false;
    std::vector<SharedPtr<imaging::Image>> _icons;  // shared, immutable images
};

}  // namespace qor::mediadb
