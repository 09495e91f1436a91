#pragma once
// Helpers of the metadata cache tests: a camera-like JPEG written into a folder, and a next cache
// held in memory that counts what it is asked.

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "TestJpeg.h"
#include "base/Exception.h"
#include "base/resource/ResourceManager.h"
#include "imageio/MetadataCache.h"

namespace qor::imagecache::testing {

using imageio::Metadata;
using imageio::MetadataField;
using imageio::Vec2i;
using imageio::Vec3d;
using imageio::testing::Bytes;
using imageio::testing::TempFolder;
using F = MetadataField;

// A JPEG of 64 x 48 with what a camera writes: maker, model, exposure, time, GPS, orientation,
// an XMP rating and title. `fnumber` tells files apart.
inline Bytes cameraJpeg(double fnumber = 2.8, int orientation = 1) {
    return imageio::testing::withMetadata(
        imageio::testing::makeJpeg(64, 48), [&](Exiv2::Image& image) {
            Exiv2::ExifData& exif = image.exifData();
            exif["Exif.Image.Make"] = "Canon";
            exif["Exif.Image.Model"] = "EOS 5D";
            exif["Exif.Image.Orientation"] = uint16_t(orientation);
            exif["Exif.Photo.FNumber"] = Exiv2::URational(uint32_t(fnumber * 10 + 0.5), 10);
            exif["Exif.Photo.ExposureTime"] = Exiv2::URational(1, 250);
            exif["Exif.Photo.ISOSpeedRatings"] = uint16_t(200);
            exif["Exif.Photo.DateTimeOriginal"] = "2019:07:14 10:20:30";
            exif["Exif.GPSInfo.GPSLatitudeRef"] = "S";
            exif["Exif.GPSInfo.GPSLatitude"] = "33/1 30/1 0/1";
            image.xmpData()["Xmp.xmp.Rating"] = "4";
            image.xmpData()["Xmp.dc.title"] = "lang=x-default Harbour";
        });
}

// Recognisable values of item `i` for most record fields, and a string.
inline SharedPtr<Metadata> itemValues(int i) {
    SharedPtr<Metadata> m = std::make_shared<Metadata>();
    m->set(F::Imagesize, Vec2i(100 + i, 50 + i));
    m->set(F::FNumber, 1.4 + 0.1 * i);
    m->set(F::ISOSensitivity, 100 + i);
    m->set(F::OriginalTime, Timestamp::fromFields(2020, 1, 1 + i % 28, 12));
    m->set(F::GPSCoordinates, Vec3d(9.5 + i, 53.25, 12));
    m->set(F::MD5, Digest::fromBytes("0123456789abcdef"));
    m->set(F::ItemState, 0);
    m->set(F::ItemType, 1);
    m->set(F::MakeString, FastString<char>("Maker " + std::to_string(i)));
    return m;
}

// A next cache in memory: loadMetadata gives a copy of what `items` holds for the id, get reads
// the same. Counts its calls; `fail` makes loadMetadata throw.
class MemoryCache : public imageio::MetadataCache {
public:
    explicit MemoryCache(ResourceManager* manager) : _manager(manager) {}

    // Replaces the item's metadata.
    void put(ResourceID id, SharedPtr<Metadata> metadata) {
        std::lock_guard<std::mutex> lock(_mutex);
        _items[id.index()] = std::move(metadata);
    }

    std::atomic<int> loads{0};
    std::atomic<int> gets{0};
    std::atomic<int> sets{0};
    std::atomic<bool> fail{false};

    bool get(ResourceID id, MetadataField f, int& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Vec2i& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, double& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Vec3d& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, FastString<char>& o) override {
        return fetch(id, f, o);
    }
    bool get(ResourceID id, MetadataField f, Timestamp& o) override { return fetch(id, f, o); }
    bool get(ResourceID id, MetadataField f, Digest& o) override { return fetch(id, f, o); }
    void set(ResourceID, MetadataField, int) override { ++sets; }
    void set(ResourceID, MetadataField, const Vec2i&) override { ++sets; }
    void set(ResourceID, MetadataField, double) override { ++sets; }
    void set(ResourceID, MetadataField, const Vec3d&) override { ++sets; }
    void set(ResourceID, MetadataField, const FastString<char>&) override { ++sets; }
    void set(ResourceID, MetadataField, const Timestamp&) override { ++sets; }
    void set(ResourceID, MetadataField, const Digest&) override { ++sets; }
    bool isCached(ResourceID) override { return false; }
    SharedPtr<const Metadata> loadMetadata(ResourceID id) override {
        ++loads;
        if (fail) throw Exception("the next cache failed on purpose");
        std::lock_guard<std::mutex> lock(_mutex);
        auto it = _items.find(id.index());
        return it == _items.end() ? nullptr : it->second->clone();
    }
    void check(ResourceID) override {}
    void copyImage(ResourceID, ResourceID) override {}
    ResourceManager* resourceManager() override { return _manager; }

private:
    template <class T>
    bool fetch(ResourceID id, MetadataField f, T& out) {
        ++gets;
        std::lock_guard<std::mutex> lock(_mutex);
        auto it = _items.find(id.index());
        return it != _items.end() && it->second->get(f, out);
    }

    ResourceManager* _manager;
    std::mutex _mutex;
    std::map<int32_t, SharedPtr<Metadata>> _items;
};

}  // namespace qor::imagecache::testing
