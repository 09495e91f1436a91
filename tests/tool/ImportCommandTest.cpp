// qor import, run as the program itself on camera-like files made here, into a library made here.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "QorRun.h"
#include "base/filesystem/Path.h"

namespace qor::imageio {
namespace {

using namespace testing;
using Json = nlohmann::json;

// A small camera JPEG shot on `day` ("2026:07:01"); `shot` sets its image id, so that no two
// shots share an item checksum.
Bytes cameraShot(const std::string& day, int shot, int width = 64, int height = 48) {
    return withMetadata(makeJpeg(width, height), [&](Exiv2::Image& image) {
        image.exifData()["Exif.Image.Make"] = "Canon";
        image.exifData()["Exif.Image.Model"] = "Canon EOS Test";
        image.exifData()["Exif.Photo.DateTimeOriginal"] = day + " 10:20:30";
        image.exifData()["Exif.Photo.ImageUniqueID"] = "shot" + std::to_string(shot);
    });
}

class QorImport : public ::testing::Test {
protected:
    QorImport() {
        card = folder.path() + "/card";
        library = folder.path() + "/Photos";
        std::filesystem::create_directory(card);
    }

    QorRun qor(std::vector<std::string> args) {
        args.push_back("--library");
        args.push_back(library);
        return runQor(folder, args);
    }
    void init() { ASSERT_EQ(qor({"library", "init"}).status, 0); }
    std::string write(const std::string& name, const Bytes& bytes) {
        return folder.write(name, bytes);
    }
    // The bags as `qor ls --json` gives them, by name.
    Json bags() {
        const QorRun run = qor({"ls", "--json"});
        EXPECT_EQ(run.status, 0) << (run.errLines.empty() ? "" : run.errLines[0]);
        Json byName = Json::object();
        for (const Json& bag : Json::parse(run.out)) byName[bag["name"].get<std::string>()] = bag;
        return byName;
    }
    // The images of a bag as `qor ls BAG --json` gives them: file -> family role.
    std::map<std::string, std::string> images(const std::string& bag) {
        const QorRun run = qor({"ls", bag, "--json"});
        EXPECT_EQ(run.status, 0) << (run.errLines.empty() ? "" : run.errLines[0]);
        std::map<std::string, std::string> out;
        if (run.status == 0)
            for (const Json& image : Json::parse(run.out)) out[image["file"]] = image["family"];
        return out;
    }
    // The picture files in the library folder (its own files, collections and the cache left
    // out).
    std::vector<std::string> libraryFiles() {
        std::vector<std::string> out;
        for (auto it = std::filesystem::recursive_directory_iterator(library);
             it != std::filesystem::recursive_directory_iterator(); ++it) {
            const std::string name = it->path().filename().string();
            if (name == ".cache") {
                it.disable_recursion_pending();
                continue;
            }
            if (it->is_regular_file() && name != "library.xml" && name != ".bag" &&
                name != ".moves.xml" && !name.ends_with(".collection"))
                out.push_back(it->path().string());
        }
        std::sort(out.begin(), out.end());
        return out;
    }

    TempFolder folder;
    std::string card, library;
};

std::vector<std::string> strings(const Json& list) {
    std::vector<std::string> out;
    for (const Json& item : list) out.push_back(item.get<std::string>());
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(QorImport, PicturesGoIntoTheEventsOfTheirDaysWithRawAndJpegAsOneFamily) {
    init();
    write("card/IMG_0001.JPG", cameraShot("2026:07:01", 1));
    write("card/IMG_0002.JPG", cameraShot("2026:07:02", 2));
    write("card/IMG_0002.CR2", cameraShot("2026:07:02", 102));  // the raw file of the same shot
    const std::string notes = write("card/notes.txt", {'h', 'i'});
    std::filesystem::create_directory(card + "/.hidden");
    write("card/.hidden/IMG_0009.JPG", cameraShot("2026:07:03", 9));

    const QorRun run = qor({"import", card});
    ASSERT_EQ(run.status, 0) << (run.errLines.empty() ? "" : run.errLines[0]);
    EXPECT_NE(run.out.find("imported: 3 files into 2026-07-01, 2026-07-02\n"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("unsupported: 1 file\n  " + notes + "\n"), std::string::npos) << run.out;

    const Json all = bags();
    ASSERT_TRUE(all.contains("2026-07-01") && all.contains("2026-07-02")) << all.dump();
    EXPECT_FALSE(all.contains("2026-07-03"));  // hidden folders are not imported
    EXPECT_EQ(all["2026-07-01"]["type"], "event");
    EXPECT_EQ(all["2026-07-01"]["images"], 1);
    EXPECT_EQ(all["2026-07-02"]["images"], 2);

    // The raw file lies in "originals" and is the family's original; the JPEG is its member.
    const auto second = images("2026-07-02");
    std::string raw, jpeg;
    for (const auto& [file, role] : second) (file.ends_with(".CR2") ? raw : jpeg) = file;
    ASSERT_FALSE(raw.empty());
    ASSERT_FALSE(jpeg.empty());
    EXPECT_EQ(filesystem::getName(filesystem::parentPath(raw)), "originals") << raw;
    EXPECT_EQ(filesystem::parentPath(filesystem::parentPath(raw)), filesystem::parentPath(jpeg));
    EXPECT_EQ(second.at(raw), "original");
    const QorRun listing = qor({"ls", "2026-07-02"});
    EXPECT_EQ(listing.out, "family:\n  " + raw + "  original\n  " + jpeg + "\n");
    EXPECT_EQ(libraryFiles().size(), 3u);  // the text file never went in

    // The same folder again, duplicates skipped: nothing is imported, no file copied.
    const QorRun again = qor({"import", card, "--duplicates", "skip", "--json"});
    ASSERT_EQ(again.status, 0) << (again.errLines.empty() ? "" : again.errLines[0]);
    const Json summary = Json::parse(again.out);
    EXPECT_TRUE(summary["imported"].empty()) << again.out;
    EXPECT_EQ(strings(summary["not_imported"]),
              (std::vector<std::string>{card + "/IMG_0001.JPG", card + "/IMG_0002.CR2",
                                        card + "/IMG_0002.JPG"}));
    EXPECT_EQ(libraryFiles().size(), 3u);
    EXPECT_EQ(bags().size(), all.size());
}

TEST_F(QorImport, JsonListsTheUnsupportedFileAndTheDuplicateSkippedWithoutATerminal) {
    init();
    write("card/IMG_0001.JPG", cameraShot("2026:07:01", 1));
    ASSERT_EQ(qor({"import", card + "/IMG_0001.JPG"}).status, 0);

    std::filesystem::create_directory(folder.path() + "/card2");
    const std::string copy = write("card2/copy.jpg", cameraShot("2026:07:01", 1));
    write("card2/IMG_0005.JPG", cameraShot("2026:07:01", 5));
    const std::string movie = write("card2/clip.xyz", {'x'});
    // No terminal to ask on: ask skips the duplicate and says so, once, on standard error.
    const QorRun run = qor({"import", folder.path() + "/card2", "--json"});
    ASSERT_EQ(run.status, 0) << (run.errLines.empty() ? "" : run.errLines[0]);
    const Json summary = Json::parse(run.out);  // nothing but the object on standard output
    ASSERT_EQ(summary.size(), 3u);
    ASSERT_EQ(summary["imported"].size(), 1u);
    EXPECT_EQ(filesystem::getName(summary["imported"][0].get<std::string>()), "IMG_0005.JPG");
    EXPECT_TRUE(filesystem::exists(summary["imported"][0].get<std::string>()));
    EXPECT_EQ(strings(summary["unsupported"]), std::vector<std::string>{movie});
    EXPECT_EQ(strings(summary["not_imported"]), std::vector<std::string>{copy});
    ASSERT_EQ(run.errLines.size(), 1u);
    EXPECT_NE(run.errLines[0].find("duplicates are skipped"), std::string::npos) << run.errLines[0];

    // All: the duplicate comes in as a second picture.
    const QorRun all = qor({"import", copy, "--duplicates", "all", "--json"});
    ASSERT_EQ(all.status, 0);
    EXPECT_EQ(Json::parse(all.out)["imported"].size(), 1u);
    EXPECT_EQ(libraryFiles().size(), 3u);
}

// On a terminal each duplicate is asked about: an answer it does not know asks again, "y" imports
// the duplicate, "none" skips it and every later one without asking.
TEST_F(QorImport, OnATerminalEachDuplicateIsAskedAbout) {
    init();
    for (int shot : {1, 2, 3})
        write("card/IMG_000" + std::to_string(shot) + ".JPG", cameraShot("2026:07:01", shot));
    ASSERT_EQ(qor({"import", card}).status, 0);
    std::filesystem::create_directory(folder.path() + "/card2");
    for (int shot : {1, 2, 3})
        write("card2/copy" + std::to_string(shot) + ".jpg", cameraShot("2026:07:01", shot));
    write("card2/IMG_0004.JPG", cameraShot("2026:07:01", 4));

    const std::string out = folder.path() + "/out.txt";
    std::string args[] = {QOR_TOOL, "import",    folder.path() + "/card2",
                          "--json", "--library", library};
    char* argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(),
                    args[4].data(), args[5].data(), nullptr};
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {  // standard input and error on the terminal, the JSON into a file
        const int file = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(file, 1);
        ::execv(QOR_TOOL, argv);
        ::_exit(127);
    }
    const std::vector<std::string> answers = {"maybe\n", "y\n", "none\n"};
    std::string screen;
    size_t asked = 0;
    for (int waited = 0; waited < 600;) {
        pollfd in{terminal, POLLIN, 0};
        if (::poll(&in, 1, 100) <= 0) {
            ++waited;
            continue;
        }
        char buffer[1024];
        const ssize_t got = ::read(terminal, buffer, sizeof buffer);
        if (got <= 0) break;  // the program has ended
        screen.append(buffer, size_t(got));
        const size_t questions = [&] {
            size_t n = 0;
            for (size_t at = 0; (at = screen.find("Import it?", at)) != std::string::npos; ++at)
                ++n;
            return n;
        }();
        while (asked < questions && asked < answers.size()) {
            ASSERT_EQ(::write(terminal, answers[asked].data(), answers[asked].size()),
                      ssize_t(answers[asked].size()));
            ++asked;
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    ::close(terminal);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << screen;
    EXPECT_EQ(asked, 3u) << screen;  // the unknown answer, the "y", the "none"; the third not asked
    const Bytes outBytes = readFile(out);
    const Json summary = Json::parse(outBytes.begin(), outBytes.end());
    EXPECT_EQ(summary["imported"].size(), 2u) << summary.dump();  // IMG_0004 and one duplicate
    EXPECT_EQ(summary["not_imported"].size(), 2u) << summary.dump();
    EXPECT_EQ(libraryFiles().size(), 5u);
}

TEST_F(QorImport, IntoAnEventAndAdoptingWhatLiesInTheLibrary) {
    init();
    ASSERT_EQ(qor({"bag", "create", "event", "Trip"}).status, 0);
    ASSERT_EQ(qor({"bag", "create", "collection", "Best"}).status, 0);
    write("card/IMG_0001.JPG", cameraShot("2026:07:01", 1));
    std::filesystem::create_directory(card + "/sub");
    write("card/sub/IMG_0002.JPG", cameraShot("2026:07:02", 2));

    // Without recursion the subfolder stays out; --into puts the picture in the event given.
    const QorRun into = qor({"import", card, "--into", "Trip", "--no-recurse", "--json"});
    ASSERT_EQ(into.status, 0) << (into.errLines.empty() ? "" : into.errLines[0]);
    EXPECT_EQ(strings(Json::parse(into.out)["imported"]),
              std::vector<std::string>{library + "/Trip/IMG_0001.JPG"});
    EXPECT_EQ(bags()["Trip"]["images"], 1);

    // Files that lie in the library already are taken in where they are, as a new event.
    std::filesystem::create_directories(library + "/Old");
    const std::string old = write("Photos/Old/IMG_0100.JPG", cameraShot("2020:01:01", 100));
    const QorRun adopt = qor({"import", library + "/Old", "--adopt", "--json"});
    ASSERT_EQ(adopt.status, 0) << (adopt.errLines.empty() ? "" : adopt.errLines[0]);
    EXPECT_EQ(strings(Json::parse(adopt.out)["imported"]), std::vector<std::string>{old});
    const Json all = bags();
    ASSERT_TRUE(all.contains("Old")) << all.dump();
    EXPECT_EQ(all["Old"]["images"], 1);
    EXPECT_EQ(libraryFiles().size(), 2u);  // adopted, not copied

    // Failures: one line each, exit status 1.
    for (const auto& [args, text] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"import", card, "--into", "Nowhere"}, "no bag named 'Nowhere'"},
             {{"import", card, "--into", "Best"}, "holds no files"},
             {{"import", card + "/missing"}, "no such file or folder"},
             {{"import", card, "--adopt"}, "lies outside the library"}}) {
        const QorRun run = qor(args);
        EXPECT_EQ(run.status, 1) << text;
        ASSERT_EQ(run.errLines.size(), 1u) << text;
        EXPECT_NE(run.errLines[0].find(text), std::string::npos) << run.errLines[0];
        EXPECT_EQ(run.out, "");
    }
    EXPECT_EQ(libraryFiles().size(), 2u);
}

TEST_F(QorImport, NothingToImportFailsWithOneLine) {
    init();
    const QorRun empty = qor({"import", card});
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.errLines, std::vector<std::string>{"qor: import: No images to import."});
    EXPECT_EQ(empty.out, "");

    write("card/notes.txt", {'h', 'i'});
    EXPECT_EQ(qor({"import", card, "--json"}).errLines,
              std::vector<std::string>{"qor: import: No images to import."});

    for (const std::vector<std::string>& bad : {std::vector<std::string>{"import"},
                                                {"import", card, "--duplicates", "maybe"},
                                                {"import", card, "--into"}}) {
        const QorRun run = qor(bad);
        EXPECT_EQ(run.status, 2) << bad.back();
        EXPECT_EQ(run.errLines.size(), 1u) << bad.back();
    }
}

// Ctrl-C while the files are copied: the job is cancelled, the program still waits for its end,
// saves the library and exits with 130; every file in the library is whole and known to it.
TEST_F(QorImport, CtrlCCancelsCleanlyAndTheLibraryStaysWhole) {
    init();
    constexpr int kFiles = 400;
    std::map<std::string, size_t> sizes;  // source name -> size
    for (int i = 0; i < kFiles; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "IMG_%04d.JPG", i);
        const Bytes shot = cameraShot("2026:07:01", i, 640, 480);
        sizes[name] = shot.size();
        write(std::string("card/") + name, shot);
    }
    const std::string out = folder.path() + "/out.txt", err = folder.path() + "/err.txt";

    bool interrupted = false;
    size_t imported = 0;
    for (int attempt = 0; attempt < 5 && !interrupted; ++attempt) {
        const pid_t pid = startQor({"import", card, "--library", library, "--json"}, out, err);
        ASSERT_GT(pid, 0);
        // The first copy is under way once the day's event folder exists.
        for (int i = 0; i < 20000 && !filesystem::exists(library + "/2026"); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ::kill(pid, SIGINT);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        ASSERT_TRUE(WEXITSTATUS(status) == 130 || WEXITSTATUS(status) == 0) << WEXITSTATUS(status);
        const Bytes outBytes = readFile(out);
        imported = Json::parse(outBytes.begin(), outBytes.end())["imported"].size();
        // Ended before the signal came, or the signal came after the last copy (a loaded
        // machine can be that late): once more.
        interrupted = WEXITSTATUS(status) == 130 && imported < size_t(kFiles);
        if (!interrupted) {
            std::filesystem::remove_all(library);
            init();
        }
    }
    ASSERT_TRUE(interrupted) << "every import had copied everything before Ctrl-C came";
    const Bytes errBytes = readFile(err);
    EXPECT_NE(std::string(errBytes.begin(), errBytes.end()).find("qor: import: interrupted"),
              std::string::npos);

    // The library loads; its event holds exactly the files that lie in its folder, each whole.
    const std::vector<std::string> files = libraryFiles();
    EXPECT_EQ(files.size(), imported);
    for (const std::string& file : files) {
        const auto known = sizes.find(filesystem::getName(file));
        ASSERT_NE(known, sizes.end()) << "a file the import did not name: " << file;
        EXPECT_EQ(filesystem::fileSize(file), known->second) << file;
    }
    const Json all = bags();
    size_t inBags = 0;
    for (const auto& [name, bag] : all.items()) inBags += bag["images"].get<size_t>();
    EXPECT_EQ(inBags, imported);

    // A later import of the same folder brings in the rest.
    const QorRun rest = qor({"import", card, "--duplicates", "skip", "--json"});
    ASSERT_EQ(rest.status, 0) << (rest.errLines.empty() ? "" : rest.errLines[0]);
    EXPECT_EQ(Json::parse(rest.out)["imported"].size() + imported, size_t(kFiles));
    EXPECT_EQ(libraryFiles().size(), size_t(kFiles));
}

}  // namespace
}  // namespace qor::imageio
