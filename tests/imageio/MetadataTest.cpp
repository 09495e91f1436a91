#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "base/Log.h"
#include "imageio/ItemMetadata.h"
#include "imageio/Metadata.h"
#include "imageio/MetadataCache.h"
#include "imageio/MetadataConverter.h"
#include "imageio/MetadataValue.h"
#include "imageio/detail/MetadataText.h"

namespace qor::imageio {
namespace {

using F = MetadataField;
using S = FastString<char>;

SharedPtr<Metadata> withRaw(std::initializer_list<std::pair<const char*, const char*>> entries) {
    auto m = std::make_shared<Metadata>();
    MetadataConverter::MetadataMap map;
    for (const auto& [k, v] : entries) map[S(k)] = S(std::string_view(v));
    m->setByConverter(std::make_shared<MetadataConverter>(map));
    return m;
}

TEST(MetadataField, NamesAndTypesCoverEveryValueButTheHole) {
    std::set<std::string> names;
    for (int v = 0; v < MetadataFieldEnd; ++v) {
        if (v == 41) continue;
        auto field = static_cast<MetadataField>(v);
        S name = fieldName(field);
        EXPECT_FALSE(name.empty()) << v;
        EXPECT_TRUE(names.insert(name.str()).second) << "duplicate " << name;
        MetadataType type = fieldDataType(field);
        EXPECT_GE(type, MdtInt) << v;
        EXPECT_LE(type, MdtDigest) << v;
    }
    EXPECT_EQ(names.size(), 47u);
    EXPECT_EQ(fieldName(F::Expsoure), "Expsoure");
    EXPECT_EQ(fieldName(F::SubSecTimeDigitzed), "SubSecTimeDigitzed");
    EXPECT_EQ(fieldName(F::Imagesize), "Imagesize");
    EXPECT_EQ(fieldDataType(F::GPSCoordinates), MdtVec3d);
    EXPECT_EQ(fieldDataType(F::MD5), MdtDigest);
    EXPECT_EQ(fieldDataType(F::SubSecTime), MdtTime);
}

TEST(MetadataField, HoleAndOutOfRangeValuesAssert) {
    LogCapture capture;
    EXPECT_TRUE(fieldName(F::RecordConsistent).empty());
    EXPECT_EQ(fieldDataType(static_cast<MetadataField>(48)), MdtUnknown);
    EXPECT_EQ(fieldDataType(static_cast<MetadataField>(-1)), MdtUnknown);
    EXPECT_EQ(capture.assertions("false"), 3u);
}

TEST(Metadata, EmptyObjectAnswersZeroAndFalse) {
    Metadata m;
    EXPECT_EQ(m.size(), Vec2i(0, 0));
    EXPECT_EQ(m.location(), Vec3d());
    EXPECT_TRUE(m.captureTime().isNull());
    int i = 7;
    EXPECT_FALSE(m.get(F::Rating, i));
    EXPECT_EQ(i, 7);
    S raw("untouched");
    EXPECT_FALSE(m.get(S("xmp:Rating"), raw));
    EXPECT_EQ(raw, "untouched");
}

TEST(Metadata, EachTypeHasItsOwnMap) {
    Metadata m;
    m.set(F::FNumber, 2.8);
    m.set(F::ISOSensitivity, 400);
    m.set(F::MD5, *Digest::fromHex("00112233445566778899aabbccddeeff"));
    int i = 0;
    double x = 0;
    Digest d;
    EXPECT_FALSE(m.get(F::FNumber, i));
    EXPECT_FALSE(m.get(F::ISOSensitivity, x));
    EXPECT_TRUE(m.get(F::FNumber, x));
    EXPECT_TRUE(m.get(F::ISOSensitivity, i));
    EXPECT_TRUE(m.get(F::MD5, d));
    EXPECT_EQ(d.toHex(), "00112233445566778899aabbccddeeff");
    EXPECT_TRUE(m.rawMap().empty());
}

TEST(Metadata, WrongTypeSetAssertsAndStoresAnyway) {
    LogCapture capture;
    Metadata m;
    m.set(F::FNumber, 3);
    EXPECT_EQ(capture.assertions("fieldDataType(field) == MdtInt"), 1u);
    m.set(F::Rating, S("five"));
    EXPECT_EQ(capture.assertions("fieldDataType(field) == MdtString"), 1u);
    int i = 0;
    EXPECT_TRUE(m.get(F::FNumber, i));
    EXPECT_EQ(i, 3);
    // Only the setter of the field's own type mirrors.
    S raw;
    EXPECT_FALSE(m.get(S("xmp:Rating"), raw));
}

TEST(Metadata, ThreeSettersMirrorIntoTheRawMap) {
    Metadata m;
    m.set(F::Rating, 3);
    m.set(F::Orientation, 6);
    m.set(F::SoftwareString, S("qor 1.0"));
    m.set(F::MakeString, S("Canon"));
    S raw;
    EXPECT_TRUE(m.get(S("xmp:Rating"), raw));
    EXPECT_EQ(raw, "3");
    EXPECT_TRUE(m.get(S("tiff:Orientation"), raw));
    EXPECT_EQ(raw, "6");
    EXPECT_TRUE(m.get(S("tiff:Software"), raw));
    EXPECT_EQ(raw, "qor 1.0");
    EXPECT_FALSE(m.get(S("tiff:Make"), raw));
    EXPECT_EQ(m.rawMap().size(), 3u);
}

TEST(Metadata, ConverterReplacesRawMapButKeepsTypedFields) {
    Metadata m;
    m.set(F::Rating, 3);
    m.setByConverter(std::make_shared<MetadataConverter>(
        MetadataConverter::MetadataMap{{S("tiff:Make"), S("Nikon")}}));
    int rating = 0;
    EXPECT_TRUE(m.get(F::Rating, rating));
    EXPECT_EQ(rating, 3);
    S raw;
    EXPECT_FALSE(m.get(S("xmp:Rating"), raw));
    S make;
    EXPECT_TRUE(m.get(F::MakeString, make));
    EXPECT_EQ(make, "Nikon");
    EXPECT_EQ(m.getConverter()->getAsMetadataMap().size(), 1u);
}

TEST(Metadata, SetByKeySyncsButRemoveDoesNot) {
    Metadata m;
    m.set(S("xmp:Rating"), S("4"));
    int rating = 0;
    EXPECT_TRUE(m.get(F::Rating, rating));
    EXPECT_EQ(rating, 4);
    m.remove(S("xmp:Rating"));
    S raw;
    EXPECT_FALSE(m.get(S("xmp:Rating"), raw));
    EXPECT_TRUE(m.get(F::Rating, rating));
    EXPECT_EQ(rating, 4);
    m.setRaw(S("tiff:Make"), S("Leica"));
    S make;
    EXPECT_FALSE(m.get(F::MakeString, make));
}

TEST(MetadataSync, ImageSizeFallsBackOnlyForAbsentKeysAndNeedsBothPositive) {
    EXPECT_EQ(withRaw({{"exif:PixelXDimension", "0"},
                       {"tiff:ImageWidth", "10"},
                       {"exif:PixelYDimension", "20"}})
                  ->size(),
              Vec2i(0, 0));
    EXPECT_EQ(withRaw({{"tiff:ImageWidth", "10"}, {"exif:PixelYDimension", "20"}})->size(),
              Vec2i(10, 20));
    EXPECT_EQ(
        withRaw(
            {{"exif:PixelXDimension", "30"}, {"tiff:ImageWidth", "10"}, {"tiff:ImageLength", "40"}})
            ->size(),
        Vec2i(30, 40));
    Vec2i size;
    EXPECT_FALSE(withRaw({{"tiff:ImageWidth", "10"}})->get(F::Imagesize, size));
}

TEST(MetadataSync, ExposureBiasLandsInTheIntegerMap) {
    auto m = withRaw({{"exif:ExposureBiasValue", "-2"},
                      {"exif:FNumber", "2.8"},
                      {"exif:ExposureTime", "1/250"},
                      {"exif:ISOSpeedRatings", "200"}});
    double bias = 0;
    EXPECT_FALSE(m->get(F::Expsoure, bias));
    int intBias = 0;
    EXPECT_TRUE(m->get(F::Expsoure, intBias));
    EXPECT_EQ(intBias, -2);
    double x = 0;
    EXPECT_TRUE(m->get(F::FNumber, x));
    EXPECT_DOUBLE_EQ(x, 2.8);
    EXPECT_TRUE(m->get(F::ExposureTime, x));
    EXPECT_DOUBLE_EQ(x, 0.004);
    int iso = 0;
    EXPECT_TRUE(m->get(F::ISOSensitivity, iso));
    EXPECT_EQ(iso, 200);
}

TEST(MetadataSync, OriginalTimeFallsBackToTiffDateTime) {
    auto fallback = withRaw({{"tiff:DateTime", "2020:01:02 03:04:05"}});
    EXPECT_EQ(fallback->captureTime(), Timestamp::fromFields(2020, 1, 2, 3, 4, 5));
    auto both = withRaw({{"tiff:DateTime", "2020:01:02 03:04:05"},
                         {"exif:DateTimeOriginal", "2019:12:31 23:59:58"},
                         {"exif:DateTimeDigitized", "2019:12:31 23:59:59"}});
    EXPECT_EQ(both->captureTime(), Timestamp::fromFields(2019, 12, 31, 23, 59, 58));
    Timestamp digitized;
    EXPECT_TRUE(both->get(F::DigitizedTime, digitized));
    EXPECT_EQ(digitized, Timestamp::fromFields(2019, 12, 31, 23, 59, 59));
}

TEST(MetadataSync, FlashIsRebuiltAsTheExifBitField) {
    auto m = withRaw({{"exif:Flash/exif:Fired", "True"},
                      {"exif:Flash/exif:Return", "3"},
                      {"exif:Flash/exif:Mode", "1"},
                      {"exif:Flash/exif:Function", "False"},
                      {"exif:Flash/exif:RedEyeMode", "True"}});
    double flash = 0;
    EXPECT_TRUE(m->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 1 | 3 << 1 | 1 << 3 | 1 << 6);
    auto notFired =
        withRaw({{"exif:Flash/exif:Fired", "False"}, {"exif:Flash/exif:Function", "True"}});
    EXPECT_TRUE(notFired->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 32);
    auto energy = withRaw({{"exif:Flash/exif:Fired", "True"}, {"exif:FlashEnergy", "12.5"}});
    EXPECT_TRUE(energy->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 12.5);
    EXPECT_FALSE(withRaw({{"tiff:Make", "x"}})->get(F::FlashEnergy, flash));
}

TEST(MetadataSync, GpsIsBase60WithSignLettersAndAlwaysSet) {
    auto m = withRaw({{"exif:GPSLatitude",
                       "48\x01"
                       "30S"},
                      {"exif:GPSLongitude",
                       "2\x01"
                       "15\x01"
                       "36E"},
                      {"exif:GPSAltitude", "35.7"}});
    Vec3d gps = m->location();
    EXPECT_DOUBLE_EQ(gps.y, -48.5);
    EXPECT_DOUBLE_EQ(gps.x, 2.26);
    EXPECT_EQ(gps.z, 35);  // an integer
    EXPECT_DOUBLE_EQ(withRaw({{"exif:GPSLongitude", "W 10"}})->location().x, -10);
    Vec3d absent(1, 1, 1);
    EXPECT_TRUE(withRaw({{"tiff:Make", "x"}})->get(F::GPSCoordinates, absent));
    EXPECT_EQ(absent, Vec3d());
}

TEST(MetadataSync, IntegersStringsAndThumbnailOffset) {
    auto m = withRaw({{"xmp:Rating", "5"},
                      {"tiff:Orientation", "8"},
                      {"exif:LightSource", "3"},
                      {"tiff:ResolutionUnit", "2"},
                      {"exif:ThumbnailOffset", "1234"},
                      {"exif:TiffUserComment", "note"},
                      {"dc:creator", "Ann"},
                      {"tiff:Model", "EOS"}});
    int i = 0;
    EXPECT_TRUE(m->get(F::Rating, i));
    EXPECT_EQ(i, 5);
    EXPECT_TRUE(m->get(F::Orientation, i));
    EXPECT_EQ(i, 8);
    EXPECT_TRUE(m->get(F::LightSource, i));
    EXPECT_EQ(i, 3);
    EXPECT_TRUE(m->get(F::ImageResolution, i));
    EXPECT_EQ(i, 2);
    EXPECT_EQ(m->thumbLocation(), 1234);
    S s;
    EXPECT_TRUE(m->get(F::UserComment, s));
    EXPECT_EQ(s, "note");
    EXPECT_TRUE(m->get(F::DcCreator, s));
    EXPECT_EQ(s, "Ann");
    EXPECT_TRUE(m->get(F::ModelString, s));
    EXPECT_EQ(s, "EOS");
    // City has no map key: only the file read fills it.
    m->set(S("iptc:City"), S("Paris"));
    EXPECT_FALSE(m->get(F::City, s));
}

TEST(Metadata, DoIntersectionKeepsOnlySharedEqualValues) {
    auto a = std::make_shared<Metadata>();
    auto b = std::make_shared<Metadata>();
    a->set(F::FNumber, 2.8);
    b->set(F::FNumber, 4.0);
    a->set(F::ISOSensitivity, 100);
    b->set(F::ISOSensitivity, 100);
    a->set(F::MakeString, S("Canon"));
    a->setRaw(S("tiff:Make"), S("Canon"));
    b->setRaw(S("tiff:Make"), S("Canon"));
    a->setRaw(S("tiff:Model"), S("A"));
    b->setRaw(S("tiff:Model"), S("B"));
    a->setThumbLocation(100);
    b->setThumbLocation(200);
    a->doIntersection(b);
    double f = 0;
    EXPECT_FALSE(a->get(F::FNumber, f));
    int iso = 0;
    EXPECT_TRUE(a->get(F::ISOSensitivity, iso));
    S s;
    EXPECT_FALSE(a->get(F::MakeString, s));
    EXPECT_TRUE(a->get(S("tiff:Make"), s));
    EXPECT_FALSE(a->get(S("tiff:Model"), s));
    EXPECT_EQ(a->thumbLocation(), 0);
}

TEST(Metadata, AddAllRemoveAllAndCloneAreDeep) {
    auto a = std::make_shared<Metadata>();
    auto b = std::make_shared<Metadata>();
    a->set(F::FNumber, 2.8);
    b->set(F::FNumber, 4.0);
    b->set(F::DcTitle, S("T"));
    b->setRaw(S("dc:title"), S("T"));
    a->addAll(b);
    double f = 0;
    EXPECT_TRUE(a->get(F::FNumber, f));
    EXPECT_EQ(f, 2.8);  // present entries keep their value
    S s;
    EXPECT_TRUE(a->get(F::DcTitle, s));
    EXPECT_TRUE(a->get(S("dc:title"), s));

    a->setThumbLocation(42);
    auto copy = a->clone();
    EXPECT_EQ(copy->thumbLocation(), 42);
    copy->set(F::FNumber, 8.0);
    EXPECT_TRUE(a->get(F::FNumber, f));
    EXPECT_EQ(f, 2.8);

    a->removeAll(b);
    EXPECT_FALSE(a->get(F::FNumber, f));
    EXPECT_FALSE(a->get(F::DcTitle, s));
    EXPECT_FALSE(a->get(S("dc:title"), s));
    EXPECT_TRUE(copy->get(F::DcTitle, s));
}

TEST(MetadataConverter, BothDirectionsAreExactInverses) {
    MetadataConverter::MetadataMap utfmap{
        {S("dc:title"), S("Zürich – 東京")},
        {S("exif:UserComment"), S(std::string_view("a\0b", 3))},
        {S("tiff:Make"), S("")},
    };
    MetadataConverter circle1(MetadataConverter(utfmap).getAsQorMetadata());
    EXPECT_TRUE(utfmap == circle1.getAsMetadataMap());

    MetadataConverter::NarrowMap nmap{{"xmp:Rating", "3"},
                                      {"dc:subject", "\xC3\xA9t\xC3\xA9"},
                                      {"raw", std::string("\xFF\x00\x01", 3)}};
    MetadataConverter circle2(MetadataConverter(nmap).getAsMetadataMap());
    EXPECT_TRUE(nmap == circle2.getAsQorMetadata());
}

TEST(MetadataConverter, DefaultConstructionIsAProgrammingError) {
    LogCapture capture;
    MetadataConverter empty;
    EXPECT_EQ(capture.assertions("false"), 1u);
    EXPECT_TRUE(empty.getAsMetadataMap().empty());
}

TEST(MetadataValue, TypedGettersCheckTheTag) {
    MetadataValue v(Vec2i(3, 4));
    EXPECT_EQ(v.type(), MdtVec2i);
    EXPECT_EQ(v.getVec2i(), Vec2i(3, 4));
    LogCapture capture;
    EXPECT_EQ(v.getInt(), 0);
    EXPECT_EQ(capture.assertions("_type == MdtInt"), 1u);
    EXPECT_EQ(v.getString(), S());
    EXPECT_EQ(capture.assertions("_type == MdtString"), 1u);
    EXPECT_EQ(MetadataValue::zero(MdtTime), MetadataValue(Timestamp()));
    EXPECT_FALSE(MetadataValue(1) == MetadataValue(1.0));
}

TEST(MetadataText, NumbersReadLikeTheCLibrary) {
    EXPECT_EQ(detail::metaInt(" 2.9"), 2);
    EXPECT_EQ(detail::metaInt("-1/3"), -1);
    EXPECT_EQ(detail::metaInt("+7x"), 7);
    EXPECT_EQ(detail::metaInt("x7"), 0);
    EXPECT_EQ(detail::metaInt("99999999999"), 2147483647);
    EXPECT_DOUBLE_EQ(detail::metaDouble("1/250"), 0.004);
    EXPECT_DOUBLE_EQ(detail::metaDouble("1/0"), 0.0);
    EXPECT_DOUBLE_EQ(detail::metaDouble(" -2.5e1mm"), -25.0);
    EXPECT_DOUBLE_EQ(detail::metaDouble("+-1"), 0.0);
    EXPECT_DOUBLE_EQ(detail::metaGpsCoordinate("48\x01"
                                               "30"),
                     48.5);
    EXPECT_DOUBLE_EQ(detail::metaGpsCoordinate(""), 0.0);
}

// A cache over plain maps, to drive ItemMetadata.
class MapCache : public MetadataCache {
public:
    std::map<std::pair<int, int>, MetadataValue> values;
    int sets = 0;

    template <class T>
    bool fetch(ResourceID id, MetadataField f, T& out) {
        auto it = values.find({id.id(), static_cast<int>(f)});
        if (it == values.end()) return false;
        MetadataValue v = it->second;
        if constexpr (std::is_same_v<T, int>) out = v.getInt();
        if constexpr (std::is_same_v<T, Vec2i>) out = v.getVec2i();
        if constexpr (std::is_same_v<T, double>) out = v.getDouble();
        if constexpr (std::is_same_v<T, Vec3d>) out = v.getVec3d();
        if constexpr (std::is_same_v<T, S>) out = v.getString();
        if constexpr (std::is_same_v<T, Timestamp>) out = v.getTime();
        if constexpr (std::is_same_v<T, Digest>) out = v.getDigest();
        return true;
    }
    template <class T>
    void store(ResourceID id, MetadataField f, const T& value) {
        ++sets;
        values[{id.id(), static_cast<int>(f)}] = MetadataValue(value);
    }
    bool get(ResourceID id, MetadataField f, int& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Vec2i& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, double& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Vec3d& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, S& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Timestamp& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Digest& o) override { return fetch(id, f, o); }
    void set(ResourceID id, MetadataField f, int v) override { store(id, f, v); }
    void set(ResourceID id, MetadataField f, const Vec2i& v) override { store(id, f, v); }
    void set(ResourceID id, MetadataField f, double v) override { store(id, f, v); }
    void set(ResourceID id, MetadataField f, const Vec3d& v) override { store(id, f, v); }
    void set(ResourceID id, MetadataField f, const S& v) override { store(id, f, v); }
    void set(ResourceID id, MetadataField f, const Timestamp& v) override { store(id, f, v); }
    void set(ResourceID id, MetadataField f, const Digest& v) override { store(id, f, v); }
    bool isCached(ResourceID id) override { return id.id() == 1; }
    SharedPtr<const Metadata> loadMetadata(ResourceID) override { return nullptr; }
    void check(ResourceID) override {}
    void copyImage(ResourceID, ResourceID) override {}
};

TEST(ItemMetadata, ReadsThroughTheCacheWithZeroForAbsentValues) {
    MapCache cache;
    ItemMetadata item(&cache, ResourceID(1, nullptr));
    EXPECT_TRUE(item.valid());
    EXPECT_TRUE(item.isCached());
    EXPECT_FALSE(ItemMetadata(&cache, ResourceID(2, nullptr)).isCached());
    EXPECT_EQ(item.getInt(F::Rating), 0);
    EXPECT_EQ(item.getSize(), Vec2i());
    item.set(F::Rating, 4);
    item.set(F::Imagesize, Vec2i(10, 20));
    item.set(F::ItemType, 2);
    item.set(F::GPSCoordinates, Vec3d(1, 2, 3));
    EXPECT_EQ(item.getInt(F::Rating), 4);
    EXPECT_EQ(item.getSize(), Vec2i(10, 20));
    EXPECT_EQ(item.getItemType(), ItemTypeVideo);
    EXPECT_EQ(item.getLocation(), Vec3d(1, 2, 3));
    EXPECT_EQ(item.getGeneric(F::Imagesize), MetadataValue(Vec2i(10, 20)));
    EXPECT_EQ(item.getGeneric(F::FNumber), MetadataValue(0.0));
    item.set(F::ItemType, 99);
    EXPECT_EQ(item.getItemType(), ItemTypeUnknown);
}

TEST(ItemMetadata, TimeFallsBackFromCaptureToFileTimes) {
    MapCache cache;
    ItemMetadata item(&cache, ResourceID(5, nullptr));
    EXPECT_TRUE(item.getTime().isNull());
    Timestamp written = Timestamp::fromFields(2000, 1, 1);
    Timestamp created = Timestamp::fromFields(2001, 1, 1);
    Timestamp captured = Timestamp::fromFields(2002, 1, 1);
    item.set(F::FileLastWriteTime, written);
    EXPECT_EQ(item.getTime(), written);
    item.set(F::FileCreationTime, created);
    EXPECT_EQ(item.getTime(), created);
    EXPECT_EQ(item.getFileCreationTime(), created);
    item.set(F::OriginalTime, captured);
    EXPECT_EQ(item.getTime(), captured);
    EXPECT_EQ(item.getCaptureTime(), captured);
}

TEST(ItemMetadata, InvalidHandleAnswersZeroAndRefusesWrites) {
    ItemMetadata item;
    EXPECT_FALSE(item.valid());
    EXPECT_FALSE(item.isCached());
    EXPECT_EQ(item.getDouble(F::FNumber), 0.0);
    EXPECT_EQ(item.getString(F::DcTitle), S());
    LogCapture capture;
    item.set(F::Rating, 1);
    EXPECT_EQ(capture.assertions("valid()"), 1u);
}

}  // namespace
}  // namespace qor::imageio
