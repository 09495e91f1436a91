// The libjpeg and libpng callbacks over a RandomAccessFile when the file fails with something other
// than a std::exception: the failure must end in the C library's error path (a false or partial
// result with its log line), never unwind through its C frames into the caller.

#include <gtest/gtest.h>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "imageio/detail/JpegIO.h"

namespace qor::imageio {
namespace {

using namespace testing;
using Vec2i = math::GenVec<int, 2>;

// Not derived from std::exception, as a file of another component might throw.
struct MediumGone {};

// A memory file whose reads or writes throw MediumGone from the `failAt`th call on (counting
// from 1).
class FailingFile : public RandomAccessFileMemory {
public:
    using RandomAccessFileMemory::RandomAccessFileMemory;
    int failReadAt = 0;
    int failWriteAt = 0;

    size_t readAt(uint64_t position, void* buffer, size_t size) override {
        if (failReadAt > 0 && ++_reads >= failReadAt) throw MediumGone();
        return RandomAccessFileMemory::readAt(position, buffer, size);
    }
    void writeAt(uint64_t position, const void* buffer, size_t size) override {
        if (failWriteAt > 0 && ++_writes >= failWriteAt) throw MediumGone();
        RandomAccessFileMemory::writeAt(position, buffer, size);
    }

private:
    int _reads = 0;
    int _writes = 0;
};

TEST(CodecFileCallbacks, ForeignWriteFailureEndsTheSaveWithFalse) {
    // 8 x 8 fits in one buffer, so its only write is the final one; 256 x 256 fails on the
    // first full buffer.
    for (int side : {8, 256}) {
        SCOPED_TRACE(side);
        FailingFile file;
        file.failWriteAt = 1;
        LogCapture log;
        bool saved = true;
        EXPECT_NO_THROW(saved = saveJpeg(file, gradientImage(side, side), 90));
        EXPECT_FALSE(saved);
        EXPECT_EQ(log.count("JpegLib: When writing to: memory file, Error: "), 1u);
        EXPECT_TRUE(log.contains("encodeJpegCore: libjpeg failed with: "));
    }
}

TEST(CodecFileCallbacks, ForeignReadFailureEndsTheInput) {
    const Bytes jpeg = makeJpeg(512, 512, 95);
    ASSERT_GT(jpeg.size(), 2 * detail::JpegFileBufferSize);
    FailingFile file{std::vector<uint8_t>(jpeg)};
    file.failReadAt = 2;  // the header is in the first block
    LogCapture log;
    ImagePtr image;
    EXPECT_NO_THROW(loadJpeg(file, Vec2i(0, 0), ImageQualityBest, &image));
    EXPECT_EQ(log.count("JpegLib: When reading from: memory file, Error: "), 1u);
    // What came before the failure is kept, as for a file cut short.
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width(), 512);
}

TEST(CodecFileCallbacks, ForeignReadFailureFailsThePngLoad) {
    FailingFile file{pngOf(*gradientImage(64, 64), false)};
    file.failReadAt = 2;  // the signature is read before libpng starts
    LogCapture log;
    ImagePtr image;
    bool loaded = true;
    EXPECT_NO_THROW(loaded = loadPng(file, &image, nullptr));
    EXPECT_FALSE(loaded);
    EXPECT_FALSE(image);
    EXPECT_EQ(log.count("Couldn't read from file 'memory file'"), 1u);
}

}  // namespace
}  // namespace qor::imageio
