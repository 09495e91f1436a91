#pragma once
// RandomAccessFileIo: Exiv2's byte source over one of our RandomAccessFiles, so that Exiv2 reads a
// file that the caller opened (and may have locked), a memory block or a region of a file alike,
// reading only the parts it needs. Read-only: every write fails. The file must outlive the object.
//
// Reads smaller than a window (16 kB) are served from a window of the file kept in memory, so
// that Exiv2's many small reads (marker by marker, byte by byte) cost one read of the file per
// window rather than one each.
//
// Errors of the file (RAFException) are not thrown through Exiv2: they set error(), and the read
// returns what it got, which Exiv2 reports as a failed read.
// Thread contract: one thread at a time, like the file under it.

#include <cstdint>
#include <exiv2/basicio.hpp>
#include <memory>
#include <vector>

#include "base/filesystem/RandomAccessFile.h"

namespace qor::imageio::detail {

class RandomAccessFileIo : public Exiv2::BasicIo {
public:
    explicit RandomAccessFileIo(RandomAccessFile& file);
    ~RandomAccessFileIo() override;

    int open() override;
    int close() override;
    long write(const Exiv2::byte* data, long count) override;
    long write(Exiv2::BasicIo& source) override;
    int putb(Exiv2::byte data) override;
    Exiv2::DataBuf read(long count) override;
    long read(Exiv2::byte* buffer, long count) override;
    int getb() override;
    void transfer(Exiv2::BasicIo& source) override;
    int seek(long offset, Position from) override;
    // The whole file, read into memory on the first call.
    Exiv2::byte* mmap(bool writeable = false) override;
    int munmap() override;
    long tell() const override;
    size_t size() const override;
    bool isopen() const override;
    int error() const override;
    bool eof() const override;
    std::string path() const override;

private:
    RandomAccessFile& _file;
    uint64_t _size = 0;
    uint64_t _position = 0;
    bool _eof = false;
    bool _error = false;
    std::vector<Exiv2::byte> _mapped;
    std::unique_ptr<Exiv2::byte[]> _window;  // _windowLength bytes of the file from _windowStart
    size_t _windowLength = 0;
    uint64_t _windowStart = 0;
};

}  // namespace qor::imageio::detail
