#pragma once
// ItemState: what the metadata cache knows of an item's file, stored as an integer in the field
// ItemState. The numbers are persistent.

namespace qor::imagecache {

enum ItemState {
    ItemStateOk = 0,       // the file is there and its metadata was read
    ItemStateMissing = 1,  // the file is gone
    ItemStateUnreadable =
        2,  // the file is there, but it is no picture the reader knows, or damaged
};

}  // namespace qor::imagecache
