// The process-wide lists of supported extensions and the classification of paths by them.
//
// Thread contract: the lists are filled and emptied under a mutex, at start-up and shut-down; in
// between they are only read, without a lock.

#include <set>

#include "base/thread/Mutex.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/PathExtension.h"

namespace qor::imageio {

namespace {

using ExtensionList = std::set<FastString<char>>;

struct ItemLists {
    Mutex mutex;  // guards filling and emptying; reads go without it
    bool filled = false;
    ExtensionList raw;
    ExtensionList image;
    ExtensionList video;
};

ItemLists& itemLists() {
    static ItemLists* lists = new ItemLists;  // lives to the end of the process
    return *lists;
}

const char* const VideoExtensions[] = {
    ".264",   ".3G2",      ".3GP",    ".ASF",  ".ASX",  ".AVI",  ".BSF",  ".DIVX", ".DMSM",
    ".DREAM", ".DVDMEDIA", ".DVR-MS", ".DZM",  ".DZP",  ".F4V",  ".FBR",  ".FLV",  ".HDMOV",
    ".M2P",   ".M4V",      ".MKV",    ".MOD",  ".MOI",  ".MPEG", ".MPG",  ".MTS",  ".MXF",
    ".OGM",   ".PSH",      ".RM",     ".RMVB", ".SMIL", ".SRT",  ".STX",  ".SWF",  ".TIX",
    ".TRP",   ".TS",       ".VOB",    ".VRO",  ".WMV",  ".WTV",  ".XVID", ".YUV",  ".MOV"};

const char* const ImageExtensions[] = {".JPEG", ".JPG", ".PNG", ".TIF", ".TIFF", ".GIF"};

}  // namespace

void initSupportedItemsList() {
    ItemLists& lists = itemLists();
    ScopedLock<Mutex> lock(lists.mutex);
    if (lists.filled) return;
    for (std::string_view extension : detail::RawExtensions)
        lists.raw.insert(FastString<char>(extension));
    lists.video.insert(std::begin(VideoExtensions), std::end(VideoExtensions));
    lists.image.insert(std::begin(ImageExtensions), std::end(ImageExtensions));
    lists.filled = true;
}

void destroySupportedItemsList() {
    ItemLists& lists = itemLists();
    ScopedLock<Mutex> lock(lists.mutex);
    lists.raw.clear();
    lists.video.clear();
    lists.image.clear();
    lists.filled = false;
}

ItemType getItemType(const FastString<char>& path) {
    const ItemLists& lists = itemLists();
    const FastString<char> extension = detail::upperExtension(path);
    if (extension.empty()) return ItemTypeUnknown;
    if (lists.raw.count(extension)) return ItemTypeRaw;
    if (lists.image.count(extension)) return ItemTypeImage;
    if (lists.video.count(extension)) return ItemTypeVideo;
    return ItemTypeUnknown;
}

bool hasSupportedExtension(const FastString<char>& path) {
    const FastString<char> extension = detail::upperExtension(path);
    return !extension.empty() && itemLists().image.count(extension) > 0;
}

}  // namespace qor::imageio
