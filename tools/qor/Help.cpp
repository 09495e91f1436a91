// The table of subcommands and their help pages. main.cpp checks every option against this table
// before a subcommand runs, so an option is accepted only when its help shows it.

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "base/Version.h"

namespace qor::tool {

namespace {

constexpr int kWidth = 80;  // help text is wrapped to this many columns

const OptionInfo kJobsOptions[] = {
    {"--width", "N", "jobs per layer, 1 to 100000 (default 64)"},
    {"--depth", "N", "layers, 1 to 100000 (default 64); width x depth is at most 1000000"},
};

const OptionInfo kTilesOptions[] = {
    {"--width", "N", "image width, 1 to 65536 (default 1500)"},
    {"--height", "N", "image height, 1 to 65536 (default 1000)"},
    {"--tile", "N", "tile side, 1 to 65536 (default 256)"},
    {"--save", "FILE", "also write the whole image to FILE as JPEG"},
};

const OptionInfo kPipelineOptions[] = {
    {"--size", "WxH", "size of the generated input, each side 1 to 1048576 (required)"},
    {"--scale", "S", "scale factor, above 0 and at most 16 (required)"},
    {"--cache-mb", "N", "tile cache limit in MB, 16 to 65536 (default 256, 64 with --save)"},
    {"--batch", "N",
     "tiles per request (default: as many as half the cache limit holds); memory grows with it"},
    {"--check", nullptr,
     "compare sampled pixels of every tile with a direct computation; exit status 1 on a "
     "difference"},
    {"--save", "FILE",
     "write the scaled image to FILE (.jpg, .tif or .exr) row by row through the image saver "
     "instead, and report the wall time and peak memory"},
};

const OptionInfo kInfoOptions[] = {
    {"--json", nullptr, "print one JSON array with an object per file"},
    {"--verify", nullptr, "decode each picture at a reduced size to prove its pixels are there"},
};

const OptionInfo kThumbOptions[] = {
    {"--size", "WxH", "the box the thumbnail fits inside, each side 1 to 16384 (default 256x256)"},
    {"-o", "OUT", "the thumbnail file, .jpg, .jpeg or .bmp (required)"},
    {"--cache", "CACHEDIR",
     "answer from the thumbnail cache in CACHEDIR/thumbnails, which keeps what it made"},
};

const OptionInfo kThumbsOptions[] = {
    {"--cache", "CACHEDIR",
     "the cache folder, made when missing; the thumbnails go to CACHEDIR/thumbnails "
     "(build: required; contact: taken from and added to it)"},
    {"--size", "N", "the longest side of each thumbnail, 1 to 2048 (default 256)"},
    {"-o", "SHEET", "contact: the sheet, a JPEG file (required)"},
    {"--columns", "N", "contact: thumbnails in a row, 1 to 100 (default 6)"},
};

const OptionInfo kExportOptions[] = {
    {"-o", "OUT", "the output file, .jpg, .jpeg, .tif, .tiff or .exr (required)"},
    {"--size", "WxH", "fit inside W x H, each side 1 to 1073741824 (default: the picture's size)"},
    {"--scale", "S", "resize by S, above 0 and at most 16; not with --size"},
    {"--quality", "Q", "JPEG quality, 0 to 100 (default 90)"},
    {"--profile", "NAME",
     "srgb, adobergb or linear: convert from the file's embedded profile (sRGB when it has none) "
     "and embed NAME in JPEG and TIFF output (default: the pixels as they are, no profile)"},
};

const OptionInfo kCacheOptions[] = {
    {"--cache", "CACHEDIR",
     "the cache folder, made when missing; the database is its file 'metadata' (required)"},
    {"--field", "NAME",
     "get: show this field, named as 'qor info' names it (FNumber, OriginalTime, MakeString ...); "
     "may be given again; default: every field the cache keeps"},
    {"--json", nullptr, "get: print one JSON array with an object per file"},
};

constexpr const char* kLibraryText =
    "the library folder (default: the environment variable QOR_LIBRARY)";
const OptionInfo kLibraryOptions[] = {{"--library", "DIR", kLibraryText}};
const OptionInfo kListOptions[] = {
    {"--library", "DIR", kLibraryText},
    {"--json", nullptr, "print one JSON array with an object per bag or per image"},
};
const OptionInfo kStarsOptions[] = {
    {"--library", "DIR", kLibraryText},
    {"--json", nullptr, "print one JSON array of the files"},
};

const OptionInfo kImportOptions[] = {
    {"--library", "DIR", kLibraryText},
    {"--into", "BAG",
     "the event the pictures go into (default: the event of each picture's capture day, made "
     "when missing)"},
    {"--adopt", nullptr,
     "the sources lie in the library folder already: take them in where they are, uncopied (a "
     "folder that is no event yet becomes one)"},
    {"--duplicates", "MODE",
     "ask, skip or all: a picture whose checksum a library picture has is asked about on a "
     "terminal (y, n, all, none), skipped, or imported all the same (default ask; without a "
     "terminal ask skips, and says so)"},
    {"--no-recurse", nullptr, "take only the files of a source folder, not its subfolders"},
    {"--json", nullptr,
     "print one JSON object with the lists \"imported\", \"unsupported\" and "
     "\"not_imported\" (paths)"},
};

const OptionInfo kBookOptions[] = {
    {"--library", "DIR", kLibraryText},
    {"--json", nullptr,
     "show: print one JSON object: \"theme\", \"variant\", the covers and \"pages\", each "
     "page with \"left\" and \"right\", each side with its \"frames\" in stacking order"},
    {"--layout", "FILE", "new: the .layout template the book is made from (required)"},
    {"--from", "BAG", "new: fill the template's empty picture frames with this bag's pictures"},
    {"-o", "OUT",
     "render: the folder the pages and index.html go into, made when missing "
     "(required)"},
    {"--cache", "CACHEDIR",
     "render: the thumbnail cache, CACHEDIR/thumbnails (default: the library's .cache folder)"},
    {"--theme-dir", "DIR",
     "render: where the template's background and decoration images (PNG, JPEG) lie"},
};

const CommandInfo kCommands[] = {
    {"help",
     "list the subcommands, or show the help of one",
     "[SUBCOMMAND]",
     "Lists the subcommands and the global options, or shows the help of one subcommand: "
     "'qor help SUBCOMMAND' is the same as 'qor SUBCOMMAND --help'.",
     {},
     "qor help export",
     runHelp},
    {"version",
     "print the library's version",
     "",
     "Prints the library's version.",
     {},
     "qor version",
     runVersion},
    {"jobs", "run a generated job graph on the job system and check its result",
     "[--width N] [--depth N]",
     "Runs a generated graph of jobs on the job system: layers of jobs, each depending on two "
     "jobs of the layer before, with a progress bar. Prints the job count, the wall time, jobs per "
     "second and the checksum of the last layer, which is checked against a sequential "
     "computation; exit status 1 when they differ.",
     kJobsOptions, "qor jobs --width 256 --depth 32", runJobsDemo},
    {"tiles", "check the tile pipeline's pixels on a generated image",
     "[--width N] [--height N] [--tile N] [--save FILE]",
     "Computes a generated image through the tile pipeline: every tile, centre first, with a "
     "progress bar; every tile again after a version change, when no tile of the old version may "
     "come back from the cache; then a region reaching past the top-left corner, mirrored. Every "
     "pixel is checked against a direct computation; exit status 1 on a mismatch.",
     kTilesOptions, "qor tiles --width 3000 --height 2000 --save generated.jpg", runTilesDemo},
    {"pipeline", "time the tile pipeline scaling a generated image",
     "--size WxH --scale S [--cache-mb N] [--batch N] [--check] [--save FILE]",
     "Scales a generated W x H image by S (area averaging) through the tile pipeline and fetches "
     "every tile of the result in batches, with a progress bar. Prints the tile count, the wall "
     "time, tiles per second, the scaled size and the mean of its pixels, and the tile cache's "
     "statistics. Memory stays within about 1.5 times the tile cache limit unless --batch is "
     "given. Ctrl-C cancels (exit status 130).",
     kPipelineOptions, "qor pipeline --size 8000x8000 --scale 0.25 --check", runPipelineDemo},
    {"info", "item type, checksum and metadata of image and video files",
     "[--json] [--verify] FILE...",
     "Shows the item type, the item checksum, the typed metadata fields and the raw metadata map "
     "(EXIF, IPTC and XMP keys) of each image or video file. A bad file (missing, empty, not a "
     "picture) gives one line on standard error, the other files are still shown, and the exit "
     "status is 1.",
     kInfoOptions, "qor info --verify photo.jpg clip.mp4", runInfo},
    {"thumb", "a JPEG or BMP thumbnail of an image or video file",
     "FILE [--size WxH] [--cache CACHEDIR] -o OUT",
     "Writes a thumbnail of an image or video file, fitted inside the box, as JPEG (.jpg, .jpeg) "
     "or BMP (.bmp) by OUT's extension, and prints its size. A JPEG's EXIF thumbnail serves when "
     "it fills the box. With --cache the thumbnail comes from the thumbnail cache when it holds "
     "it, and is kept there otherwise. A bad file gives one line on standard error and exit status "
     "1.",
     kThumbOptions, "qor thumb photo.jpg --size 320x240 -o photo-small.jpg", runThumb},
    {"thumbs", "build the thumbnail cache of folders, or a contact sheet of one",
     "build DIR... --cache CACHEDIR [--size N] | contact DIR -o SHEET.jpg [--size N] [--columns N] "
     "[--cache CACHEDIR]",
     "build: makes the thumbnail of every picture below the folders into the disk cache, several "
     "files at once, with a progress bar, and prints a summary: how many were made, how many the "
     "cache held already, how many failed. contact: makes the thumbnails of the folder's "
     "pictures ahead on several threads (from the disk cache with --cache) and writes them in a grid with margins, computed through the tile pipeline, as a JPEG. A picture "
     "that cannot be read gives one line on standard error and counts as failed, the others are "
     "still made, and the exit status is 1; Ctrl-C stops after the files under way (exit status "
     "130).",
     kThumbsOptions, "qor thumbs build ~/Pictures --cache ~/.cache/qor", runThumbs},
    {"checksum",
     "the item checksum of each file",
     "FILE...",
     "Prints the item checksum of each file, the MD5 of its first 20480 bytes, beside its name. "
     "The file is not decoded, so a truncated picture is not found out ('qor info --verify' "
     "does that). A bad file gives one line on standard error, the others are still done, and the "
     "exit status is 1.",
     {},
     "qor checksum photo.jpg clip.mp4",
     runChecksum},
    {"export", "write a picture file as JPEG, TIFF or OpenEXR, optionally resized",
     "IN -o OUT [--size WxH | --scale S] [--quality Q] [--profile NAME]",
     "Writes a picture file (JPEG, PNG, TIFF, OpenEXR, WebP, HEIF, ...) as JPEG, LZW TIFF (8 or 16 "
     "bits, as the picture) or half-float OpenEXR, by OUT's extension. The picture is read tile by "
     "tile, turned upright by its orientation, resized through the tile pipeline and written "
     "with a progress bar; memory follows the picture's width, not its size. Ctrl-C cancels "
     "(exit status 130, nothing written); an unreadable input gives exit status 1.",
     kExportOptions, "qor export photo.png -o photo.jpg --size 1920x1080 --quality 85", runExport},
    {"cache", "fill, read and check the persistent metadata cache",
     "build DIR... --cache CACHEDIR | get FILE... --cache CACHEDIR [--field NAME]... [--json] | "
     "check --cache CACHEDIR",
     "The metadata cache keeps the numbers and times of the metadata of every picture (size, "
     "exposure, capture time, GPS, rating, checksum, file times ...) in one database, so that "
     "they are read without opening a file. 'build' caches every picture below the folders, "
     "several files at once, with a progress bar, and prints the files, the seconds and the files "
     "per second; Ctrl-C stops after the files under way and keeps what was read (exit status "
     "130). 'get' prints the fields of each file from the cache, reading a file only when its "
     "record is missing or older than the file; text fields are not kept in the cache and always "
     "come from the file. 'check' compares every record with its file and prints each one that "
     "differs, with the first difference (exit status 1 when any does). A file that cannot be "
     "read gives one line on standard error and exit status 1.",
     kCacheOptions, "qor cache get photo.jpg --cache ~/.cache/qor --field FNumber --json",
     runCache},
    {"library", "make a photo library", "init --library DIR",
     "Makes an empty photo library in DIR (made when missing): its index file library.xml. Bags "
     "made later go into the folder, as folders (events) or files (collections). A folder that "
     "holds a library already is refused with exit status 1.",
     kLibraryOptions, "qor library init --library ~/Photos", runLibrary},
    {"ls", "list the bags of the library, or the images of one", "[BAG] [--json]",
     "Without BAG, one line per bag: name, type (event, collection ...), state (Regular, or "
     "Broken when its file cannot be read) and number of images. With BAG, the bag's images in "
     "their order, one file a line; the images of a family (an original with its edited "
     "versions) are indented below 'family:' with their role. --json prints an array of "
     "{\"name\", \"type\", \"state\", \"images\"} objects, or for a bag of {\"file\", "
     "\"family\", \"tags\"} objects. A bag is named by its name.",
     kListOptions, "qor ls Trip --json --library ~/Photos", runLs},
    {"bag", "create, rename, remove or fill bags",
     "create TYPE NAME | rename BAG NEWNAME | rm BAG | erase BAG | add BAG FILE... | "
     "move BAG IMAGE...",
     "'create' makes a bag of TYPE (event: a folder that holds its pictures; collection: a list "
     "of pictures of events) and prints its path; an event named like another gets the folder "
     "NAME_1, a collection named like another (in any capitals) is refused. 'rename' renames a "
     "bag and its folder or file. 'rm' forgets a bag and its images, leaving the files. 'erase' "
     "moves a bag's folder or file to the recycle bin and forgets it; an event folder holding "
     "files that are none of its pictures is refused. 'add' copies files into an event (a name "
     "taken gets _1), or adds pictures of the library to a collection. 'move' moves pictures of "
     "the library into another event, files included. Errors print one line and give exit "
     "status 1.",
     kLibraryOptions, "qor bag create event Trip --library ~/Photos", runBag},
    {"stars", "the pictures rated N stars", "N [--json]",
     "Lists the files of the library's pictures (one per family: an edited version before its "
     "original) whose rating is N, 0 to 5, from the metadata cache in the library's .cache "
     "folder.",
     kStarsOptions, "qor stars 4 --library ~/Photos", runStars},
    {"import", "copy pictures of files and folders into the library",
     "SRC... [--into BAG] [--adopt] [--duplicates ask|skip|all] [--no-recurse] [--json]",
     "Imports the pictures of the files and folders (subfolders too, hidden ones left out): "
     "scans them, reads each picture's metadata, checks it against the library's pictures by "
     "item checksum, and copies it into the event of its capture day (an event named by the date, "
     "made when missing) or into --into BAG. A raw file and a JPEG of one shot (one name, two "
     "extensions) become one family, the raw file in the event's 'originals' folder as the "
     "original. A progress bar per stage (Scanning, ReadingMetadata, Copying) shows on a "
     "terminal. Prints how many files were imported and into which events, and the files of no "
     "picture type (unsupported) and those not imported (duplicates skipped, unreadable, failed "
     "copies), each file when they are few or with -v. Exit status 0 when the import ran, even "
     "when some files were not imported; 1 when it could not (\"No images to import.\"); "
     "Ctrl-C cancels, keeps what was imported and saves the library (exit status 130).",
     kImportOptions, "qor import /media/card/DCIM --library ~/Photos", runImport},
    {"book", "show, make or render a photo book",
     "show BAG [--json] | new NAME --layout FILE [--from BAG] | render BAG -o OUT [--cache "
     "CACHEDIR] [--theme-dir DIR]",
     "'show' lists a book's double pages (dust jacket, cover, inside covers, pages) with the "
     "frames of each side from the bottom layer up: kind, layer, position, size, rotation, the "
     "picture's file (marked when missing), the text or the decoration, and ERROR for a frame "
     "marked faulty. 'new' makes a picturebook bag named NAME from a .layout template and prints "
     "its file; a template that cannot be read is refused with one line. With --from the "
     "template's empty picture frames get the bag's pictures in the bag's order (of a family only "
     "its first picture), covers first, then the pages: when there are more frames than "
     "pictures the last frames stay empty, when there are more pictures than frames the rest are "
     "kept in the book as pictures not placed yet. 'render' writes one SVG file per double page "
     "into OUT, named so that they sort in book order, with the pictures embedded from the "
     "thumbnail cache, and an index.html that shows them all; empty frames are grey, a picture "
     "that is missing is marked with a cross (one line on standard error and exit status 1, the "
     "pages are still written), a frame marked faulty gets a red outline and a red sign.",
     kBookOptions, "qor book render Summer -o summer-pages --library ~/Photos", runBook},
    {"gpuinfo",
     "the GL renderer, its version, capability bits and uniqueId",
     "",
     "Creates a headless GL context and prints what the renderer finds: the renderer and version "
     "strings, the system and texture capability bits, the largest texture, the free texture "
     "memory where the driver tells it, and the renderer's uniqueId. Without a usable GL context "
     "it says so, with exit status 0.",
     {},
     "qor gpuinfo",
     runGpuInfo},
};

// Writes `text` wrapped at kWidth, each line indented by `indent` columns, the first starting at
// column `column` (already written).
void printWrapped(std::FILE* out, std::string_view text, int indent, int column) {
    bool lineEmpty = true;
    while (!text.empty()) {
        const size_t space = text.find(' ');
        const std::string_view word = text.substr(0, space);
        text = space == std::string_view::npos ? std::string_view() : text.substr(space + 1);
        if (word.empty()) continue;
        if (!lineEmpty && column + 1 + int(word.size()) > kWidth) {
            std::fprintf(out, "\n%*s", indent, "");
            column = indent;
            lineEmpty = true;
        }
        if (!lineEmpty) {
            std::fputc(' ', out);
            ++column;
        }
        std::fwrite(word.data(), 1, word.size(), out);
        column += int(word.size());
        lineEmpty = false;
    }
    std::fputc('\n', out);
}

// "  --size WxH      text", with the texts of a list aligned at `textColumn`.
void printItem(std::FILE* out, const std::string& head, const char* text, int textColumn) {
    std::fprintf(out, "  %-*s", textColumn - 2, head.c_str());
    int column = std::max(textColumn, 2 + int(head.size()));
    if (column > textColumn) {  // a head too long for its column gets a line of its own
        std::fprintf(out, "\n%*s", textColumn, "");
        column = textColumn;
    }
    printWrapped(out, text, textColumn, column);
}

std::string optionHead(const OptionInfo& option) {
    return option.value ? std::string(option.name) + " " + option.value : option.name;
}

struct GlobalOption {
    const char* head;
    const char* text;
};

const GlobalOption kGlobalOptions[] = {
    {"-h, --help", "show the help of the subcommand, or this list"},
    {"-v, -vv, -vvv",
     "show the library's log on standard error: information, debug or trace lines"},
    {"--log FILE", "append the library's log to FILE (information and up, or as -v says)"},
    {"--image-log DIR",
     "dump the pictures the engine makes (tiles, requests, saved rows) as PNG into DIR, listed "
     "in DIR/index.html with SVG pictures of tile layouts; QOR_IMAGE_LOG=DIR does the same"},
    {"--version", "the same as 'qor version'"},
};

}  // namespace

std::span<const CommandInfo> commands() { return kCommands; }

const CommandInfo* findCommand(std::string_view name) {
    for (const CommandInfo& command : kCommands)
        if (name == command.name) return &command;
    return nullptr;
}

const OptionInfo* findOption(const CommandInfo& command, std::string_view name) {
    for (const OptionInfo& option : command.options)
        if (name == option.name) return &option;
    return nullptr;
}

void printOverview(std::FILE* out) {
    std::fprintf(out,
                 "usage: qor [-v | -vv] [--log FILE] [--image-log DIR] SUBCOMMAND [ARGUMENTS]\n\n"
                 "subcommands:\n");
    for (const CommandInfo& command : kCommands) printItem(out, command.name, command.summary, 12);
    std::fprintf(out, "\nglobal options, before or after the subcommand:\n");
    for (const GlobalOption& option : kGlobalOptions) printItem(out, option.head, option.text, 17);
    std::fputc('\n', out);
    printWrapped(out,
                 "Without -v, --log or QOR_LOG_LEVEL the library's log is not shown. "
                 "QOR_LOG_LEVEL=N shows it on standard error from level N up (0 trace, 1 debug, "
                 "2 information, 3 warning, 4 error).",
                 0, 0);
    std::fputc('\n', out);
    printWrapped(out,
                 "Exit status: 0 done, 1 a file failed, 2 bad usage (one line on standard error), "
                 "130 interrupted by Ctrl-C.",
                 0, 0);
    std::fprintf(out,
                 "\n'qor help SUBCOMMAND' or 'qor SUBCOMMAND --help' shows a subcommand's "
                 "arguments.\n");
}

void printCommandHelp(const CommandInfo& command, std::FILE* out) {
    std::fprintf(out, "usage: qor %s%s%s\n\n", command.name, *command.synopsis ? " " : "",
                 command.synopsis);
    printWrapped(out, command.description, 0, 0);
    if (!command.options.empty()) {
        size_t longest = 0;
        for (const OptionInfo& option : command.options)
            longest = std::max(longest, optionHead(option).size());
        const int textColumn = std::min(int(longest) + 4, 20);
        std::fprintf(out, "\noptions:\n");
        for (const OptionInfo& option : command.options)
            printItem(out, optionHead(option), option.text, textColumn);
    }
    std::fprintf(out, "\nexample:\n  %s\n", command.example);
    std::fprintf(out, "\nglobal options: -v, -vv, --log FILE, --image-log DIR (see 'qor help')\n");
}

int runHelp(const std::vector<std::string>& args) {
    if (args.empty()) {
        printOverview(stdout);
        return 0;
    }
    if (args.size() > 1) return usageError("help: give one subcommand");
    const CommandInfo* command = findCommand(args[0]);
    if (!command) return usageError("help: unknown subcommand '" + args[0] + "' (try 'qor help')");
    printCommandHelp(*command, stdout);
    return 0;
}

int runVersion(const std::vector<std::string>& args) {
    if (!args.empty()) return usageError("version takes no arguments");
    std::printf("qor %s\n", qor::version());
    return 0;
}

}  // namespace qor::tool
