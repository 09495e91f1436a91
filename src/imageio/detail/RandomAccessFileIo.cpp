#include "imageio/detail/RandomAccessFileIo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exiv2/error.hpp>

#include "base/Log.h"

namespace qor::imageio::detail {

namespace {
constexpr size_t WindowSize = 16384;
}  // namespace

RandomAccessFileIo::RandomAccessFileIo(RandomAccessFile& file) : _file(file) {
    try {
        _size = file.size();
    } catch (const RAFException& e) {
        QOR_LOG(LogDebug, "RandomAccessFileIo: size of '%*': %*", file.name(), e.what());
        _error = true;
    }
}

RandomAccessFileIo::~RandomAccessFileIo() = default;

int RandomAccessFileIo::open() {
    _position = 0;
    _eof = false;
    return _error ? 1 : 0;
}

int RandomAccessFileIo::close() {
    munmap();
    return 0;
}

long RandomAccessFileIo::write(const Exiv2::byte*, long) { return 0; }
long RandomAccessFileIo::write(Exiv2::BasicIo&) { return 0; }
int RandomAccessFileIo::putb(Exiv2::byte) { return EOF; }

void RandomAccessFileIo::transfer(Exiv2::BasicIo&) {
    throw Exiv2::Error(Exiv2::kerFunctionNotSupported, "RandomAccessFileIo::transfer");
}

long RandomAccessFileIo::read(Exiv2::byte* buffer, long count) {
    if (count <= 0) return 0;
    uint64_t available = _position < _size ? _size - _position : 0;
    uint64_t wanted = std::min<uint64_t>(static_cast<uint64_t>(count), available);
    if (static_cast<uint64_t>(count) > available) _eof = true;
    size_t got = 0;
    try {
        while (got < wanted) {
            const uint64_t at = _position + got;
            const size_t left = size_t(wanted - got);
            if (at >= _windowStart && at - _windowStart < _windowLength) {
                const size_t n = std::min<uint64_t>(left, _windowLength - (at - _windowStart));
                std::memcpy(buffer + got, _window.get() + (at - _windowStart), n);
                got += n;
            } else if (left >= WindowSize) {
                const size_t n = _file.readAt(at, buffer + got, left);
                if (n == 0) break;
                got += n;
            } else {
                if (!_window) _window.reset(new Exiv2::byte[WindowSize]);
                _windowLength = 0;
                _windowStart = at;
                _windowLength = _file.readAt(at, _window.get(), WindowSize);
                if (_windowLength == 0) break;
            }
        }
    } catch (const RAFException& e) {
        QOR_LOG(LogDebug, "RandomAccessFileIo: read of '%*': %*", _file.name(), e.what());
        _windowLength = 0;
        _error = true;
    }
    if (got < wanted) _eof = true;  // the file shrank under us
    _position += got;
    return static_cast<long>(got);
}

Exiv2::DataBuf RandomAccessFileIo::read(long count) {
    // Never allocate more than the file can give, whatever size a damaged file asks for.
    uint64_t available = _position < _size ? _size - _position : 0;
    long wanted = count <= 0 ? 0 : static_cast<long>(std::min<uint64_t>(count, available));
    if (count > 0 && static_cast<uint64_t>(count) > available) _eof = true;
    Exiv2::DataBuf buffer(wanted);
    if (wanted > 0) buffer.size_ = read(buffer.pData_, wanted);
    return buffer;
}

int RandomAccessFileIo::getb() {
    Exiv2::byte b = 0;
    return read(&b, 1) == 1 ? b : EOF;
}

int RandomAccessFileIo::seek(long offset, Position from) {
    int64_t base = from == beg   ? 0
                   : from == cur ? static_cast<int64_t>(_position)
                                 : static_cast<int64_t>(_size);
    int64_t target = base + offset;
    if (target < 0) return 1;
    if (static_cast<uint64_t>(target) > _size) {
        _eof = true;
        return 1;
    }
    _position = static_cast<uint64_t>(target);
    _eof = false;
    return 0;
}

Exiv2::byte* RandomAccessFileIo::mmap(bool writeable) {
    if (writeable) throw Exiv2::Error(Exiv2::kerFunctionNotSupported, "RandomAccessFileIo::mmap");
    if (_mapped.size() != _size) {
        _mapped.resize(_size);
        uint64_t got = 0;
        try {
            while (got < _size) {
                size_t n = _file.readAt(got, _mapped.data() + got, _size - got);
                if (n == 0) break;
                got += n;
            }
        } catch (const RAFException& e) {
            _error = true;
            throw Exiv2::Error(Exiv2::kerCallFailed, _file.name(), e.what(), "mmap");
        }
        if (got < _size) throw Exiv2::Error(Exiv2::kerFailedToReadImageData);
    }
    return _mapped.data();
}

int RandomAccessFileIo::munmap() {
    std::vector<Exiv2::byte>().swap(_mapped);
    return 0;
}

long RandomAccessFileIo::tell() const { return static_cast<long>(_position); }
size_t RandomAccessFileIo::size() const { return static_cast<size_t>(_size); }
bool RandomAccessFileIo::isopen() const { return true; }
int RandomAccessFileIo::error() const { return _error ? 1 : 0; }
bool RandomAccessFileIo::eof() const { return _eof; }
std::string RandomAccessFileIo::path() const { return _file.name(); }

}  // namespace qor::imageio::detail
