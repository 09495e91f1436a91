#include "mediadb/bags/EventBag.h"

#include <exception>
#include <stdexcept>

#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/xml/XmlDocument.h"
#include "mediadb/library/Library.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

namespace {

// The path of `path` relative to the folder `folder`; "" when it does not lie below it.
std::string relativeTo(const std::string& path, const std::string& folder) {
    if (folder.empty() || path.size() <= folder.size() + 1) return {};
    if (path.compare(0, folder.size(), folder) != 0 || path[folder.size()] != '/') return {};
    return path.substr(folder.size() + 1);
}

// A double attribute of the event place; text that is no number is an error of the place.
double placeCoordinate(const NodeIterator& node, std::string_view name) {
    double value = 0.0;
    if (!text::tryFrstrtod(node.attribute(name), value))
        throw std::invalid_argument("bad " + std::string(name) + " of the event place: '" +
                                    std::string(node.attribute(name)) + "'");
    return value;
}

}  // namespace

void EventBag::setMasterImage(ResourceID id) {
    if (id.isValid() && !containsImage(id)) {
        QOR_ASSERT_TEXT(false, "containsImage(id)");
        return;
    }
    _masterImage = id;
}

void EventBag::removeImage(ResourceID id) {
    if (_masterImage.isValid() && id == _masterImage) {
        ResourceID original = getOriginalItem(id);
        if (original.isValid() && !(original == id)) {
            _masterImage = original;
        } else {
            _masterImage = InvalidResourceID;
            _masterImageOffset = 0;
        }
    }
    ContainerBag::removeImage(id);
}

void EventBag::settingsToXml(NodeIterator& settings) const {
    QOR_ASSERT_TEXT(!_masterImage.isValid() || containsImage(_masterImage),
                    "!_masterImage.valid() || containsImage(_masterImage)");
    NodeIterator master = settings.appendChild("master_image");
    if (_masterImage.isValid()) {
        std::string relative =
            relativeTo(getImageResourceName(_masterImage).localPath(), localPath());
        if (!relative.empty()) master.appendAttribute("name", relative);
    }
    master.appendAttribute("offset", _masterImageOffset);
    if (_eventPlace.valid) {
        settings.appendChild("event_place")
            .appendAttribute("name", _eventPlace.name)
            .appendAttribute("country", _eventPlace.country)
            .appendAttribute("lon", _eventPlace.lon)
            .appendAttribute("lat", _eventPlace.lat)
            .appendAttribute("isCountry", _eventPlace.isCountry ? "1" : "0");
    }
    settings.appendChild("description").appendAttribute("text", _description);
}

void EventBag::readEventPlace(const NodeIterator& node) {
    try {
        EventPlace place;
        place.isCountry = node.attribute("isCountry") != "0";
        place.name = node.attribute("name");
        place.country = node.attribute("country");
        place.lat = placeCoordinate(node, "lat");
        place.lon = placeCoordinate(node, "lon");
        place.valid = true;
        _eventPlace = place;
    } catch (const std::exception&) {
        QOR_LOG(LogWarning, "Invalid event place");
    }
}

void EventBag::settingsFromXml(const NodeIterator& settings) {
    try {
        for (NodeIterator child : settings.children()) {
            std::string_view element = child.name();
            if (element == "master_image") {
                std::string_view relative = child.attribute("name");
                if (!relative.empty()) {
                    std::string path =
                        filesystem::normalizePathUnix(filesystem::pathJoin(localPath(), relative));
                    if (containsImage(path) && library())
                        _masterImage = library()->imageManager()->findLocalPath(path);
                }
                _masterImageOffset = text::strtoi(child.attribute("offset"), 0);
            } else if (element == "description") {
                _description = child.attribute("text");
            } else if (element == "event_place") {
                readEventPlace(child);
            }
        }
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "Broken event file: %*", e.what());
    }
}

}  // namespace qor::mediadb
