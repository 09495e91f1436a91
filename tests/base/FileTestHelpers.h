#pragma once
// Small file helpers shared by the base layer's file tests.

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/filesystem/Path.h"

namespace qor::test {

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The names in a folder, sorted by name; none when it does not exist.
inline std::vector<std::string> listNames(const std::string& folder) {
    std::vector<std::string> names;
    if (!filesystem::exists(folder)) return names;
    for (filesystem::UrlIterator it(folder); it.valid(); it.next()) names.push_back(it.name());
    return names;
}

}  // namespace qor::test
