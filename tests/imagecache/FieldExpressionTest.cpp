#include <gtest/gtest.h>

#include "CacheTestSupport.h"
#include "base/Log.h"
#include "imagecache/metadata/FieldExpression.h"

namespace qor::imagecache {
namespace {

using imageio::Vec2i;
using testing::F;
using testing::MemoryCache;
using testing::Metadata;
using S = FastString<char>;

class FieldExpressionTest : public ::testing::Test {
protected:
    FieldExpressionTest() : cache(&manager) {
        SharedPtr<Metadata> m = std::make_shared<Metadata>();
        m->set(F::ISOSensitivity, 400);
        m->set(F::Imagesize, Vec2i(4000, 3000));
        m->set(F::MakeString, S("NIKON Corporation"));
        m->set(F::FNumber, 2.8);
        cache.put(item.imageID(), m);
    }

    ResourceManager manager;
    MemoryCache cache;
    ItemMetadata item{&cache, ResourceID(3, &manager)};
    ItemMetadata bare{&cache, ResourceID(4, &manager)};  // no values at all
};

TEST_F(FieldExpressionTest, ConditionsAreAlternatives) {
    FieldExpression iso(F::ISOSensitivity);
    EXPECT_FALSE(iso.matches(item));  // nothing to accept
    iso.addCondition(FieldCondition(FieldCondition::Less, MetadataValue(100)));
    EXPECT_FALSE(iso.matches(item));
    iso.addCondition(FieldCondition(FieldCondition::GreaterOrEqual, MetadataValue(400)));
    EXPECT_TRUE(iso.matches(item));
    // An absent value reads as zero.
    EXPECT_TRUE(iso.matches(bare));

    FieldExpression exact(F::ISOSensitivity);
    exact.addCondition(FieldCondition(FieldCondition::NotEqual, MetadataValue(400)));
    EXPECT_FALSE(exact.matches(item));
    EXPECT_TRUE(exact.isScalar());
    EXPECT_FALSE(exact.isString());
}

TEST_F(FieldExpressionTest, SizesOrderByAreaAndStringsIgnoreCase) {
    FieldExpression larger(F::Imagesize);
    larger.addCondition(FieldCondition(FieldCondition::Greater, MetadataValue(Vec2i(1920, 1080))));
    EXPECT_TRUE(larger.matches(item));
    FieldExpression same(F::Imagesize);
    // Same area, other shape: ordered alike, but not equal.
    same.addCondition(FieldCondition(FieldCondition::Equal, MetadataValue(Vec2i(3000, 4000))));
    EXPECT_FALSE(same.matches(item));
    same.addCondition(
        FieldCondition(FieldCondition::LessOrEqual, MetadataValue(Vec2i(3000, 4000))));
    EXPECT_TRUE(same.matches(item));

    FieldExpression make(F::MakeString);
    EXPECT_TRUE(make.isString());
    make.addCondition(FieldCondition(FieldCondition::Contains, MetadataValue(S("nikon"))));
    EXPECT_TRUE(make.matches(item));
    EXPECT_FALSE(make.matches(bare));
    FieldExpression equal(F::MakeString);
    equal.addCondition(
        FieldCondition(FieldCondition::Equal, MetadataValue(S("nikon corporation"))));
    EXPECT_TRUE(equal.matches(item));
}

TEST_F(FieldExpressionTest, WrongTypesFailTheirAssertions) {
    LogCapture capture;
    FieldExpression iso(F::ISOSensitivity);
    iso.addCondition(FieldCondition(FieldCondition::Equal, MetadataValue(400.0)));
    EXPECT_EQ(capture.assertions("cond.refValue().type() == fieldDataType(_field)"), 1u);
    EXPECT_FALSE(iso.matches(item));  // the mistyped condition never accepts
    iso.addCondition(FieldCondition(FieldCondition::Contains, MetadataValue(4)));
    EXPECT_EQ(capture.assertions("cond.comparison() != FieldCondition::Contains || isString()"),
              1u);
    EXPECT_FALSE(iso.matches(item));

    // Doubles cannot be compared.
    FieldExpression fnumber(F::FNumber);
    fnumber.addCondition(FieldCondition(FieldCondition::Equal, MetadataValue(2.8)));
    EXPECT_EQ(capture.assertions("false"), 0u);
    EXPECT_FALSE(fnumber.matches(item));
    EXPECT_EQ(capture.assertions("false"), 1u);
}

}  // namespace
}  // namespace qor::imagecache
