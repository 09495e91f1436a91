#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_set>

#include "base/Log.h"
#include "base/ResourceID.h"
#include "base/ScratchPad.h"
#include "text/FastString.h"
#include "util/Digest.h"

namespace qor {
namespace {

TEST(Digest, HexRoundTripAndNullValue) {
    Digest::Bytes bytes{};
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 16 + 15 - i);
    Digest d(bytes);
    EXPECT_FALSE(d.isNull());
    EXPECT_TRUE(Digest().isNull());
    EXPECT_EQ(d.toHex(), "0f1e2d3c4b5a69788796a5b4c3d2e1f0");
    EXPECT_EQ(Digest::fromHex(d.toHex()), d);
    EXPECT_EQ(Digest::fromHex("0F1E2D3C4B5A69788796A5B4C3D2E1F0"), d);
    EXPECT_EQ(Digest::fromBytes(bytes.data()), d);
    EXPECT_FALSE(Digest::fromHex("0f1e2d3c4b5a69788796a5b4c3d2e1f"));
    EXPECT_FALSE(Digest::fromHex("0f1e2d3c4b5a69788796a5b4c3d2e1fg"));

    std::ostringstream out;
    out << Digest();
    EXPECT_EQ(out.str(), std::string(32, '0'));
}

TEST(Digest, OrdersByBytesAndHashesEqualValuesAlike) {
    auto a = *Digest::fromHex("00000000000000000000000000000001");
    auto b = *Digest::fromHex("01000000000000000000000000000000");
    EXPECT_LT(a, b);  // the first byte decides
    EXPECT_NE(a, b);
    std::unordered_set<Digest> set{a, b, *Digest::fromHex(a.toHex())};
    EXPECT_EQ(set.size(), 2u);
}

TEST(ResourceID, ComparesByIdWithinOneManager) {
    auto* m = reinterpret_cast<ResourceManager*>(0x1000);
    LogCapture capture;
    ResourceID a(3, m), b(7, m);
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_NE(a, b);
    EXPECT_EQ(a, ResourceID(3, m));
    EXPECT_EQ(a.index(), 3);
    EXPECT_EQ(a.manager(), m);
    std::map<ResourceID, int> byId{{b, 2}, {a, 1}};
    EXPECT_EQ(byId.begin()->first, a);
    EXPECT_EQ(capture.assertions(), 0u);
}

TEST(ResourceID, NullManagerComparesByIdAlone) {
    auto* m = reinterpret_cast<ResourceManager*>(0x1000);
    LogCapture capture;
    EXPECT_EQ(ResourceID(5, nullptr), ResourceID(5, m));
    EXPECT_EQ(ResourceID(5, m), ResourceID(5, nullptr));
    EXPECT_FALSE(ResourceID(5, nullptr) < ResourceID(5, m));
    EXPECT_TRUE(ResourceID(4, nullptr) < ResourceID(5, m));
    EXPECT_EQ(std::hash<ResourceID>()(ResourceID(5, nullptr)),
              std::hash<ResourceID>()(ResourceID(5, m)));

    ResourceID x = InvalidResourceID;
    EXPECT_EQ(x, ResourceID());
    EXPECT_FALSE(x.isValid());
    EXPECT_EQ(x.id(), -1);
    EXPECT_EQ(x.manager(), nullptr);
    EXPECT_TRUE(ResourceID(0, m) != InvalidResourceID);
    EXPECT_TRUE(ResourceID(-1, m).isValid());
    EXPECT_EQ(capture.assertions(), 0u);

    std::ostringstream out;
    out << ResourceID(12, nullptr);
    EXPECT_EQ(out.str(), "12");
}

TEST(ResourceID, DifferentManagersLogAnAssertion) {
    auto* m1 = reinterpret_cast<ResourceManager*>(0x1000);
    auto* m2 = reinterpret_cast<ResourceManager*>(0x2000);
    LogCapture capture;
    const char* text = "a._manager == b._manager || !a._manager || !b._manager";
    EXPECT_FALSE(ResourceID(5, m1) == ResourceID(5, m2));
    EXPECT_EQ(capture.assertions(text), 1u);
    // Still a consistent order, so that a map holding the mix stays sound.
    EXPECT_NE(ResourceID(5, m1) < ResourceID(5, m2), ResourceID(5, m2) < ResourceID(5, m1));
    EXPECT_TRUE(ResourceID(1, m2) < ResourceID(5, m1));
    EXPECT_EQ(capture.assertions(text), 4u);
}

TEST(ScratchPad, GrowsAndKeepsTheBufferWhileItFits) {
    ScratchPad pad;
    char* small = pad.getBuffer(0);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(pad.getBuffer(100), small);
    size_t big = pad.capacity() + 1;
    char* grown = pad.getBuffer(big);
    ASSERT_GE(pad.capacity(), big);
    std::memset(grown, 0x5a, big);  // the whole length is writable (checked by the sanitizer)
    pad.release();
    EXPECT_EQ(pad.capacity(), 0u);
}

TEST(ScratchPadThreads, EachThreadHasItsOwnPad) {
    ScratchPad* mine = &globalScratchPad();
    EXPECT_EQ(mine, &globalScratchPad());
    ScratchPad* other = nullptr;
    std::thread t([&] {
        other = &globalScratchPad();
        std::memset(other->getBuffer(1000), 1, 1000);
    });
    t.join();
    EXPECT_NE(other, mine);
}

TEST(FastString, CopiesShareOneBuffer) {
    FastString<char> a("hello");
    FastString<char> b = a;
    EXPECT_TRUE(a.sharesWith(b));
    EXPECT_EQ(a.c_str(), b.c_str());
    FastString<char> c(std::string("hello"));
    EXPECT_FALSE(a.sharesWith(c));
    EXPECT_EQ(a, c);
    EXPECT_EQ(std::hash<FastString<char>>()(a), std::hash<FastString<char>>()(c));
    FastString<char> d = a + " world";
    EXPECT_EQ(d, "hello world");
    EXPECT_EQ(a, "hello");
}

TEST(FastString, ComparesByText) {
    FastString<char> apple("apple"), pear("pear");
    EXPECT_LT(apple, pear);
    EXPECT_GT(pear, apple);
    EXPECT_NE(apple, pear);
    EXPECT_TRUE(apple == "apple");
    EXPECT_TRUE("apple" == apple);
    EXPECT_FALSE(apple == "appl");
    EXPECT_LT(FastString<char>(), apple);
}

TEST(FastString, EmptyFormsAreOneValue) {
    FastString<char> none, null(static_cast<const char*>(nullptr)), blank(""), moved{std::string()};
    for (const auto* s : {&none, &null, &blank, &moved}) {
        EXPECT_TRUE(s->empty());
        EXPECT_EQ(s->size(), 0u);
        EXPECT_STREQ(s->c_str(), "");
        EXPECT_EQ((*s)[0], '\0');  // the terminator, as std::string has it
        EXPECT_EQ(*s, none);
        EXPECT_EQ(*s, "");
        EXPECT_TRUE(s->sharesWith(none));
    }
    EXPECT_EQ(none.str(), std::string());
}

}  // namespace
}  // namespace qor
