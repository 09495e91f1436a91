#pragma once
// SVG files and HTML pages checked by renderers no one here wrote: rsvg-convert (librsvg2-bin)
// turns an SVG file into PNG, headless Chromium takes a screenshot of a page; libpng reads the
// result back as 8-bit RGBA. scripts/setup.sh installs both; a missing one fails the test that
// asks for it. Tests that use this link libpng.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <png.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

extern char** environ;

namespace qor::test {

struct RgbaPicture {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;  // RGBA, rows top down, no padding

    struct Pixel {
        int r, g, b, a;
    };
    Pixel at(int x, int y) const {
        const size_t i = (size_t(y) * size_t(width) + size_t(x)) * 4;
        return Pixel{pixels[i], pixels[i + 1], pixels[i + 2], pixels[i + 3]};
    }
};

inline std::ostream& operator<<(std::ostream& out, const RgbaPicture::Pixel& p) {
    return out << '(' << p.r << ", " << p.g << ", " << p.b << ", " << p.a << ')';
}

// Whether every channel of `p` lies within `tolerance` of the colour 0xRRGGBB (alpha: `alpha`).
inline bool near(const RgbaPicture::Pixel& p, std::uint32_t rgb, int tolerance = 8,
                 int alpha = 255) {
    auto close = [&](int a, int b) { return a - b <= tolerance && b - a <= tolerance; };
    return close(p.r, int(rgb >> 16 & 0xff)) && close(p.g, int(rgb >> 8 & 0xff)) &&
           close(p.b, int(rgb & 0xff)) && close(p.a, alpha);
}

// Expects the pixel (x, y) of `picture` within `tolerance` of the opaque colour 0xRRGGBB.
#define EXPECT_COLOR(picture, x, y, rgb, tolerance)                            \
    EXPECT_TRUE(::qor::test::near((picture).at((x), (y)), (rgb), (tolerance))) \
        << "pixel (" << (x) << ", " << (y) << ") is " << (picture).at((x), (y))

// Reads any PNG as 8-bit RGBA. An unreadable file gives an empty picture and a test failure.
inline RgbaPicture readPng(const std::string& path) {
    RgbaPicture out;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        ADD_FAILURE() << "cannot read PNG " << path << ": " << image.message;
        return out;
    }
    image.format = PNG_FORMAT_RGBA;
    out.width = int(image.width);
    out.height = int(image.height);
    out.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.pixels.data(), 0, nullptr)) {
        ADD_FAILURE() << "cannot decode PNG " << path << ": " << image.message;
        png_image_free(&image);
        return RgbaPicture{};
    }
    return out;
}

// Writes an 8-bit RGBA picture as PNG.
inline bool writePng(const std::string& path, int width, int height,
                     const std::vector<std::uint8_t>& rgba) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = png_uint_32(width);
    image.height = png_uint_32(height);
    image.format = PNG_FORMAT_RGBA;
    return png_image_write_to_file(&image, path.c_str(), 0, rgba.data(), 0, nullptr) != 0;
}

// Runs argv[0] (found on PATH) with its output to /dev/null and waits for it. Fails the test (and
// returns false) when it cannot be run or exits with another status than 0; `package` names what
// installs it.
inline bool runTool(const std::vector<std::string>& args, const char* package) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        ADD_FAILURE() << args[0] << " cannot be run (" << std::strerror(spawned)
                      << "); scripts/setup.sh installs it (Debian: " << package << ")";
        return false;
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        ADD_FAILURE() << args[0] << " failed on " << args.back() << " (status " << status << ")";
        return false;
    }
    return true;
}

// Renders `svg` into `png` with rsvg-convert at the SVG's own size. Fails the test (and returns
// false) when rsvg-convert is missing or rejects the file.
inline bool renderSvg(const std::string& svg, const std::string& png) {
    return runTool({"rsvg-convert", "--format=png", "-o", png, svg}, "librsvg2-bin");
}

// A screenshot of the page `html` (a file) as headless Chromium shows it in a window of
// width x height, into `png`; `profile` is an empty folder for the browser's own files. The
// flags keep Chromium off the network, which a test machine may not have.
inline bool screenshotPage(const std::string& html, const std::string& png, int width, int height,
                           const std::string& profile) {
    return runTool(
        {"timeout", "120", "chromium", "--headless", "--no-sandbox", "--disable-gpu",
         "--disable-quic", "--no-first-run", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--hide-scrollbars",
         "--user-data-dir=" + profile, "--screenshot=" + png,
         "--window-size=" + std::to_string(width) + "," + std::to_string(height), "file://" + html},
        "chromium");
}

// renderSvg, then readPng.
inline RgbaPicture renderSvgToPicture(const std::string& svg) {
    const std::string png = svg + ".png";
    if (!renderSvg(svg, png)) return RgbaPicture{};
    return readPng(png);
}

}  // namespace qor::test
