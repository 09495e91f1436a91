#pragma once
// FileRegion: a RandomAccessFile that is a window on part of another one.

#include <cstdint>
#include <string>

#include "base/filesystem/RandomAccessFile.h"

namespace qor::filesystem {

// A window on part of another file: bytes [start, start + size) of the parent, which the caller
// keeps alive. Positions are relative to the start. Reads stop at the end of the window; a read
// that begins past it fails with "Read out of bounds", a write that passes it with "Write out of
// bounds"; the window never grows ("Cannot append to FileRegion!"). A read-only region refuses
// every write.
class FileRegion : public RandomAccessFile {
public:
    // Throws RAFException "Invalid file region" when start + size passes the parent's size.
    FileRegion(RandomAccessFile& parent, uint64_t start, uint64_t size, bool readOnly = true);

    size_t readAt(uint64_t position, void* buffer, size_t size) override;
    void writeAt(uint64_t position, const void* buffer, size_t size) override;
    uint64_t size() const override { return _size; }
    void resize(uint64_t newSize) override;
    void append(const void* buffer, size_t size) override;
    void flush() override { _parent.flush(); }
    bool isReadOnly() const override { return _readOnly || _parent.isReadOnly(); }
    std::string name() const override { return _parent.name(); }

private:
    RandomAccessFile& _parent;
    uint64_t _start;
    uint64_t _size;
    bool _readOnly;
};

}  // namespace qor::filesystem

namespace qor {
using filesystem::FileRegion;
}  // namespace qor
