#pragma once
// The thumbnail chain of the tool's commands: the disk cache in CACHEDIR/thumbnails (when opened)
// in front of the picture files, over a ResourceManager of the files' paths, and optionally a
// memory link in front of both. Every link is thread-safe; the commands ask them from several
// threads at once.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "base/cache/DynamicHDCache.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ImageCacheDHD.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/ImageCacheSource.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"

namespace qor::tool {

struct ThumbChain {
    static constexpr uint64_t kByteLimit = uint64_t(1) << 30;

    ResourceManager manager;
    imagecache::ImageCacheSource source{&manager};
    std::unique_ptr<DynamicHDCache> store;
    std::unique_ptr<imagecache::ImageCacheDHD> disk;
    std::unique_ptr<imagecache::ImageCacheRAM> memory;

    // Opens the disk cache; false after one line on standard error.
    bool open(const std::string& command, const std::string& dir) {
        try {
            store = std::make_unique<DynamicHDCache>(filesystem::pathJoin(dir, "thumbnails"),
                                                     kByteLimit);
            disk = std::make_unique<imagecache::ImageCacheDHD>(&source, store.get());
            return true;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "qor: %s: cannot open the cache in '%s': %s\n", command.c_str(),
                         dir.c_str(), e.what());
        }
        return false;
    }
    // Puts a memory link of `byteLimit` bytes in front (of the disk link when open).
    void addMemory(uint64_t byteLimit) {
        memory = std::make_unique<imagecache::ImageCacheRAM>(front(), byteLimit);
    }
    // The first link: memory, disk or the files themselves.
    imagecache::ImageCache* front() {
        if (memory) return memory.get();
        if (disk) return disk.get();
        return &source;
    }
    std::vector<ResourceID> add(const std::vector<std::string>& paths) {
        std::vector<ResourceName> names;
        for (const std::string& path : paths) names.push_back(manager.nameFromLocalPath(path));
        return manager.add(names, ResourceManager::AddOrFind);
    }
    // Why a file gave no thumbnail, in makeThumbnail's words without the file's name (it tries
    // again at a small size: only for the files that failed).
    static std::string reasonFor(const std::string& file) {
        std::string line;
        if (imagecache::makeThumbnail(file, 16, &line)) return "cannot be read";
        return reasonIn(line, file);
    }
    // makeThumbnail's error line without the file's name.
    static std::string reasonIn(const std::string& line, const std::string& file) {
        const std::string named = "'" + file + "': ";
        const size_t at = line.find(named);
        return at == std::string::npos ? line : line.substr(at + named.size());
    }
};

}  // namespace qor::tool
