// The item checksum: MD5 over the first 20480 bytes of a file, alone or while copying the file.

#include <algorithm>
#include <exception>
#include <memory>

#include "base/Log.h"
#include "base/Md5Stream.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/OutputFile.h"

namespace qor::imageio {

namespace {

// A copy goes in blocks of 128 KiB. In blocks of 1024 bytes a camera picture of 8 MB cost 16 000
// system calls, which took most of an import's time; blocks of 1 MiB, larger than the core's
// cache, made the kernel's copies into the page cache three times as dear as 128 KiB did (500
// pictures of 5-10 MB: 5.5 to 8.5 s of system time against 1.8 to 2.1 s; `cp` 1.4 to 1.7 s). The
// checksum alone reads the bytes it hashes in one go. The digest is the same either way: only the
// first ImageChecksumLength bytes of the stream are hashed, whatever the blocks.
constexpr size_t CopyBlockSize = size_t(128) << 10;

// Reads `source` in blocks from offset 0 and hashes its first ImageChecksumLength bytes. Without
// a destination it stops once those are in; with one it goes on to the end, writing every block
// at its offset. Throws what the files throw.
Digest checksumLoop(RandomAccessFile& source, RandomAccessFile* destination) {
    Md5Stream md5;
    const size_t blockSize = destination ? CopyBlockSize : ImageChecksumLength;
    const std::unique_ptr<unsigned char[]> block(new unsigned char[blockSize]);  // not cleared
    uint64_t offset = 0;
    for (;;) {
        if (!destination && offset >= ImageChecksumLength) break;
        const size_t got = source.readAt(offset, block.get(), blockSize);
        if (got == 0) break;
        if (offset < ImageChecksumLength)
            md5.update(block.get(), size_t(std::min<uint64_t>(got, ImageChecksumLength - offset)));
        if (destination) destination->writeAt(offset, block.get(), got);
        offset += got;
    }
    return md5.getDigest();
}

}  // namespace

Digest imageChecksum(RandomAccessFile& file) {
    try {
        return checksumLoop(file, nullptr);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "imageChecksum: failed to read '%*': %*", file.name(), e.what());
        return Digest();
    }
}

Digest imageChecksum(const FastString<char>& path) {
    try {
        RandomAccessFileStd file(path.view());
        return checksumLoop(file, nullptr);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "imageChecksum: failed to read '%*': %*", path, e.what());
        return Digest();
    }
}

Digest imageChecksumCopy(const FastString<char>& source, const FastString<char>& destination) {
    ScopedPtr<RandomAccessFileStd> in;
    try {
        in = std::make_unique<RandomAccessFileStd>(source.view());
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "imageChecksumCopy: failed to open '%*': %*", source, e.what());
        return Digest();
    }
    Digest digest;
    const bool copied =
        detail::writeNewFile(destination, true, "imageChecksumCopy: failed to create file: %*",
                             [&](RandomAccessFile& out) {
                                 digest = checksumLoop(*in, &out);
                                 return true;
                             });
    return copied ? digest : Digest();
}

}  // namespace qor::imageio
