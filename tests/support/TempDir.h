#pragma once
// A fresh folder under $TMPDIR (or /tmp), removed with everything in it at the end of the test.

#include <stdlib.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "base/filesystem/Path.h"

namespace qor::test {

class TempDir {
public:
    explicit TempDir(const char* base = nullptr, std::string_view prefix = "qor-files") {
        if (!base) base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base && *base ? base : "/tmp") + "/" + std::string(prefix) + "-XXXXXX";
        if (::mkdtemp(pattern.data())) _path = pattern;
    }
    ~TempDir() {
        if (!_path.empty()) filesystem::removeAll(_path);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool ok() const { return !_path.empty(); }
    const std::string& path() const { return _path; }
    std::string operator/(std::string_view name) const { return filesystem::pathJoin(_path, name); }

private:
    std::string _path;
};

}  // namespace qor::test
