// The codec benchmarks, each beside a peer program on the same files in the same run:
//   Decode/*          a 24-megapixel JPEG (6000 x 4000, quality 90, written by our encoder) decoded
//                     to memory by loadJpeg or loadImage, full size and reduced to an eighth,
//                     beside libjpeg-turbo's djpeg with the same DCT and upsampling settings,
//                     writing PPM to /dev/null.
//   Metadata/*        the metadata of 500 JPEGs (EXIF with GPS and a thumbnail, IPTC, XMP) read by
//                     readMetadata one file after the other, beside one exiftool and one exiv2
//                     process over all of them, their output to /dev/null.
//   Checksum/Ours     imageChecksum of the same 500 files, in files a second.
// Every case is timed in wall-clock time, the peer cases including the start of their process; the
// processor time is kept as well (ours: this thread's; a peer's: its process's, "child_cpu_ms"),
// as it depends less on what else runs on the machine. The files are written once, to a temporary
// folder under $TMPDIR, and read from the page cache.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exiv2/exiv2.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "imageio/ImageIO.h"
#include "imageio/MetadataReader.h"

extern char** environ;

namespace {

using namespace qor;
using imageio::ImagePtr;
using Vec2i = math::GenVec<int, 2>;

constexpr int kWidth = 6000, kHeight = 4000;
constexpr int kMetadataFiles = 500;

// A picture that compresses like a photograph: smooth light, edges, and a little sensor noise.
ImagePtr photoLikeImage(int width, int height) {
    ImagePtr image = imageio::Image4ub::create(width, height);
    uint32_t noise = 2463534242u;
    for (int y = 0; y < height; ++y) {
        unsigned char* row = image->row(y);
        const double v = double(y) / height;
        for (int x = 0; x < width; ++x) {
            const double u = double(x) / width;
            noise ^= noise << 13;
            noise ^= noise >> 17;
            noise ^= noise << 5;
            const int grain = int(noise & 15) - 8;
            const double rings = 40 * std::sin(60 * std::hypot(u - 0.6, v - 0.4));
            const double stripes = (int(x / 37 + y / 53) & 1) ? 25 : -25;
            const int r = int(120 + 90 * u + rings) + grain;
            const int g = int(100 + 80 * v + stripes) + grain;
            const int b = int(140 - 60 * u * v + rings * 0.5) + grain;
            row[4 * x] = static_cast<unsigned char>(std::clamp(r, 0, 255));
            row[4 * x + 1] = static_cast<unsigned char>(std::clamp(g, 0, 255));
            row[4 * x + 2] = static_cast<unsigned char>(std::clamp(b, 0, 255));
            row[4 * x + 3] = 255;
        }
    }
    return image;
}

// Puts camera metadata on the JPEG at `path` with Exiv2: EXIF with GPS and a thumbnail, IPTC
// keywords and place, XMP description and rating.
void addMetadata(const std::string& path, const std::string& thumbnailPath) {
    auto image = Exiv2::ImageFactory::open(path);
    image->readMetadata();
    Exiv2::ExifData& exif = image->exifData();
    exif["Exif.Image.Make"] = "Canon";
    exif["Exif.Image.Model"] = "Canon EOS R6";
    exif["Exif.Image.Orientation"] = uint16_t(1);
    exif["Exif.Image.Software"] = "qor bench";
    exif["Exif.Image.Artist"] = "Bench Photographer";
    exif["Exif.Image.Copyright"] = "CC BY 4.0";
    exif["Exif.Photo.DateTimeOriginal"] = "2024:05:01 07:12:30";
    exif["Exif.Photo.DateTimeDigitized"] = "2024:05:01 07:12:30";
    exif["Exif.Photo.ExposureTime"] = Exiv2::URational(1, 250);
    exif["Exif.Photo.FNumber"] = Exiv2::URational(28, 10);
    exif["Exif.Photo.ISOSpeedRatings"] = uint16_t(400);
    exif["Exif.Photo.FocalLength"] = Exiv2::URational(50, 1);
    exif["Exif.Photo.Flash"] = uint16_t(16);
    exif["Exif.Photo.WhiteBalance"] = uint16_t(0);
    exif["Exif.GPSInfo.GPSLatitudeRef"] = "N";
    exif["Exif.GPSInfo.GPSLatitude"] = "53/1 32/1 45/1";
    exif["Exif.GPSInfo.GPSLongitudeRef"] = "E";
    exif["Exif.GPSInfo.GPSLongitude"] = "9/1 58/1 12/1";
    exif["Exif.GPSInfo.GPSAltitude"] = Exiv2::URational(12, 1);
    Exiv2::ExifThumb(exif).setJpegThumbnail(thumbnailPath);
    image->iptcData()["Iptc.Application2.Keywords"] = "harbour";
    image->iptcData()["Iptc.Application2.City"] = "Hamburg";
    image->iptcData()["Iptc.Application2.CountryName"] = "Germany";
    image->xmpData()["Xmp.dc.description"] = "lang=x-default Boats at dawn";
    image->xmpData()["Xmp.xmp.Rating"] = "4";
    image->writeMetadata();
}

// The files of all cases, written on first use and removed at exit.
struct Files {
    std::string folder;
    std::string bigJpeg;
    std::vector<std::string> small;  // the metadata and checksum files

    Files() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/qor-codec-XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        folder = pattern;
        bigJpeg = folder + "/big.jpg";
        if (!imageio::saveJpeg(FastString<char>(bigJpeg), photoLikeImage(kWidth, kHeight), 90))
            std::abort();
        const std::string first = folder + "/photo0000.jpg", thumb = folder + "/thumb.jpg";
        if (!imageio::saveJpeg(FastString<char>(first), photoLikeImage(640, 480), 85) ||
            !imageio::saveJpeg(FastString<char>(thumb), photoLikeImage(160, 120), 75))
            std::abort();
        addMetadata(first, thumb);
        small.push_back(first);
        for (int i = 1; i < kMetadataFiles; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "/photo%04d.jpg", i);
            small.push_back(folder + name);
            std::filesystem::copy_file(first, small.back());
        }
    }
    ~Files() {
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
};

Files& files() {
    static Files f;
    return f;
}

// Runs a program to its end with standard output to /dev/null and adds the processor time it used
// (user and system, in seconds) to *cpu; false when it could not start or exited with another
// status than 0.
bool runProgram(const std::vector<std::string>& argv, double* cpu) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) return false;
    int status = 0;
    rusage usage{};
    if (wait4(pid, &status, 0, &usage) != pid) return false;
    *cpu += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
            1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The peer's processor time goes to the counter "child_cpu_ms", per iteration: Google Benchmark's
// own CPU time counts only this process.
void peerBench(benchmark::State& state, const std::vector<std::string>& argv, int fileCount) {
    double cpu = 0;
    for (auto _ : state)
        if (!runProgram(argv, &cpu)) {
            state.SkipWithError(("'" + argv[0] + "' failed or is not installed").c_str());
            return;
        }
    state.counters["child_cpu_ms"] = 1e3 * cpu / double(state.iterations());
    state.SetItemsProcessed(int64_t(state.iterations()) * fileCount);
}

// ---- decoding ----

// An eighth of the picture: one pixel less than 750 x 500 on each side, the largest box for which
// the decoder takes libjpeg's 1/8 reduction (the last pixel is then taken off by our reduction).
const Vec2i kEighth(kWidth / 8 - 1, kHeight / 8 - 1);

void decodeOurs(benchmark::State& state, Vec2i size, imageio::ImageQuality quality) {
    RandomAccessFileStd file(files().bigJpeg);
    for (auto _ : state) {
        ImagePtr image;
        if (!imageio::loadJpeg(file, size, quality, &image)) {
            state.SkipWithError("loadJpeg failed");
            return;
        }
        benchmark::DoNotOptimize(image->row(0));
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);  // source pixels
}

void loadImageOurs(benchmark::State& state, Vec2i size, imageio::ImageQuality quality) {
    const FastString<char> path(files().bigJpeg);
    for (auto _ : state) {
        ImagePtr image;
        imageio::loadImage(path, size, quality, &image, nullptr);
        if (!image) {
            state.SkipWithError("loadImage failed");
            return;
        }
        benchmark::DoNotOptimize(image->row(0));
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void decodeDjpeg(benchmark::State& state, std::vector<std::string> options) {
    std::vector<std::string> argv{"djpeg"};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.insert(argv.end(), {"-outfile", "/dev/null", files().bigJpeg});
    peerBench(state, argv, 1);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

// ImageQualityFast: libjpeg's fast integer DCT, no fancy upsampling; ImageQualityBest: the
// floating point DCT, no fancy upsampling. djpeg is given the same.
BENCHMARK_CAPTURE(decodeOurs, Full_Fast, Vec2i(0, 0), imageio::ImageQualityFast)->UseRealTime();
BENCHMARK_CAPTURE(decodeDjpeg, Full_Fast, {"-dct", "fast", "-nosmooth"})->UseRealTime();
BENCHMARK_CAPTURE(decodeOurs, Full_Best, Vec2i(0, 0), imageio::ImageQualityBest)->UseRealTime();
BENCHMARK_CAPTURE(decodeDjpeg, Full_Best, {"-dct", "float", "-nosmooth"})->UseRealTime();
BENCHMARK_CAPTURE(decodeOurs, Eighth_Fast, kEighth, imageio::ImageQualityFast)->UseRealTime();
BENCHMARK_CAPTURE(decodeDjpeg, Eighth_Fast, {"-dct", "fast", "-nosmooth", "-scale", "1/8"})
    ->UseRealTime();
BENCHMARK_CAPTURE(loadImageOurs, Full_Fast, Vec2i(0, 0), imageio::ImageQualityFast)->UseRealTime();
BENCHMARK_CAPTURE(loadImageOurs, Eighth_Fast, kEighth, imageio::ImageQualityFast)->UseRealTime();

// ---- metadata ----

void metadataOurs(benchmark::State& state) {
    const std::vector<std::string>& paths = files().small;
    for (auto _ : state)
        for (const std::string& path : paths) {
            SharedPtr<imageio::Metadata> metadata = imageio::readMetadata(FastString<char>(path));
            if (!metadata) {
                state.SkipWithError("readMetadata failed");
                return;
            }
            benchmark::DoNotOptimize(metadata.get());
        }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(paths.size()));
}

void metadataPeer(benchmark::State& state, std::vector<std::string> argv) {
    const std::vector<std::string>& paths = files().small;
    argv.insert(argv.end(), paths.begin(), paths.end());
    peerBench(state, argv, int(paths.size()));
}

BENCHMARK(metadataOurs)->Name("Metadata/Ours")->UseRealTime();
BENCHMARK_CAPTURE(metadataPeer, Exiftool, {"exiftool", "-fast", "-q"})
    ->Name("Metadata/Exiftool")
    ->UseRealTime();
BENCHMARK_CAPTURE(metadataPeer, Exiv2, {"exiv2", "-pa", "pr"})
    ->Name("Metadata/Exiv2")
    ->UseRealTime();

// ---- checksum ----

void checksumOurs(benchmark::State& state) {
    const std::vector<std::string>& paths = files().small;
    for (auto _ : state)
        for (const std::string& path : paths) {
            const Digest digest = imageio::imageChecksum(FastString<char>(path));
            benchmark::DoNotOptimize(digest);
        }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(paths.size()));
}

BENCHMARK(checksumOurs)->Name("Checksum/Ours")->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
