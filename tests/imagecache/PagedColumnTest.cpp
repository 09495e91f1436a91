#include <gtest/gtest.h>

#include "base/Log.h"
#include "imagecache/metadata/PagedColumn.h"

namespace qor::imagecache {
namespace {

TEST(PagedColumn, EntriesAcrossBlockEdgesKeepTheirOwnBits) {
    PagedColumn<double> column;
    column.reserve(512);
    EXPECT_EQ(column.capacity(), 512u);
    column.set(255, 1.5);
    column.setAbsent(256);
    column.set(511, 3.0);
    double value = 0;
    EXPECT_TRUE(column.get(255, value));
    EXPECT_EQ(value, 1.5);
    EXPECT_FALSE(column.present(256));
    EXPECT_TRUE(column.known(256));
    EXPECT_FALSE(column.known(254));
    EXPECT_FALSE(column.known(257));
    EXPECT_TRUE(column.get(511, value));
    EXPECT_EQ(value, 3.0);

    // Forgetting one entry leaves its neighbours in the block alone.
    column.set(254, 7.0);
    column.clear(255);
    EXPECT_FALSE(column.known(255));
    EXPECT_FALSE(column.get(255, value));
    EXPECT_TRUE(column.get(254, value));
    EXPECT_EQ(value, 7.0);
    // Setting a value again after an absence makes it present.
    column.set(256, 2.0);
    EXPECT_TRUE(column.get(256, value));
    EXPECT_EQ(value, 2.0);
}

TEST(PagedColumn, LookupsOutsideTheCoveredRangeAreAbsentAndStoresThereAreRefused) {
    PagedColumn<int> column;
    EXPECT_EQ(column.find(0), nullptr);
    EXPECT_FALSE(column.known(-1));
    column.reserve(1);  // whole blocks
    EXPECT_EQ(column.capacity(), 256u);
    column.reserve(10);  // never shrinks
    EXPECT_EQ(column.capacity(), 256u);
    EXPECT_EQ(column.find(-5), nullptr);
    EXPECT_EQ(column.find(256), nullptr);
    EXPECT_EQ(column.find(INT32_MIN), nullptr);

    LogCapture capture;
    column.set(256, 1);
    column.setAbsent(-1);
    EXPECT_EQ(capture.assertions("index >= 0 && index < capacity()"), 2u);
    EXPECT_FALSE(column.known(256));
}

}  // namespace
}  // namespace qor::imagecache
