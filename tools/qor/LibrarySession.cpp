// The Session of the library commands: see LibrarySession.h.

#include "LibrarySession.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "Commands.h"
#include "base/filesystem/Path.h"
#include "mediadb/bags/StandardBagTypes.h"

namespace qor::tool {

namespace {
constexpr const char* kCacheFolder = ".cache";
}

std::string absolute(const std::string& path) {
    return filesystem::normalizePathUnix(std::filesystem::absolute(path).string());
}

int failure(const LibraryOptions& o, const std::string& message) {
    std::fprintf(stderr, "qor: %s: %s\n", o.command.c_str(), message.c_str());
    return 1;
}

int resolveLibraryDir(LibraryOptions& o) {
    if (o.dir.empty()) {
        const char* env = std::getenv("QOR_LIBRARY");
        if (env && *env) o.dir = env;
    }
    if (o.dir.empty()) return usageError(o.command + ": give --library DIR or set QOR_LIBRARY");
    return 0;
}

bool Session::open(const LibraryOptions& o, bool create) {
    const std::string dir = absolute(o.dir);
    const std::string index = dir + "/" + kIndexName;
    if (!create && !filesystem::exists(index)) {
        failure(o, "no library in '" + o.dir + "' (make one with 'qor library init')");
        return false;
    }
    try {
        cache = std::make_unique<imagecache::MetadataCacheRDB>(
            &files, FastString<char>(dir + "/" + kCacheFolder), nullptr, 0);
        connector = std::make_unique<mediadb::LibraryCacheConnector>(cache.get());
        library = std::make_unique<mediadb::Library>(&images, connector.get(), dir + "/");
        mediadb::registerStandardBagTypes(*library);
        library->load();
        return true;
    } catch (const std::exception& e) {
        failure(o, "cannot open the library in '" + o.dir + "': " + e.what());
    }
    return false;
}

SharedPtr<const mediadb::Bag> Session::findBag(const LibraryOptions& o,
                                               const std::string& name) const {
    std::vector<SharedPtr<const mediadb::Bag>> named;
    SharedPtr<const mediadb::Bag> placed;
    for (ResourceID id : library->bags()) {
        SharedPtr<const mediadb::Bag> bag = library->bag(id);
        if (!bag || !bag->persistent()) continue;
        if (bag->name() == name) named.push_back(bag);
        if (bag->getResourceName().persistentString() == name) placed = bag;
    }
    if (named.size() == 1) return named[0];
    if (named.size() > 1) {
        std::string folders;
        for (const auto& bag : named)
            folders += (folders.empty() ? "" : ", ") + bag->getResourceName().persistentString();
        failure(o,
                "several bags are named '" + name + "': name one by its place (" + folders + ")");
        return nullptr;
    }
    if (!placed) failure(o, "no bag named '" + name + "'");
    return placed;
}

Session::~Session() {
    if (library) library->shutdown();
    library.reset();
    connector.reset();
    if (cache) cache->shutdown();
}

std::string lastProblem(const LogCapture& log, const std::string& fallback) {
    const auto entries = log.entries();
    for (auto it = entries.rbegin(); it != entries.rend(); ++it)
        if (!it->assertion && it->level >= LogWarning) return it->text;
    return fallback;
}

}  // namespace qor::tool
