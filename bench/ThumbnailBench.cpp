// Thumbnails of picture files written as JPEG files, as a thumbnail command line tool writes
// them, so that bench/run_thumbnail_bench.sh can time it beside another tool on the same files.
//
// Usage: qor_bench_thumbnail SIZE OUTDIR FILE...
// Writes OUTDIR/<name of FILE without its extension>.jpg at quality 90 for each FILE, one after
// the other on the main thread. Exits with 1 when any file gives no thumbnail or cannot be
// written.

#include <cstdio>
#include <cstdlib>
#include <string>

#include "imagecache/thumbnails/ThumbnailMaker.h"
#include "imageio/ImageIO.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s SIZE OUTDIR FILE...\n", argv[0]);
        return 2;
    }
    const int size = std::atoi(argv[1]);
    const std::string folder = argv[2];
    int failures = 0;
    for (int i = 3; i < argc; ++i) {
        const std::string path = argv[i];
        const qor::imageio::ImagePtr image = qor::imagecache::makeThumbnail(path, size);
        const size_t slash = path.find_last_of('/');
        std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
        name = name.substr(0, name.find_last_of('.'));
        if (!image ||
            !qor::imageio::saveJpeg(qor::FastString<char>(folder + "/" + name + ".jpg"), image, 90))
            ++failures;
    }
    return failures == 0 ? 0 : 1;
}
