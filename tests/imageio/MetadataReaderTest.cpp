#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

#include "TestJpeg.h"
#include "base/Log.h"
#include "imageio/MetadataReader.h"

namespace qor::imageio {
namespace {

using namespace testing;
using F = MetadataField;
using S = FastString<char>;

std::string rawValue(const SharedPtr<Metadata>& m, const char* key) {
    S value;
    return m && m->get(S(key), value) ? value.str() : std::string("<absent>");
}

SharedPtr<Metadata> readBytes(const Bytes& file) { return readMetadata(file.data(), file.size()); }

Bytes cameraJpeg() {
    return withMetadata(makeJpeg(64, 48), [](Exiv2::Image& image) {
        Exiv2::ExifData& exif = image.exifData();
        exif["Exif.Image.Make"] = "Canon";
        exif["Exif.Image.Model"] = "EOS 5D";
        exif["Exif.Image.Software"] = "Firmware 1.1";
        exif["Exif.Image.Orientation"] = uint16_t(6);
        exif["Exif.Image.XResolution"] = Exiv2::URational(300, 1);
        exif["Exif.Image.YResolution"] = Exiv2::URational(300, 1);
        exif["Exif.Image.ResolutionUnit"] = uint16_t(2);
        exif["Exif.Photo.FNumber"] = Exiv2::URational(28, 10);
        exif["Exif.Photo.ExposureTime"] = Exiv2::URational(1, 250);
        exif["Exif.Photo.ISOSpeedRatings"] = uint16_t(200);
        exif["Exif.Photo.ExposureBiasValue"] = Exiv2::Rational(-1, 3);
        exif["Exif.Photo.FocalLength"] = Exiv2::URational(50, 1);
        exif["Exif.Photo.WhiteBalance"] = uint16_t(1);
        exif["Exif.Photo.DateTimeOriginal"] = "2019:07:14 10:20:30";
        exif["Exif.Photo.UserComment"] = "charset=Ascii a comment";
        exif["Exif.Photo.Flash"] = uint16_t(0x59);
    });
}

TEST(MetadataReader, ExifKeysMapToTiffAndExifNotation) {
    auto m = readBytes(cameraJpeg());
    ASSERT_TRUE(m);
    EXPECT_EQ(rawValue(m, "tiff:Make"), "Canon");
    EXPECT_EQ(rawValue(m, "tiff:Orientation"), "6");
    EXPECT_EQ(rawValue(m, "exif:FNumber"), "2.8");
    EXPECT_EQ(rawValue(m, "exif:ExposureTime"), "0.004");
    EXPECT_EQ(rawValue(m, "exif:DateTimeOriginal"), "2019:07:14 10:20:30");
    EXPECT_EQ(rawValue(m, "exif:TiffUserComment"), "a comment");
    EXPECT_EQ(rawValue(m, "tiff:ExifTag"), "<absent>");  // structure, not data

    EXPECT_EQ(m->size(), Vec2i(64, 48));
    double x = 0;
    EXPECT_TRUE(m->get(F::FNumber, x));
    EXPECT_DOUBLE_EQ(x, 2.8);
    EXPECT_TRUE(m->get(F::ExposureTime, x));
    EXPECT_DOUBLE_EQ(x, 0.004);
    EXPECT_TRUE(m->get(F::Expsoure, x));  // a double on the file read
    EXPECT_NEAR(x, -1.0 / 3, 1e-12);
    int i = 0;
    EXPECT_TRUE(m->get(F::ISOSensitivity, i));
    EXPECT_EQ(i, 200);
    EXPECT_TRUE(m->get(F::ImageResolution, i));
    EXPECT_EQ(i, 2);
    EXPECT_TRUE(m->get(F::WhiteBalance, i));
    EXPECT_EQ(i, 1);
    EXPECT_FALSE(m->get(F::Orientation, i));  // only the map synchronisation reads it
    EXPECT_EQ(m->captureTime(), Timestamp::fromFields(2019, 7, 14, 10, 20, 30));
    S s;
    EXPECT_TRUE(m->get(F::ModelString, s));
    EXPECT_EQ(s, "EOS 5D");
    EXPECT_TRUE(m->get(F::UserComment, s));
    EXPECT_EQ(s, "a comment");
}

TEST(MetadataReader, ResolutionNeedsAllThreeTags) {
    auto m = readBytes(withMetadata(makeJpeg(8, 8), [](Exiv2::Image& image) {
        image.exifData()["Exif.Image.ResolutionUnit"] = uint16_t(2);
        image.exifData()["Exif.Image.XResolution"] = Exiv2::URational(72, 1);
    }));
    ASSERT_TRUE(m);
    int unit = 0;
    EXPECT_FALSE(m->get(F::ImageResolution, unit));
}

TEST(MetadataReader, FlashGivesTheNumberAndTheXmpStructureKeys) {
    auto m = readBytes(cameraJpeg());
    ASSERT_TRUE(m);
    EXPECT_EQ(rawValue(m, "exif:Flash"), "89");
    EXPECT_EQ(rawValue(m, "exif:Flash/exif:Fired"), "True");
    EXPECT_EQ(rawValue(m, "exif:Flash/exif:Return"), "0");
    EXPECT_EQ(rawValue(m, "exif:Flash/exif:Mode"), "3");
    EXPECT_EQ(rawValue(m, "exif:Flash/exif:Function"), "False");
    EXPECT_EQ(rawValue(m, "exif:Flash/exif:RedEyeMode"), "True");
    double flash = 0;
    EXPECT_TRUE(m->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 89);
    // The map synchronisation rebuilds the same number from the structure keys.
    auto synced = m->clone();
    synced->syncFieldsToMap();
    EXPECT_TRUE(synced->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 89);

    auto energy = readBytes(withMetadata(makeJpeg(8, 8), [](Exiv2::Image& image) {
        image.exifData()["Exif.Photo.Flash"] = uint16_t(1);
        image.exifData()["Exif.Photo.FlashEnergy"] = Exiv2::URational(5, 2);
    }));
    ASSERT_TRUE(energy);
    EXPECT_TRUE(energy->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 2.5);
}

TEST(MetadataReader, GpsIsBase60TextWithReferenceLetters) {
    auto m = readBytes(withMetadata(makeJpeg(8, 8), [](Exiv2::Image& image) {
        Exiv2::ExifData& exif = image.exifData();
        exif["Exif.GPSInfo.GPSLatitude"] = "48/1 30/1 0/1";
        exif["Exif.GPSInfo.GPSLatitudeRef"] = "S";
        exif["Exif.GPSInfo.GPSLongitude"] = "2/1 15/1 3600/100";
        exif["Exif.GPSInfo.GPSLongitudeRef"] = "W";
        exif["Exif.GPSInfo.GPSAltitude"] = Exiv2::URational(1234, 10);
        exif["Exif.GPSInfo.GPSAltitudeRef"] = Exiv2::byte(1);
        exif["Exif.GPSInfo.GPSSpeed"] = Exiv2::URational(15, 2);
    }));
    ASSERT_TRUE(m);
    EXPECT_EQ(rawValue(m, "exif:GPSLatitude"), std::string("48\x01"
                                                           "30\x01"
                                                           "0S"));
    EXPECT_EQ(rawValue(m, "exif:GPSLongitude"), std::string("2\x01"
                                                            "15\x01"
                                                            "36W"));
    EXPECT_EQ(rawValue(m, "exif:GPSAltitude"), "-123.4");
    Vec3d gps = m->location();
    EXPECT_DOUBLE_EQ(gps.y, -48.5);
    EXPECT_DOUBLE_EQ(gps.x, -2.26);
    EXPECT_EQ(gps.z, -123);
    double speed = 0;
    EXPECT_TRUE(m->get(F::GPSSpeed, speed));
    EXPECT_EQ(speed, 7.5);
    auto synced = m->clone();
    synced->syncFieldsToMap();
    EXPECT_EQ(synced->location(), gps);
}

TEST(MetadataReader, IptcDatasetsFillCityStateCountry) {
    auto m = readBytes(withMetadata(makeJpeg(8, 8), [](Exiv2::Image& image) {
        Exiv2::IptcData& iptc = image.iptcData();
        iptc["Iptc.Application2.City"] = "Z\xFCrich";  // Latin-1, no charset declared
        iptc["Iptc.Application2.ProvinceState"] = "ZH";
        iptc["Iptc.Application2.CountryName"] = "Switzerland";
        Exiv2::Iptcdatum keyword(Exiv2::IptcKey("Iptc.Application2.Keywords"));
        keyword.setValue("lake");
        iptc.add(keyword);
        keyword.setValue("city");
        iptc.add(keyword);
    }));
    ASSERT_TRUE(m);
    S s;
    EXPECT_TRUE(m->get(F::City, s));
    EXPECT_EQ(s, "Z\xC3\xBCrich");
    EXPECT_TRUE(m->get(F::State, s));
    EXPECT_EQ(s, "ZH");
    EXPECT_TRUE(m->get(F::Country, s));
    EXPECT_EQ(s, "Switzerland");
    EXPECT_EQ(rawValue(m, "iptc:Keywords"), "lake, city");
}

TEST(MetadataReader, XmpKeysKeepTheirPrefixAndExifWins) {
    auto m = readBytes(withMetadata(makeJpeg(8, 8), [](Exiv2::Image& image) {
        image.exifData()["Exif.Image.Make"] = "FromExif";
        Exiv2::XmpData& xmp = image.xmpData();
        xmp["Xmp.tiff.Make"] = "FromXmp";
        xmp["Xmp.xmp.Rating"] = "4";
        xmp["Xmp.dc.title"] = "lang=x-default Harbour";
        Exiv2::XmpArrayValue subjects(Exiv2::xmpBag);
        subjects.read("boats");
        subjects.read("sea");
        xmp.add(Exiv2::XmpKey("Xmp.dc.subject"), &subjects);
        xmp["Xmp.exif.GPSLatitude"] = "48,30.5N";
    }));
    ASSERT_TRUE(m);
    EXPECT_EQ(rawValue(m, "tiff:Make"), "FromExif");
    EXPECT_EQ(rawValue(m, "xmp:Rating"), "4");
    EXPECT_EQ(rawValue(m, "dc:title"), "Harbour");
    EXPECT_EQ(rawValue(m, "dc:subject"), "boats, sea");
    S s;
    EXPECT_TRUE(m->get(F::DcSubject, s));
    EXPECT_EQ(s, "boats, sea");
    EXPECT_TRUE(m->get(F::DcTitle, s));
    EXPECT_EQ(s, "Harbour");
    int rating = 0;
    EXPECT_FALSE(m->get(F::Rating, rating));  // only the map synchronisation reads it
    EXPECT_DOUBLE_EQ(m->location().y, 48 + 30.5 / 60);
}

TEST(MetadataReader, ThumbnailOffsetPointsAtTheEmbeddedJpeg) {
    Bytes thumb = makeJpeg(16, 12, 50);
    Bytes file = withMetadata(makeJpeg(160, 120), [&thumb](Exiv2::Image& image) {
        image.exifData()["Exif.Image.Make"] = "Canon";
        image.iptcData()["Iptc.Application2.City"] = "Oslo";  // an APP13 segment as well
        Exiv2::ExifThumb(image.exifData()).setJpegThumbnail(thumb.data(), thumb.size());
    });
    auto m = readBytes(file);
    ASSERT_TRUE(m);
    long at = m->thumbLocation();
    ASSERT_GT(at, 0);
    ASSERT_LE(static_cast<size_t>(at) + thumb.size(), file.size());
    EXPECT_EQ(file[at], 0xFF);
    EXPECT_EQ(file[at + 1], 0xD8);
    EXPECT_TRUE(std::equal(thumb.begin(), thumb.end(), file.begin() + at));
    EXPECT_EQ(rawValue(m, "exif:ThumbnailOffset"), std::to_string(at));
    EXPECT_EQ(rawValue(m, "exif:ThumbnailLength"), std::to_string(thumb.size()));

    TempFolder folder;
    auto fromFile = readMetadata(S(folder.write("thumb.jpg", file)));
    ASSERT_TRUE(fromFile);
    EXPECT_EQ(fromFile->thumbLocation(), at);
    EXPECT_EQ(fromFile->rawMap(), m->rawMap());
}

// The offset entry of IFD1 (tag 0x201, LONG, count 1) in either byte order; its value follows.
size_t thumbnailOffsetEntry(const Bytes& file) {
    const uint8_t little[] = {0x01, 0x02, 0x04, 0x00, 0x01, 0x00, 0x00, 0x00};
    const uint8_t big[] = {0x02, 0x01, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01};
    for (const uint8_t* pattern : {little, big}) {
        auto it = std::search(file.begin(), file.end(), pattern, pattern + 8);
        if (it != file.end()) return static_cast<size_t>(it - file.begin()) + 8;
    }
    return 0;
}

TEST(MetadataReader, ThumbnailThatIsNoJpegInsideTheFileIsNone) {
    Bytes thumb = makeJpeg(16, 12, 50);
    Bytes file = withMetadata(makeJpeg(32, 32), [&thumb](Exiv2::Image& image) {
        Exiv2::ExifThumb(image.exifData()).setJpegThumbnail(thumb.data(), thumb.size());
    });
    size_t entry = thumbnailOffsetEntry(file);
    ASSERT_GT(entry, 0u);
    LogCapture quiet;
    for (uint32_t offset : {0x7FFFFFF0u, 8u}) {  // past the end; inside, but no JPEG there
        Bytes bad = file;
        bool little = bad[entry - 8] == 0x01;
        for (int k = 0; k < 4; ++k)
            bad[entry + k] = static_cast<uint8_t>(offset >> (little ? 8 * k : 24 - 8 * k));
        auto m = readBytes(bad);
        ASSERT_TRUE(m) << offset;
        EXPECT_EQ(m->thumbLocation(), 0) << offset;
        EXPECT_EQ(rawValue(m, "exif:ThumbnailOffset"), "<absent>");
    }
    auto good = readBytes(file);
    ASSERT_TRUE(good);
    EXPECT_GT(good->thumbLocation(), 0);
}

TEST(MetadataReader, PlainJpegHasSizeFlashAndGpsOnly) {
    auto m = readBytes(makeJpeg(33, 17));
    ASSERT_TRUE(m);
    EXPECT_EQ(m->size(), Vec2i(33, 17));
    double flash = -1;
    EXPECT_TRUE(m->get(F::FlashEnergy, flash));
    EXPECT_EQ(flash, 0);
    Vec3d gps(1, 1, 1);
    EXPECT_TRUE(m->get(F::GPSCoordinates, gps));
    EXPECT_EQ(gps, Vec3d());
    EXPECT_EQ(m->thumbLocation(), 0);
    EXPECT_TRUE(m->rawMap().empty());
}

// Each bad input gives null and exactly one line at info level or above, naming the file.
void expectOneFailureLine(const std::function<SharedPtr<Metadata>()>& read,
                          const std::string& name) {
    LogCapture capture;
    EXPECT_FALSE(read()) << name;
    size_t lines = 0;
    for (const auto& e : capture.entries())
        if (e.level >= LogInfo) {
            ++lines;
            EXPECT_NE(e.text.find(name), std::string::npos) << e.text;
        }
    EXPECT_EQ(lines, 1u) << name;
}

TEST(MetadataReader, BadFilesGiveNullAndOneLogLine) {
    TempFolder folder;
    Bytes good = cameraJpeg();
    std::mt19937 random(7);
    Bytes noise(4096);
    for (auto& b : noise) b = static_cast<uint8_t>(random());
    // Cut inside the EXIF segment, which begins behind SOI and the JFIF APP0.
    size_t app1 = 2 + 2 + (good[4] << 8 | good[5]);
    ASSERT_EQ(good[app1 + 1], 0xE1);
    Bytes cutInExif(good.begin(), good.begin() + app1 + 40);
    Bytes soiOnly{0xFF, 0xD8};

    expectOneFailureLine([&] { return readMetadata(S(folder.path() + "/missing.jpg")); },
                         "missing.jpg");
    for (const auto& [name, bytes] : {std::pair<std::string, Bytes>{"empty.jpg", {}},
                                      {"noise.jpg", noise},
                                      {"cut.jpg", cutInExif},
                                      {"soi.jpg", soiOnly}}) {
        std::string path = folder.write(name, bytes);
        expectOneFailureLine([&] { return readMetadata(S(path)); }, name);
    }
    LogCapture quiet;
    EXPECT_FALSE(readMetadata(nullptr, 0));
}

TEST(MetadataReader, FileCutInTheImageDataStillHasItsMetadata) {
    Bytes good = withMetadata(makeJpeg(320, 240), [](Exiv2::Image& image) {
        image.exifData()["Exif.Image.Make"] = "Canon";
    });
    size_t sos = 0;
    for (size_t i = 2; i + 1 < good.size() && !sos; ++i)
        if (good[i] == 0xFF && good[i + 1] == 0xDA) sos = i;
    ASSERT_GT(sos, 0u);
    ASSERT_GT(good.size(), sos + 200);
    Bytes cut(good.begin(), good.begin() + static_cast<long>(sos + 100));
    auto m = readBytes(cut);
    ASSERT_TRUE(m);
    EXPECT_EQ(rawValue(m, "tiff:Make"), "Canon");
    EXPECT_EQ(m->size(), Vec2i(320, 240));
}

// Damaged metadata must never crash or throw: flip bytes all over the metadata segments.
TEST(MetadataReader, DamagedSegmentsNeverCrash) {
    Bytes good = withMetadata(cameraJpeg(), [](Exiv2::Image& image) {
        image.xmpData()["Xmp.dc.title"] = "lang=x-default T";
        image.iptcData()["Iptc.Application2.City"] = "Oslo";
        Bytes thumb = makeJpeg(8, 8);
        Exiv2::ExifThumb(image.exifData()).setJpegThumbnail(thumb.data(), thumb.size());
    });
    size_t metadataEnd = 0;
    for (size_t i = 2; i + 1 < good.size(); ++i)
        if (good[i] == 0xFF && good[i + 1] == 0xDB) {  // first quantisation table
            metadataEnd = i;
            break;
        }
    ASSERT_GT(metadataEnd, 100u);
    std::mt19937 random(1234);
    LogCapture quiet;
    int readable = 0;
    for (int round = 0; round < 300; ++round) {
        Bytes bad = good;
        for (int k = 0; k < 1 + round % 8; ++k)
            bad[2 + random() % (metadataEnd - 2)] = static_cast<uint8_t>(random());
        if (auto m = readBytes(bad)) {
            ++readable;
            if (m->thumbLocation()) {
                ASSERT_LT(static_cast<size_t>(m->thumbLocation()) + 1, bad.size());
                EXPECT_EQ(bad[m->thumbLocation()], 0xFF);
            }
        }
    }
    EXPECT_GT(readable, 0);  // most single flips leave a readable file
}

TEST(MetadataReaderThreads, ConcurrentReadsGiveTheSameMaps) {
    Bytes a = withMetadata(cameraJpeg(), [](Exiv2::Image& image) {
        image.xmpData()["Xmp.dc.title"] = "lang=x-default A";
        image.xmpData()["Xmp.xmp.Rating"] = "2";
    });
    Bytes b = withMetadata(makeJpeg(20, 10), [](Exiv2::Image& image) {
        image.xmpData()["Xmp.dc.creator"] = "B";
        image.iptcData()["Iptc.Application2.City"] = "Rome";
    });
    auto expectA = readBytes(a);
    auto expectB = readBytes(b);
    ASSERT_TRUE(expectA && expectB);
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i) {
                bool useA = (t + i) % 2 == 0;
                auto m = readBytes(useA ? a : b);
                if (!m || m->rawMap() != (useA ? expectA : expectB)->rawMap()) ++mismatches;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace qor::imageio
