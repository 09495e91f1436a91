// Exiv2's byte source over our files: reads served from its window of the file give the file's
// bytes wherever they start and end, and small reads do not each go to the file.

#include <gtest/gtest.h>

#include <random>

#include "imageio/detail/RandomAccessFileIo.h"

namespace qor::imageio::detail {
namespace {

// A file in memory that counts how often it is read.
class CountingFile : public RandomAccessFileMemory {
public:
    using RandomAccessFileMemory::RandomAccessFileMemory;
    size_t readAt(uint64_t position, void* buffer, size_t size) override {
        ++reads;
        return RandomAccessFileMemory::readAt(position, buffer, size);
    }
    size_t reads = 0;
};

TEST(RandomAccessFileIo, ReadsAnywhereGiveTheFileBytesAndSmallOnesShareAFileRead) {
    std::mt19937 random(17);
    std::vector<uint8_t> bytes(100000);
    for (uint8_t& b : bytes) b = uint8_t(random());
    CountingFile file(bytes);
    RandomAccessFileIo io(file);
    ASSERT_EQ(io.open(), 0);

    // Byte by byte through the first kilobyte, as Exiv2 looks for markers: one read of the file.
    for (size_t i = 0; i < 1024; ++i) ASSERT_EQ(io.getb(), bytes[i]) << i;
    EXPECT_EQ(file.reads, 1u);

    // Reads of every size from anywhere, across the window's edges and the end of the file.
    const long sizes[] = {1, 2, 3, 100, 4095, 16383, 16384, 16385, 40000};
    for (int round = 0; round < 3000; ++round) {
        const long start = long(random() % (bytes.size() + 10));
        const long count = sizes[random() % std::size(sizes)];
        ASSERT_EQ(io.seek(start, Exiv2::BasicIo::beg), start > long(bytes.size()) ? 1 : 0);
        if (start > long(bytes.size())) continue;
        std::vector<uint8_t> got(static_cast<size_t>(count));
        const long n = io.read(got.data(), count);
        const long expected = std::min<long>(count, long(bytes.size()) - start);
        ASSERT_EQ(n, expected) << start << " " << count;
        ASSERT_TRUE(std::equal(got.begin(), got.begin() + n, bytes.begin() + start))
            << start << " " << count;
        EXPECT_EQ(io.tell(), start + n);
        EXPECT_EQ(io.eof(), count > expected);
    }
    EXPECT_EQ(io.error(), 0);
}

}  // namespace
}  // namespace qor::imageio::detail
