#pragma once
// What the library commands share: their options (--library DIR, --json), the one line of a
// failure, and the Session that opens a library folder, loads it and shuts it down (which writes
// what changed).

#include <memory>
#include <string>
#include <vector>

#include "base/Log.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "mediadb/bags/Bag.h"
#include "mediadb/library/ImageManager.h"
#include "mediadb/library/Library.h"
#include "mediadb/library/LibraryCacheConnector.h"
#include "util/SharedPtr.h"

namespace qor::tool {

// `path` made absolute against the working folder and normalised.
std::string absolute(const std::string& path);

struct LibraryOptions {
    std::string command;  // "ls", "bag create" ... for messages
    std::string dir;
    std::vector<std::string> args;  // positional
    bool json = false;
};

// Prints "qor: <command>: <message>" on standard error and returns 1.
int failure(const LibraryOptions& o, const std::string& message);

// The library folder of --library DIR, or else $QOR_LIBRARY; a usage error (exit status 2, after
// one line) when neither names one, 0 otherwise.
int resolveLibraryDir(LibraryOptions& o);

// The library with its image manager and the metadata cache (in the library's .cache folder). The
// members go in reverse order: the library shuts down (and saves) before the caches close.
struct Session {
    mediadb::ImageManager images;
    imagecache::FileMetadataCache files{&images};
    std::unique_ptr<imagecache::MetadataCacheRDB> cache;
    std::unique_ptr<mediadb::LibraryCacheConnector> connector;
    std::unique_ptr<mediadb::Library> library;

    // Opens and loads the library in o.dir; false after one line on standard error. `create`
    // makes the folder (init); otherwise it must hold a library.
    bool open(const LibraryOptions& o, bool create);

    // The bag named `name`, or else the bag whose folder or file is `name` (relative to the
    // library: events of one name get the folders Trip, Trip_1 ...). Null after one line on
    // standard error when there is none, or when several bags have the name.
    SharedPtr<const mediadb::Bag> findBag(const LibraryOptions& o, const std::string& name) const;

    ~Session();
};

// The last warning or error logged while `log` recorded (assertions left out), or `fallback`: the
// reason of a failure that the library only logs. A capture records every line, so it is made
// around the one call whose failure it explains, not for a whole command.
std::string lastProblem(const LogCapture& log, const std::string& fallback);

// The index file of a library folder.
constexpr const char* kIndexName = "library.xml";

}  // namespace qor::tool
