#pragma once
// The fixture of the library tests: a library in a temporary folder with the test bag types.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "../support/TempDir.h"
#include "LibraryTestBags.h"

namespace qor::mediadb::testing {

// A library in a fresh temporary folder ("<tmp>/lib/"), with the test bag types and one settings
// key ("title", a string) registered. reopen() destroys it (saving) and loads it again.
class LibraryFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(_dir.ok());
        open();
    }
    void TearDown() override { library.reset(); }

    void open(bool load = true) {
        images = std::make_unique<ImageManager>();
        library = std::make_unique<Library>(images.get(), &connector, libraryPath());
        registerTestBags(*library);
        library->registerProperty(ResourceProperty(RptString), "title");
        if (load) library->load();
    }
    void reopen() {
        library.reset();
        open();
    }

    std::string libraryPath() const { return _dir / "lib/"; }
    std::string path(const std::string& relative) const {
        return filesystem::pathJoin(_dir / "lib", relative);
    }
    std::string outside(const std::string& relative) const { return _dir / relative; }

    // A picture file outside the library, to be copied in.
    std::string sourceFile(const std::string& name, const std::string& content = "picture") {
        std::string file = outside("src/" + name);
        writeFile(file, content);
        return file;
    }

    // The names of the images of a bag, by leaf, sorted.
    std::vector<std::string> imageLeaves(ResourceID bagId) const {
        std::vector<std::string> leaves;
        SharedPtr<const Bag> b = library->bag(bagId);
        if (!b) return leaves;
        for (const ResourceID& id : b->images())
            leaves.push_back(filesystem::leaf(library->getImageResourceName(id).localPath()));
        std::sort(leaves.begin(), leaves.end());
        return leaves;
    }

    // The first bag of a type with that name.
    ResourceID bagNamed(const std::string& name) const {
        for (const ResourceID& id : library->bags())
            if (auto b = library->bag(id); b && b->name() == name) return id;
        return InvalidResourceID;
    }

    test::TempDir _dir;
    RecordingConnector connector;
    std::unique_ptr<ImageManager> images;
    std::unique_ptr<Library> library;
};

// Starts the child program (tests/mediadb_child) with `args`; -1 when it cannot be started. The
// child is forked and at once replaces itself, so it begins with threads of its own.
inline pid_t startChild(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    std::string program = QOR_MEDIADB_CHILD;
    argv.push_back(program.data());
    std::vector<std::string> copies = args;
    for (std::string& arg : copies) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    return pid;
}

// The exit code of a child, -1 when it did not exit (killed), -2 when it could not be waited for.
inline int waitChild(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return -2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace qor::mediadb::testing
