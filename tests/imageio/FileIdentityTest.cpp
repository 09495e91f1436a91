// The checksum, the BMP writer and the extension lists: the small file entry points.

#include <gtest/gtest.h>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "base/Md5Stream.h"
#include "base/filesystem/Path.h"

namespace qor::imageio {
namespace {

using namespace testing;
using S = FastString<char>;

Bytes patterned(size_t size, uint8_t seed) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 31 + seed + (i >> 8));
    return bytes;
}

TEST(ImageChecksum, CoversOnlyTheFirst20480Bytes) {
    TempFolder folder;
    const Bytes prefix = patterned(20480, 1);
    Bytes longer = prefix;
    const Bytes tail = patterned(5000, 7);
    longer.insert(longer.end(), tail.begin(), tail.end());
    Bytes otherTail = prefix;
    otherTail.push_back(0);

    const Digest expected = Md5Stream::of(prefix.data(), prefix.size());
    EXPECT_EQ(imageChecksum(S(folder.write("exact", prefix))), expected);
    EXPECT_EQ(imageChecksum(S(folder.write("longer", longer))), expected);
    EXPECT_EQ(imageChecksum(S(folder.write("other", otherTail))), expected);

    // A change inside the prefix changes it; a smaller file is hashed whole.
    Bytes changed = longer;
    changed[20479] ^= 1;
    EXPECT_NE(imageChecksum(S(folder.write("changed", changed))), expected);
    const Bytes small = patterned(3000, 3);
    RandomAccessFileMemory memory(small.data(), small.size());
    EXPECT_EQ(imageChecksum(memory), Md5Stream::of(small.data(), small.size()));
}

TEST(ImageChecksum, EmptyFileHasTheChecksumOfAnEmptyStream) {
    TempFolder folder;
    const Digest digest = imageChecksum(S(folder.write("empty", Bytes())));
    EXPECT_EQ(digest.toHex(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(ImageChecksum, MissingFileGivesTheNullDigestAndALogLine) {
    LogCapture log;
    EXPECT_TRUE(imageChecksum(S("/nonexistent-folder/a.jpg")).isNull());
    EXPECT_EQ(log.count("/nonexistent-folder/a.jpg"), 1u);
}

TEST(ImageChecksum, CopyWritesTheWholeFileAndIdentifiesItInOnePass) {
    TempFolder folder;
    // Several blocks of the copy, the last one short.
    const Bytes content = patterned(3 * 128 * 1024 + 70000, 5);
    const std::string source = folder.write("source", content);
    const std::string destination = folder.path() + "/copy";
    const Digest digest = imageChecksumCopy(S(source), S(destination));
    EXPECT_EQ(digest, imageChecksum(S(source)));
    EXPECT_EQ(readFile(destination), content);

    // An existing destination is replaced, not merged.
    const Bytes shorter = patterned(100, 9);
    EXPECT_EQ(imageChecksumCopy(S(folder.write("short", shorter)), S(destination)),
              Md5Stream::of(shorter.data(), shorter.size()));
    EXPECT_EQ(readFile(destination), shorter);

    LogCapture log;
    EXPECT_TRUE(
        imageChecksumCopy(S(folder.path() + "/missing"), S(folder.path() + "/c2")).isNull());
    EXPECT_FALSE(filesystem::exists(folder.path() + "/c2"));
    EXPECT_TRUE(imageChecksumCopy(S(source), S("/nonexistent-folder/c3")).isNull());
    EXPECT_EQ(log.count("/nonexistent-folder/c3"), 1u);
}

uint32_t le32(const Bytes& b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 |
           uint32_t(b[at + 3]) << 24;
}
uint16_t le16(const Bytes& b, size_t at) { return uint16_t(b[at] | b[at + 1] << 8); }

TEST(BmpWriter, WritesTheFixedHeaderAndTheRowsBottomFirst) {
    TempFolder folder;
    ImagePtr image = gradientImage(5, 3);
    const std::string path = folder.path() + "/out.bmp";
    ASSERT_TRUE(saveBmp(S(path), image));
    const Bytes file = readFile(path);
    ASSERT_EQ(file.size(), 5u * 3 * 4 + 122);

    EXPECT_EQ(file[0], 0x4D);  // "MB"
    EXPECT_EQ(file[1], 0x42);
    EXPECT_EQ(le32(file, 2), file.size());
    EXPECT_EQ(le32(file, 6), 0u);
    EXPECT_EQ(le32(file, 10), 122u);
    EXPECT_EQ(le32(file, 14), 108u);
    EXPECT_EQ(le32(file, 18), 5u);
    EXPECT_EQ(le32(file, 22), 3u);
    EXPECT_EQ(le16(file, 26), 1);
    EXPECT_EQ(le16(file, 28), 32);
    EXPECT_EQ(le32(file, 30), 3u);
    EXPECT_EQ(le32(file, 34), 60u);
    EXPECT_EQ(le32(file, 38), 3780u);
    EXPECT_EQ(le32(file, 42), 3780u);
    for (size_t i = 46; i < 54; ++i) EXPECT_EQ(file[i], 0) << i;
    EXPECT_EQ(le32(file, 54), 0x000000FFu);
    EXPECT_EQ(le32(file, 58), 0x0000FF00u);
    EXPECT_EQ(le32(file, 62), 0x00FF0000u);
    EXPECT_EQ(le32(file, 66), 0xFF000000u);
    for (size_t i = 70; i < 122; ++i) EXPECT_EQ(file[i], 0) << i;

    // Rows bottom first, in the image's own R, G, B, A order, unpadded.
    for (int row = 0; row < 3; ++row)
        EXPECT_TRUE(std::equal(file.begin() + 122 + row * 20, file.begin() + 122 + (row + 1) * 20,
                               image->row(2 - row)))
            << row;
}

TEST(BmpWriter, FailuresReturnFalseWithTheirLine) {
    LogCapture log;
    EXPECT_FALSE(saveBmp(S("/nonexistent-folder/a.bmp"), gradientImage(2, 2)));
    EXPECT_TRUE(log.contains("saveBmp: failed to create file: /nonexistent-folder/a.bmp"));
    TempFolder folder;
    EXPECT_FALSE(saveBmpUnlocked(S(folder.path() + "/b.bmp"), ConstImagePtr()));
    EXPECT_FALSE(filesystem::exists(folder.path() + "/b.bmp"));
}

class ItemLists : public ::testing::Test {
protected:
    void SetUp() override { initSupportedItemsList(); }
    void TearDown() override { destroySupportedItemsList(); }
};

TEST_F(ItemLists, ClassifyByExtensionCaseBlind) {
    EXPECT_EQ(getItemType(S("/a/b.jpg")), ItemTypeImage);
    EXPECT_EQ(getItemType(S("/a/b.JpG")), ItemTypeImage);
    EXPECT_EQ(getItemType(S("b.tiff")), ItemTypeImage);
    EXPECT_EQ(getItemType(S("/a/b.Cr2")), ItemTypeRaw);
    EXPECT_EQ(getItemType(S("/a/b.x3f")), ItemTypeRaw);
    EXPECT_EQ(getItemType(S("/a/b.dvr-ms")), ItemTypeVideo);
    EXPECT_EQ(getItemType(S("/a/clip.MOV")), ItemTypeVideo);
    EXPECT_EQ(getItemType(S("/a/b.txt")), ItemTypeUnknown);
    EXPECT_EQ(getItemType(S("/a/jpg")), ItemTypeUnknown);
    EXPECT_EQ(getItemType(S("/a.jpg/readme")), ItemTypeUnknown);
    EXPECT_EQ(getItemType(S("")), ItemTypeUnknown);

    // Only the image list passes the supported test: raw files and videos do not.
    EXPECT_TRUE(hasSupportedExtension(S("x.GIF")));
    EXPECT_TRUE(hasSupportedExtension(S("x.jpeg")));
    EXPECT_FALSE(hasSupportedExtension(S("x.nef")));
    EXPECT_FALSE(hasSupportedExtension(S("x.avi")));
    EXPECT_FALSE(hasSupportedExtension(S("x.bmp")));
}

TEST_F(ItemLists, InitTwiceIsHarmlessAndDestroyEmptiesTheLists) {
    initSupportedItemsList();
    EXPECT_EQ(getItemType(S("a.png")), ItemTypeImage);
    destroySupportedItemsList();
    EXPECT_EQ(getItemType(S("a.png")), ItemTypeUnknown);
    EXPECT_FALSE(hasSupportedExtension(S("a.png")));
    initSupportedItemsList();
    EXPECT_EQ(getItemType(S("a.png")), ItemTypeImage);
}

}  // namespace
}  // namespace qor::imageio
