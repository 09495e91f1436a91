#include "base/filesystem/RandomAccessFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>

#include "base/filesystem/PosixIO.h"
#include "text/TextUtils.h"

namespace qor::filesystem {

namespace {

[[noreturn]] void readOnlyFailure(const RandomAccessFile& file) {
    throw RAFException("File is read-only: '" + file.name() + "'");
}

}  // namespace

// --- RandomAccessFile ----------------------------------------------------------------------

size_t RandomAccessFile::read(void* buffer, size_t size) {
    size_t n = readAt(_position, buffer, size);
    _position += n;
    return n;
}

void RandomAccessFile::write(const void* buffer, size_t size) {
    writeAt(_position, buffer, size);
    _position += size;
}

void RandomAccessFile::readFully(void* buffer, size_t size) {
    if (read(buffer, size) != size) throw RAFException("Unexpected end of file: '" + name() + "'");
}

void RandomAccessFile::append(const void* buffer, size_t size) {
    uint64_t end = this->size();
    writeAt(end, buffer, size);
    _position = end + size;
}

std::vector<uint8_t> RandomAccessFile::readAll() {
    uint64_t total = size();
    if (total > std::numeric_limits<size_t>::max() / 2)
        throw RAFException("File too large to read into memory: '" + name() + "'");
    std::vector<uint8_t> data(static_cast<size_t>(total));
    data.resize(readAt(0, data.data(), data.size()));
    return data;
}

// --- RandomAccessFileStd -------------------------------------------------------------------

RandomAccessFileStd::RandomAccessFileStd(std::string_view path, OpenMode mode)
    : _path(text::urlToLocalPath(path)), _mode(mode) {
    int flags = O_CLOEXEC;
    switch (mode) {
        case ModeRead:
            flags |= O_RDONLY;
            break;
        case ModeReadWrite:
            flags |= O_RDWR;
            break;
        case ModeCreate:
            flags |= O_RDWR | O_CREAT | O_TRUNC;
            break;
        case ModeOpenOrCreate:
            flags |= O_RDWR | O_CREAT;
            break;
    }
    do {
        _fd = ::open(_path.c_str(), flags, 0666);
    } while (_fd < 0 && errno == EINTR);
    if (_fd < 0) fail("Cannot open file", errno);
    struct stat st;
    if (::fstat(_fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        int err = S_ISDIR(st.st_mode) ? EISDIR : errno;
        ::close(_fd);
        _fd = -1;
        fail("Cannot open file", err);
    }
}

RandomAccessFileStd::~RandomAccessFileStd() {
    if (_fd >= 0) ::close(_fd);
}

void RandomAccessFileStd::fail(std::string_view what, int err) const {
    throw RAFException(std::string(what) + " '" + _path +
                       "': " + std::system_category().message(err));
}

size_t RandomAccessFileStd::readAt(uint64_t position, void* buffer, size_t size) {
    if (_fd < 0) fail("Cannot read closed file", EBADF);
    ssize_t n = preadFull(_fd, buffer, size, position);
    if (n < 0) fail("Cannot read file", errno);
    return static_cast<size_t>(n);
}

void RandomAccessFileStd::writeAt(uint64_t position, const void* buffer, size_t size) {
    if (_fd < 0) fail("Cannot write closed file", EBADF);
    if (isReadOnly()) readOnlyFailure(*this);
    if (!pwriteFull(_fd, buffer, size, position)) fail("Cannot write file", errno);
}

uint64_t RandomAccessFileStd::size() const {
    if (_fd < 0) fail("Cannot examine closed file", EBADF);
    struct stat st;
    if (::fstat(_fd, &st) != 0) fail("Cannot examine file", errno);
    return static_cast<uint64_t>(st.st_size);
}

void RandomAccessFileStd::resize(uint64_t newSize) {
    if (_fd < 0) fail("Cannot resize closed file", EBADF);
    if (isReadOnly()) readOnlyFailure(*this);
    if (::ftruncate(_fd, static_cast<off_t>(newSize)) != 0) fail("Cannot resize file", errno);
}

void RandomAccessFileStd::sync() {
    if (_fd < 0) fail("Cannot sync closed file", EBADF);
    if (::fsync(_fd) != 0) fail("Cannot sync file", errno);
}

void RandomAccessFileStd::close() {
    if (_fd < 0) return;
    int fd = _fd;
    _fd = -1;
    if (::close(fd) != 0 && errno != EINTR) fail("Cannot close file", errno);
}

// --- RandomAccessFileMemory ----------------------------------------------------------------

size_t RandomAccessFileMemory::readAt(uint64_t position, void* buffer, size_t size) {
    uint64_t total = this->size();
    if (position >= total || size == 0) return 0;
    size_t n = static_cast<size_t>(std::min<uint64_t>(size, total - position));
    std::memcpy(buffer, data() + position, n);
    return n;
}

void RandomAccessFileMemory::writeAt(uint64_t position, const void* buffer, size_t size) {
    if (_readOnly) readOnlyFailure(*this);
    if (size == 0) return;
    if (position > std::numeric_limits<size_t>::max() - size)
        throw RAFException("Write position out of range in '" + name() + "'");
    size_t end = static_cast<size_t>(position) + size;
    if (end > _buffer.size()) _buffer.resize(end);
    std::memcpy(_buffer.data() + position, buffer, size);
}

void RandomAccessFileMemory::resize(uint64_t newSize) {
    if (_readOnly) readOnlyFailure(*this);
    if (newSize > std::numeric_limits<size_t>::max() / 2)
        throw RAFException("Size out of range for '" + name() + "'");
    _buffer.resize(static_cast<size_t>(newSize));
}

}  // namespace qor::filesystem
