#pragma once
// EventBag: the container bag of one event (a trip, a day): a folder in the library that holds the
// event's picture files and its ".bag" file. It is the only folder bag that persists.
//
// Besides the images it keeps a description, a master image (the picture that stands for the
// event, with an offset the application uses to frame it) and the place of the event. These
// settings are stored in the `settings` element of the .bag file, in this order:
//   <master_image name="relative/path.jpg" offset="12"/>   name only when a master is set
//   <event_place name=".." country=".." lon=".." lat=".." isCountry="1"/>   only a valid place
//   <description text=".."/>
//
// Thread contract: that of Bag (setters on a mutable copy, queries on any snapshot).

#include <string>

#include "mediadb/bags/ContainerBag.h"

namespace qor::mediadb {

class EventBag : public ContainerBag {
public:
    // Where an event took place: a town or spot with coordinates, or a whole country.
    struct EventPlace {
        std::string name;
        std::string country;
        double lon = 0.0;
        double lat = 0.0;
        bool isCountry = false;
        bool valid = false;

        bool operator==(const EventPlace&) const = default;
    };

    static std::string bagTypeStatic() { return "event"; }

    EventBag() = default;

    std::string bagType() const override { return bagTypeStatic(); }
    bool isFolder() const override { return true; }
    Bag* mutableCopy() const override { return new EventBag(*this); }

    void setDescription(const std::string& description) { _description = description; }
    const std::string& description() const { return _description; }
    // The image must be in the bag (assertion otherwise; the master stays). Invalid clears it.
    void setMasterImage(ResourceID id);
    ResourceID getMasterImage() const { return _masterImage; }
    void setMasterImageOffset(int offset) { _masterImageOffset = offset; }
    int getMasterImageOffset() const { return _masterImageOffset; }
    void setEventPlace(const EventPlace& place) { _eventPlace = place; }
    const EventPlace& getEventPlace() const { return _eventPlace; }

    // When the master image goes, its original (when it has one other than itself) becomes the
    // master; otherwise there is none and the offset returns to 0.
    void removeImage(ResourceID id) override;

    void settingsToXml(NodeIterator& settings) const override;
    // Reads what settingsToXml wrote. A place that cannot be read is logged ("Invalid event
    // place") and dropped, the other settings stay; any other failure is logged as "Broken event
    // file: %*".
    void settingsFromXml(const NodeIterator& settings) override;

protected:
    EventBag(const EventBag&) = default;

private:
    void readEventPlace(const NodeIterator& node);

    std::string _description;
    ResourceID _masterImage;
    int _masterImageOffset = 0;
    EventPlace _eventPlace;
};

}  // namespace qor::mediadb
