#pragma once
// LibraryOrganizer: where an import without a destination bag puts a picture: into the event bag
// of the day the picture was taken, named "YYYY-MM-DD" and lying in a folder of its year below the
// library's initial bag path ("<library>/<initialBagPath><YYYY>/<YYYY-MM-DD>/"). The bag is made
// on first use; a folder of that name that a bag does not hold yet is taken over.
//
// The day is the capture time's (EXIF times carry no zone: their fields are the camera's wall
// clock) or, for a picture without one, the local day of its file's last write time.
//
// Thread contract: one organizer is used by one thread at a time (the import's worker thread).
// It calls the library and the cache connector with no lock of its own.

#include <map>
#include <string>

#include "base/ResourceID.h"
#include "base/time/Timestamp.h"

namespace qor::mediadb {

class Library;

class LibraryOrganizer {
public:
    // `library` is not owned and must outlive the organizer.
    explicit LibraryOrganizer(Library* library) : _library(library) {}

    // The event bag of the picture `image` (an image of the library's ImageManager, whose file is
    // `path`), made when missing. Throws LibraryException when it cannot be made.
    ResourceID eventBagFor(ResourceID image, const std::string& path);
    // The event bag of the day `year`-`month`-`day`, made when missing. Throws LibraryException.
    ResourceID eventBagForDay(int year, int month, int day);

    // "YYYY-MM-DD".
    static std::string dayName(int year, int month, int day);

private:
    Library* const _library;                  // not owned
    std::map<std::string, ResourceID> _days;  // day name -> its bag, as found or made
};

}  // namespace qor::mediadb
