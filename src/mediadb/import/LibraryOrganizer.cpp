#include "mediadb/import/LibraryOrganizer.h"

#include <cstdio>
#include <ctime>
#include <exception>

#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/library/ILibraryCacheConnector.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryExceptions.h"

namespace qor::mediadb {

std::string LibraryOrganizer::dayName(int year, int month, int day) {
    char text[32];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", year, month, day);
    return text;
}

ResourceID LibraryOrganizer::eventBagFor(ResourceID image, const std::string& path) {
    time::Timestamp when;
    if (ILibraryCacheConnector* connector = _library->cacheConnector()) {
        try {
            when = connector->captureTime(image);
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "No capture time of %*: %*", path, e.what());
        }
    }
    struct tm fields {};
    if (!when.isNull()) {
        const time_t seconds = when.toTime_t();
        gmtime_r(&seconds, &fields);  // the wall clock's fields, stored as if UTC
    } else {
        const time::Timestamp written = filesystem::getUrlInfo(path).lastWriteTime;
        const time_t seconds = written.isNull() ? ::time(nullptr) : written.toTime_t();
        localtime_r(&seconds, &fields);
    }
    return eventBagForDay(fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday);
}

ResourceID LibraryOrganizer::eventBagForDay(int year, int month, int day) {
    const std::string name = dayName(year, month, day);
    if (auto it = _days.find(name); it != _days.end() && _library->bag(it->second))
        return it->second;

    const std::string folder = filesystem::normalizePathUnix(filesystem::pathJoin(
        filesystem::pathJoin(filesystem::pathJoin(_library->path(), _library->initialBagPath()),
                             std::to_string(year)),
        name));
    ResourceID id = _library->bagIdFromLocalPath(folder);
    if (id.isValid()) {
        SharedPtr<const Bag> bag = _library->bag(id);
        if (!bag || bag->bagType() != EventBag::bagTypeStatic())
            throw LibraryException("Not an event bag: " + folder);
    } else {
        try {
            filesystem::createDirectoryFromUrl(folder);
        } catch (const std::exception& e) {
            throw LibraryException(std::string("Failed to create the folder of an event: ") +
                                   e.what());
        }
        id = _library->createBag(EventBag::bagTypeStatic(), name, folder);
        QOR_LOG(LogInfo, "Created the event %* for an import", name);
    }
    _days[name] = id;
    return id;
}

}  // namespace qor::mediadb
