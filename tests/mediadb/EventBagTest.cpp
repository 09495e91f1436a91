// EventBag: the master image when images go, and the event settings in the .bag file.

#include <gtest/gtest.h>

#include <string>

#include "BagTestSupport.h"
#include "base/Log.h"
#include "mediadb/bags/EventBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;

class EventBagTest : public ::testing::Test {
protected:
    void SetUp() override {
        event = f.createBag("event", "Summer");
        a = f.addPicture(event, "a.jpg");
        b = f.addPicture(event, "b.jpg");
        c = f.addPicture(event, "sub/c.jpg");
    }

    BagLibrary f;
    ResourceID event, a, b, c;
};

TEST_F(EventBagTest, RemovedMasterGivesWayToItsOriginal) {
    f.modify<EventBag>(event, [&](EventBag& e) {
        e.setEditedItem(a, b);
        e.setMasterImage(b);
        e.setMasterImageOffset(40);
    });
    f.modify<EventBag>(event, [&](EventBag& e) { e.removeImage(b); });
    EXPECT_EQ(f.bag<EventBag>(event)->getMasterImage(), a);
    EXPECT_EQ(f.bag<EventBag>(event)->getMasterImageOffset(), 40);
}

TEST_F(EventBagTest, RemovedMasterWithoutAnotherOriginalLeavesNoneAndOffsetZero) {
    f.modify<EventBag>(event, [&](EventBag& e) {
        e.setEditedItem(a, b);
        e.setMasterImage(a);  // an original: its own original is itself
        e.setMasterImageOffset(40);
    });
    f.modify<EventBag>(event, [&](EventBag& e) { e.removeImage(a); });
    EXPECT_FALSE(f.bag<EventBag>(event)->getMasterImage().isValid());
    EXPECT_EQ(f.bag<EventBag>(event)->getMasterImageOffset(), 0);
}

TEST_F(EventBagTest, SettingsSurviveARestart) {
    EventBag::EventPlace place;
    place.name = "Ålesund \"harbour\" <north> & more";
    place.country = "Norway";
    place.lon = 6.1549;
    place.lat = 62.4722;
    place.valid = true;
    f.modify<EventBag>(event, [&](EventBag& e) {
        e.setDescription("Fjords, ferries & rain\nsecond line");
        e.setMasterImage(c);
        e.setMasterImageOffset(-12);
        e.setEventPlace(place);
    });
    f.reopen();
    event = f.lib().bags("event").front();
    auto e = f.bag<EventBag>(event);
    EXPECT_EQ(e->description(), "Fjords, ferries & rain\nsecond line");
    EXPECT_EQ(e->getMasterImage(), f.imageId(event, "sub/c.jpg"));
    EXPECT_EQ(e->getMasterImageOffset(), -12);
    EXPECT_EQ(e->getEventPlace(), place);
}

TEST_F(EventBagTest, ACountryWithoutMasterIsWrittenInTheFileOrder) {
    EventBag::EventPlace place;
    place.name = "Iceland";
    place.country = "Iceland";
    place.isCountry = true;
    place.valid = true;
    f.modify<EventBag>(event, [&](EventBag& e) {
        e.setEventPlace(place);
        e.setDescription("d");
    });
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.load(f.savedBagFile(event)));
    NodeIterator settings = doc.root().child("settings");
    std::string order;
    for (NodeIterator child : settings.children()) order += std::string(child.name()) + " ";
    EXPECT_EQ(order, "master_image event_place description ");
    EXPECT_FALSE(settings.child("master_image").hasAttribute("name"));
    EXPECT_EQ(settings.child("master_image").attribute("offset"), "0");
    EXPECT_EQ(settings.child("event_place").attribute("isCountry"), "1");

    f.reopen();
    auto e = f.bag<EventBag>(f.lib().bags("event").front());
    EXPECT_EQ(e->getEventPlace(), place);
    EXPECT_FALSE(e->getMasterImage().isValid());
}

TEST_F(EventBagTest, AnUnreadablePlaceIsDroppedAndTheOtherSettingsStay) {
    f.modify<EventBag>(event, [&](EventBag& e) {
        e.setDescription("kept");
        e.setMasterImage(a);
    });
    std::string file = f.savedBagFile(event);
    f.lib().shutdown();
    std::string xml = testing::readFile(file);
    size_t at = xml.find("<description");
    ASSERT_NE(at, std::string::npos);
    xml.insert(at,
               "<event_place name=\"x\" country=\"y\" lon=\"east\" lat=\"1\" isCountry=\"0\"/>");
    testing::writeFile(file, xml);

    LogCapture log;
    f.reopen();
    auto e = f.bag<EventBag>(f.lib().bags("event").front());
    EXPECT_EQ(log.count("Invalid event place"), 1u);
    EXPECT_FALSE(e->getEventPlace().valid);
    EXPECT_EQ(e->description(), "kept");
    EXPECT_EQ(e->getMasterImage(), f.imageId(e->id(), "a.jpg"));
}

TEST_F(EventBagTest, AMasterFromOutsideTheBagIsRefused) {
    ResourceID other = f.createBag("event", "Winter");
    ResourceID foreign = f.addPicture(other, "x.jpg");
    LogCapture log;
    f.modify<EventBag>(event, [&](EventBag& e) {
        e.setMasterImage(a);
        e.setMasterImage(foreign);
    });
    EXPECT_EQ(log.assertions(), 1u);
    EXPECT_EQ(f.bag<EventBag>(event)->getMasterImage(), a);
}

}  // namespace
}  // namespace qor::mediadb
