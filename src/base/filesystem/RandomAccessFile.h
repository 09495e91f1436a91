#pragma once
// RandomAccessFile: a file of bytes read and written at 64-bit positions, with a current position
// for sequential use. Implementations: RandomAccessFileStd (a POSIX file), RandomAccessFileMemory
// (a memory buffer), FileRegion (a window on another file, in FileRegion.h), and
// LockedFileGeneric<F> (an F opened under a path lock).
//
// Contract for every implementation:
// - readAt/read return fewer bytes than asked (possibly 0) at the end of the file; that is not an
//   error. Failures of the medium throw RAFException with the file's name in the message.
// - writeAt/write write everything or throw; writing past the end grows the file (the gap reads as
//   zeros). Writing to a read-only file throws.
// - The position moves with read/write/append and seek; seeking past the end is allowed.
// Thread contract: one object is used by one thread at a time, except that readAt of
// RandomAccessFileStd and of read-only memory files may run on several threads at once (no shared
// position is touched).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Exception.h"
#include "base/filesystem/FilesystemScopedLock.h"

namespace qor::filesystem {

class RAFException : public CloneableException<RAFException> {
public:
    using CloneableException::CloneableException;
};

class RandomAccessFile {
public:
    virtual ~RandomAccessFile() = default;
    RandomAccessFile(const RandomAccessFile&) = delete;
    RandomAccessFile& operator=(const RandomAccessFile&) = delete;

    // Reads up to `size` bytes at `position` without moving the current position; returns how
    // many were read.
    virtual size_t readAt(uint64_t position, void* buffer, size_t size) = 0;
    // Writes all bytes at `position` without moving the current position.
    virtual void writeAt(uint64_t position, const void* buffer, size_t size) = 0;
    virtual uint64_t size() const = 0;
    // Sets the size: truncates or grows with zeros. The position is left alone.
    virtual void resize(uint64_t newSize) = 0;
    // Pushes buffered data to the medium; the default has nothing to do.
    virtual void flush() {}
    virtual bool isReadOnly() const = 0;
    // For messages: a path, or a description of the medium.
    virtual std::string name() const = 0;

    // Sequential forms at the current position, which they move on.
    size_t read(void* buffer, size_t size);
    void write(const void* buffer, size_t size);
    // Reads exactly `size` bytes or throws RAFException ("Unexpected end of file").
    void readFully(void* buffer, size_t size);
    // Writes at the end of the file and puts the position behind the new data.
    virtual void append(const void* buffer, size_t size);

    void seek(uint64_t position) { _position = position; }
    uint64_t tell() const { return _position; }
    bool atEnd() const { return _position >= size(); }

    // Every byte of the file, read from position 0; the position is left alone.
    std::vector<uint8_t> readAll();

protected:
    RandomAccessFile() = default;

    uint64_t _position = 0;
};

// A file on disk through a POSIX descriptor; reads and writes go straight to the kernel with
// pread/pwrite (no buffering in the process, so flush() has nothing to do; sync() forces data to
// the device).
class RandomAccessFileStd : public RandomAccessFile {
public:
    enum OpenMode {
        ModeRead,          // read only; the file must exist
        ModeReadWrite,     // read and write; the file must exist
        ModeCreate,        // read and write; created, or truncated when it exists
        ModeOpenOrCreate,  // read and write; created when missing, contents kept
    };

    // Opens `path` ("file:" URLs accepted). Throws RAFException naming the path and the system's
    // reason when it cannot be opened, or when it is a folder.
    explicit RandomAccessFileStd(std::string_view path, OpenMode mode = ModeRead);
    ~RandomAccessFileStd() override;

    size_t readAt(uint64_t position, void* buffer, size_t size) override;
    void writeAt(uint64_t position, const void* buffer, size_t size) override;
    uint64_t size() const override;
    void resize(uint64_t newSize) override;
    bool isReadOnly() const override { return _mode == ModeRead; }
    std::string name() const override { return _path; }

    // fsync: blocks until the data are on the device. Throws RAFException.
    void sync();
    // Closes the descriptor now; later calls throw RAFException. Throws when close reports an
    // error (data may be lost).
    void close();
    const std::string& path() const { return _path; }
    OpenMode openMode() const { return _mode; }

private:
    [[noreturn]] void fail(std::string_view what, int err) const;

    std::string _path;
    OpenMode _mode;
    int _fd = -1;
};

// A file in memory: a growable buffer that the object owns, or a read-only view on memory that
// the caller owns and keeps alive and unchanged for the object's life.
class RandomAccessFileMemory : public RandomAccessFile {
public:
    // An empty, writable file.
    RandomAccessFileMemory() = default;
    // A writable file with these contents.
    explicit RandomAccessFileMemory(std::vector<uint8_t> contents) : _buffer(std::move(contents)) {}
    // A read-only view of the caller's memory; nothing is copied.
    RandomAccessFileMemory(const void* data, size_t size)
        : _view(static_cast<const uint8_t*>(data)), _viewSize(size), _readOnly(true) {}

    size_t readAt(uint64_t position, void* buffer, size_t size) override;
    void writeAt(uint64_t position, const void* buffer, size_t size) override;
    uint64_t size() const override { return _view ? _viewSize : _buffer.size(); }
    void resize(uint64_t newSize) override;
    bool isReadOnly() const override { return _readOnly; }
    std::string name() const override { return "memory file"; }

    // The contents; valid until the next write or resize.
    const uint8_t* data() const { return _view ? _view : _buffer.data(); }
    // The owned buffer (empty for a view); move it out to take the data.
    std::vector<uint8_t>& buffer() { return _buffer; }

private:
    std::vector<uint8_t> _buffer;
    const uint8_t* _view = nullptr;
    size_t _viewSize = 0;
    bool _readOnly = false;
};

namespace detail {
// Base that takes the path lock before the file base is constructed (bases are built in order).
struct PathLockHolder {
    PathLockHolder(std::string_view path, int mode) : _fsLock(path, mode) {}
    FilesystemScopedLock _fsLock;
};
}  // namespace detail

// A file of type F opened while holding a FilesystemScopedLock on its path: the lock is taken
// first (blocking), then the file opened; the file is closed before the lock goes. Construction
// throws what F's constructor throws, and then the lock is released again.
//
//     LockedFileGeneric<RandomAccessFileStd> f(path, FilesystemScopedLock::Shared);
template <class F>
class LockedFileGeneric : private detail::PathLockHolder, public F {
public:
    // Locks `path` in lockMode, then opens F(path, fileArgs...).
    template <class... Args>
    LockedFileGeneric(std::string_view path, int lockMode, Args&&... fileArgs)
        : detail::PathLockHolder(path, lockMode), F(path, std::forward<Args>(fileArgs)...) {}

    const FilesystemScopedLock& pathLock() const { return _fsLock; }
};

// A file on disk under a path lock: shared when opened for reading, exclusive otherwise.
class LockedFile : public LockedFileGeneric<RandomAccessFileStd> {
public:
    explicit LockedFile(std::string_view path,
                        RandomAccessFileStd::OpenMode mode = RandomAccessFileStd::ModeRead)
        : LockedFileGeneric(path,
                            mode == RandomAccessFileStd::ModeRead ? FilesystemScopedLock::Shared
                                                                  : FilesystemScopedLock::Exclusive,
                            mode) {}
};

}  // namespace qor::filesystem

namespace qor {
using filesystem::LockedFile;
using filesystem::LockedFileGeneric;
using filesystem::RAFException;
using filesystem::RandomAccessFile;
using filesystem::RandomAccessFileMemory;
using filesystem::RandomAccessFileStd;
}  // namespace qor
