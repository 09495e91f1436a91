// qor: the command-line tool over libqor.
// Usage: qor <subcommand> [arguments]. Bad input gives one line on standard error and exit status 2.

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.h"
#include "base/Version.h"

namespace {

struct Command {
    const char* name;
    const char* summary;
    int (*run)(const std::vector<std::string>& args);
};

int runHelp(const std::vector<std::string>& args);

int runVersion(const std::vector<std::string>& args) {
    if (!args.empty()) return qor::tool::usageError("version takes no arguments");
    std::printf("qor %s\n", qor::version());
    return 0;
}

const Command kCommands[] = {
    {"help", "list the subcommands", runHelp},
    {"version", "print the library's version", runVersion},
    {"jobs", "run a job graph on the job system and report its progress (--width N --depth N)",
     qor::tool::runJobsDemo},
    {"tiles",
     "compute a generated image through the tile pipeline and check every pixel "
     "(--width N --height N --tile N)",
     qor::tool::runTilesDemo},
    {"pipeline",
     "scale a generated image through the tile pipeline and report tiles per second "
     "(--size WxH --scale S [--cache-mb N] [--batch N] [--check] [--save FILE.jpg|.tif|.exr])",
     qor::tool::runPipelineDemo},
    {"info",
     "item type, format, checksum, metadata fields and raw metadata of image or video files, "
     "without decoding pixels; --verify decodes a small picture of each too, which alone finds "
     "a truncated file ([--json] [--verify] FILE...)",
     qor::tool::runInfo},
    {"thumb", "a JPEG or BMP thumbnail of an image or video file (FILE [--size WxH] -o OUT)",
     qor::tool::runThumb},
    {"checksum", "the item checksum of each file (FILE...)", qor::tool::runChecksum},
    {"export",
     "write a picture file as JPEG, TIFF or OpenEXR, resized through the tile pipeline "
     "(IN -o OUT.jpg|.tif|.exr [--size WxH | --scale S] [--quality Q] [--profile NAME])",
     qor::tool::runExport},
    {"gpuinfo", "the GL renderer, its version, capability bits and uniqueId",
     qor::tool::runGpuInfo},
};

int runHelp(const std::vector<std::string>&) {
    std::printf("usage: qor <subcommand> [arguments]\n\nsubcommands:\n");
    for (const Command& c : kCommands) std::printf("  %-10s %s\n", c.name, c.summary);
    std::printf("\noptions:\n  --version  same as 'qor version'\n");
    return 0;
}

}  // namespace

namespace qor::tool {
int usageError(const std::string& message) {
    std::fprintf(stderr, "qor: %s\n", message.c_str());
    return 2;
}

bool parseCount(const std::string& text, unsigned long& value) {
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && ptr == end && !text.empty();
}

void drawProgressBar(unsigned long done, unsigned long total, const char* unit, bool final) {
    constexpr int kWidth = 40;
    const double fraction = total ? double(done) / double(total) : 1.0;
    const int filled = int(fraction * kWidth);
    std::fprintf(stderr, "\r[%s%s] %3d%% %lu/%lu %s%s", std::string(size_t(filled), '#').c_str(),
                 std::string(size_t(kWidth - filled), '.').c_str(), int(fraction * 100.0), done,
                 total, unit, final ? "\n" : "");
    std::fflush(stderr);
}
}  // namespace qor::tool

int main(int argc, char** argv) {
    if (argc < 2) return qor::tool::usageError("missing subcommand (try 'qor help')");
    std::string name = argv[1];
    if (name == "--version") name = "version";
    if (name == "--help" || name == "-h") name = "help";
    std::vector<std::string> args(argv + 2, argv + argc);
    for (const Command& c : kCommands)
        if (name == c.name) return c.run(args);
    return qor::tool::usageError("unknown subcommand '" + name + "' (try 'qor help')");
}
