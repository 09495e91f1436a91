#include "base/filesystem/FileRegion.h"

#include <algorithm>

namespace qor::filesystem {

FileRegion::FileRegion(RandomAccessFile& parent, uint64_t start, uint64_t size, bool readOnly)
    : _parent(parent), _start(start), _size(size), _readOnly(readOnly) {
    uint64_t parentSize = parent.size();
    if (start > parentSize || size > parentSize - start) throw RAFException("Invalid file region");
}

size_t FileRegion::readAt(uint64_t position, void* buffer, size_t size) {
    if (position > _size) throw RAFException("Read out of bounds");
    size_t n = static_cast<size_t>(std::min<uint64_t>(size, _size - position));
    return _parent.readAt(_start + position, buffer, n);
}

void FileRegion::writeAt(uint64_t position, const void* buffer, size_t size) {
    if (isReadOnly()) throw RAFException("File is read-only: '" + name() + "'");
    if (position > _size || size > _size - position) throw RAFException("Write out of bounds");
    _parent.writeAt(_start + position, buffer, size);
}

void FileRegion::resize(uint64_t) { throw RAFException("Cannot resize FileRegion!"); }

void FileRegion::append(const void*, size_t) { throw RAFException("Cannot append to FileRegion!"); }

}  // namespace qor::filesystem
