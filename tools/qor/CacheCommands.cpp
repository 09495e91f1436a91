// The cache commands, on the persistent metadata cache (MetadataCacheRDB in front of the file
// reader, in CACHEDIR/metadata):
//   qor cache build DIR... --cache CACHEDIR
//                               caches every picture below the folders, several files at once,
//                               with a progress bar; Ctrl-C stops after the files under way, and
//                               what was read is written
//   qor cache get FILE... --cache CACHEDIR [--field NAME]... [--json]
//                               the fields of each file from the cache; a file is read only when
//                               its record is missing or older than the file (strings, which the
//                               cache does not keep, always come from the file)
//   qor cache check --cache CACHEDIR
//                               compares every record with its file and prints what differs
//
// The cache names items by their paths: the tool makes a ResourceManager over the files' paths
// (check over the records' names), and the cache writes the records of the files it was given.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "Commands.h"
#include "ItemText.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/ItemState.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imageio/ImageIO.h"

namespace qor::tool {

namespace {

using imagecache::FileMetadataCache;
using imagecache::MetadataCacheRDB;
using imageio::MetadataField;
using imageio::MetadataValue;

volatile std::sig_atomic_t g_cacheInterrupted = 0;
extern "C" void onCacheInterrupt(int) { g_cacheInterrupted = 1; }

struct CacheOptions {
    std::string action;  // build, get or check
    std::string cacheDir;
    std::vector<std::string> paths;  // folders for build, files for get
    std::vector<MetadataField> fields;
    bool json = false;
};

// The field named as the metadata model spells it; false for any other text.
bool parseField(const std::string& name, MetadataField& out) {
    for (int number = 0; number < imageio::MetadataFieldEnd; ++number) {
        const auto field = static_cast<MetadataField>(number);
        if (field != MetadataField::RecordConsistent && imageio::fieldName(field) == name) {
            out = field;
            return true;
        }
    }
    return false;
}

// Fills `o`; returns the exit status of a usage error, or 0.
int parseCacheOptions(const std::vector<std::string>& args, CacheOptions& o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--cache" || arg == "--field") {
            if (i + 1 >= args.size()) return usageError("cache: " + arg + " needs a value");
            const std::string& value = args[++i];
            if (arg == "--cache") {
                o.cacheDir = value;
            } else {
                MetadataField field;
                if (!parseField(value, field))
                    return usageError("cache: unknown field '" + value +
                                      "' (names as in 'qor info': FNumber, OriginalTime ...)");
                o.fields.push_back(field);
            }
        } else if (arg == "--json") {
            o.json = true;
        } else if (o.action.empty()) {
            o.action = arg;
        } else {
            o.paths.push_back(arg);
        }
    }
    if (o.action != "build" && o.action != "get" && o.action != "check")
        return usageError(o.action.empty()
                              ? "cache: give build, get or check"
                              : "cache: unknown action '" + o.action + "' (build, get or check)");
    if (o.cacheDir.empty())
        return usageError("cache " + o.action + ": --cache CACHEDIR is required");
    if (o.action != "get" && (o.json || !o.fields.empty()))
        return usageError("cache " + o.action + ": --field and --json are for 'cache get'");
    if (o.action == "check" && !o.paths.empty())
        return usageError("cache check: takes no files, only --cache CACHEDIR");
    if (o.action != "check" && o.paths.empty())
        return usageError(o.action == "build" ? "cache build: give one or more folders"
                                              : "cache get: give one or more files");
    return 0;
}

// The chain the commands use: the cache in front of the file reader, over one manager.
struct Chain {
    ResourceManager manager;
    FileMetadataCache files{&manager};
    std::unique_ptr<MetadataCacheRDB> cache;

    // Opens the cache; false after one line on standard error.
    bool open(const std::string& command, const std::string& dir) {
        try {
            cache = std::make_unique<MetadataCacheRDB>(&files, FastString<char>(dir), nullptr, 0);
            return true;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "qor: %s: cannot open the cache in '%s': %s\n", command.c_str(),
                         dir.c_str(), e.what());
        }
        return false;
    }
    // Only the files the tool was given are written.
    void persist(const std::vector<ResourceID>& ids) {
        auto given = std::make_shared<std::unordered_set<int32_t>>();
        for (ResourceID id : ids) given->insert(id.index());
        cache->setPersitentItemCallback(
            [given](ResourceID id) { return given->count(id.index()) != 0; });
    }
    std::vector<ResourceID> add(const std::vector<std::string>& paths) {
        std::vector<ResourceName> names;
        for (const std::string& path : paths) names.push_back(manager.nameFromLocalPath(path));
        return manager.add(names, ResourceManager::AddOrFind);
    }
};

// Whether the cache has the item as a file it could not read.
bool unreadableItem(MetadataCacheRDB& cache, ResourceID id) {
    int state = -1;
    return !cache.get(id, MetadataField::ItemState, state) ||
           state == imagecache::ItemStateUnreadable;
}

// ---- build ----

int runBuild(const CacheOptions& o) {
    // Ctrl-C from the start: what comes before the reading is quick and ends in the same summary.
    g_cacheInterrupted = 0;
    void (*previous)(int) = std::signal(SIGINT, onCacheInterrupt);
    int status = 0;
    std::vector<std::string> files;
    for (const std::string& folder : o.paths) {
        if (!filesystem::isDirectory(folder)) {
            status = reportBad("cache build", folder, "not a folder");
            continue;
        }
        try {
            collectPictures(folder, files);
        } catch (const std::exception& e) {
            status = reportBad("cache build", folder, e.what());
        }
    }
    Chain chain;
    if (!chain.open("cache build", o.cacheDir)) {
        std::signal(SIGINT, previous);
        return 1;
    }
    const std::vector<ResourceID> ids = chain.add(files);
    chain.persist(ids);

    // Several files at once: the cache reads files with its lock released.
    const size_t total = ids.size();
    const auto start = std::chrono::steady_clock::now();
    const size_t done = runOnThreads(
        total, [&](size_t i) { chain.cache->cacheImage(ids[i]); }, g_cacheInterrupted, "files");
    chain.cache->shutdown();  // writes what was read, also after Ctrl-C
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::signal(SIGINT, previous);
    size_t bad = 0;
    for (size_t i = 0; i < done; ++i) {
        if (!unreadableItem(*chain.cache, ids[i])) continue;
        ++bad;
        status = reportBad("cache build", files[i], "cannot be read");
    }
    if (g_cacheInterrupted) {
        std::fprintf(stderr, "qor: cache build: interrupted after %zu of %zu files\n", done, total);
        return 130;
    }
    std::printf("%zu files in %.2f s, %.0f files per second%s\n", total, seconds,
                seconds > 0 ? double(total) / seconds : 0.0,
                bad ? (", " + std::to_string(bad) + " unreadable").c_str() : "");
    return status;
}

// ---- get ----

// The value of a field through the cache, empty when it has none.
MetadataValue cachedValue(MetadataCacheRDB& cache, ResourceID id, MetadataField field) {
    return typedValue(field, [&](auto& value) { return cache.get(id, field, value); });
}

int runGet(const CacheOptions& o) {
    // Without --field: every field the cache keeps.
    std::vector<MetadataField> fields = o.fields;
    const bool chosen = !fields.empty();
    if (!chosen) {
        for (int number = 0; number < imageio::MetadataFieldEnd; ++number)
            if (MetadataCacheRDB::isRecordField(static_cast<MetadataField>(number)))
                fields.push_back(static_cast<MetadataField>(number));
    }
    Chain chain;
    if (!chain.open("cache get", o.cacheDir)) return 1;
    std::vector<std::string> problems(o.paths.size());
    std::vector<std::string> readablePaths;
    for (size_t i = 0; i < o.paths.size(); ++i)
        if ((problems[i] = unreadable(o.paths[i])).empty()) readablePaths.push_back(o.paths[i]);
    const std::vector<ResourceID> ids = chain.add(readablePaths);
    chain.persist(ids);

    int status = 0;
    Json document = Json::array();
    for (size_t i = 0, item = 0; i < o.paths.size(); ++i) {
        const std::string& file = o.paths[i];
        Json entry;
        entry["file"] = file;
        if (problems[i].empty()) {
            const ResourceID id = ids[item++];
            chain.cache->cacheImage(id);  // reads the file only when its record is missing or stale
            if (unreadableItem(*chain.cache, id)) problems[i] = "cannot be read";
            // Fields without a column (strings, SubSecTime ...) come from the file.
            auto value = [&](MetadataField field) {
                return MetadataCacheRDB::isRecordField(field) ||
                               imageio::fieldDataType(field) == imageio::MdtString
                           ? cachedValue(*chain.cache, id, field)
                           : MetadataValue();
            };
            if (problems[i].empty()) {
                Json& out = entry["fields"] = Json::object();
                if (!o.json) std::printf("%s\n", file.c_str());
                for (MetadataField field : fields) {
                    const MetadataValue v = value(field);
                    if (v.empty() && !chosen) continue;
                    const std::string name = imageio::fieldName(field).str();
                    if (o.json)
                        out[name] = v.empty() ? Json() : jsonValue(v);
                    else
                        std::printf("  %-24s %s\n", name.c_str(),
                                    v.empty() ? "-" : readable(valueText(v)).c_str());
                }
            }
        }
        if (!problems[i].empty()) {
            status = reportBad("cache get", file, problems[i]);
            entry["error"] = problems[i];
        }
        if (o.json) document.push_back(entry);
    }
    chain.cache->shutdown();
    if (o.json)
        std::printf("%s\n", document.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
    return status;
}

// ---- check ----

int runCheck(const CacheOptions& o) {
    if (!filesystem::isFile(filesystem::pathJoin(o.cacheDir, MetadataCacheRDB::DatabaseName))) {
        std::fprintf(stderr, "qor: cache check: no cache in '%s'\n", o.cacheDir.c_str());
        return 1;
    }
    Chain chain;
    if (!chain.open("cache check", o.cacheDir)) return 1;
    std::vector<std::pair<std::string, ResourceID>> items;  // the records' items, by path
    for (ResourceID id : chain.manager.ids()) items.emplace_back(chain.manager.localPath(id), id);
    std::sort(items.begin(), items.end());
    const bool bar = progressBarWanted();
    size_t differ = 0;
    for (size_t i = 0; i < items.size(); ++i) {
        LogLevel level;
        FastString<char> text;
        if (!chain.cache->isCacheConsistent(items[i].second, level, text)) {
            if (bar) std::fprintf(stderr, "\r\033[K");
            std::printf("%s: %s\n", items[i].first.c_str(), text.c_str());
            ++differ;
        }
        if (bar) drawProgressBar(i + 1, items.size(), "records", i + 1 == items.size());
    }
    std::printf("%zu records, %zu differ from their files\n", items.size(), differ);
    return differ ? 1 : 0;
}

}  // namespace

int runCache(const std::vector<std::string>& args) {
    CacheOptions o;
    if (const int usage = parseCacheOptions(args, o)) return usage;
    imageio::initSupportedItemsList();
    if (o.action == "build") return runBuild(o);
    if (o.action == "get") return runGet(o);
    return runCheck(o);
}

}  // namespace qor::tool
