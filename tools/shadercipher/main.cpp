// shadercipher: encodes a folder of shader sources for renderers that read encoded shaders.
//
//   qor_shadercipher <source folder> <output folder>
//
// Every "*.glsl" file below the source folder is written, encoded (see gpu/ShaderCipher.h), to
// the same relative place below the output folder, without its ".glsl" ending. Other files are
// left alone. Exits 1 with one line on standard error when a folder or file cannot be used.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "gpu/ShaderCipher.h"

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: qor_shadercipher <source folder> <output folder>\n";
        return 1;
    }
    const fs::path source = argv[1], output = argv[2];
    std::error_code ec;
    if (!fs::is_directory(source, ec)) {
        std::cerr << "qor_shadercipher: '" << source.string() << "' is not a folder\n";
        return 1;
    }
    int count = 0;
    for (fs::recursive_directory_iterator it(source, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file() || it->path().extension() != ".glsl") continue;
        std::ifstream in(it->path(), std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        if (!in) {
            std::cerr << "qor_shadercipher: cannot read '" << it->path().string() << "'\n";
            return 1;
        }
        fs::path target = output / fs::relative(it->path(), source);
        target.replace_extension();
        fs::create_directories(target.parent_path(), ec);
        std::ofstream out(target, std::ios::binary | std::ios::trunc);
        out << qor::gpu::encodeShader(text.str());
        if (!out.flush()) {
            std::cerr << "qor_shadercipher: cannot write '" << target.string() << "'\n";
            return 1;
        }
        ++count;
    }
    if (ec) {
        std::cerr << "qor_shadercipher: " << ec.message() << "\n";
        return 1;
    }
    std::cout << "encoded " << count << " shader files into " << output.string() << "\n";
    return 0;
}
