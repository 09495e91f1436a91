// The image log with its PNG writer, as a person would use it: a source saved to a file with the
// log on leaves PNGs that decode to the tiles' and rows' pixels, SVGs that rsvg-convert renders,
// and an index.html that links them all; the saved file is the same as without the log.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "../support/SvgRender.h"
#include "../support/TempDir.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/xml/XmlDocument.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageLogPng.h"
#include "imageio/ImageSaver.h"
#include "imaging/Image.h"
#include "imaging/ImageLog.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"

namespace qor::imageio {
namespace {

using imaging::ImageLog;
using imaging::ImageSource;
using imaging::ImageTile;
using math::GenVec;
using math::Recti;
using test::TempDir;

unsigned char pixel(int x, int y, int c) {
    switch (c) {
        case 0:
            return (unsigned char)(x * 3);
        case 1:
            return (unsigned char)(y * 5);
        case 2:
            return (unsigned char)((x ^ y) * 7);
        default:
            return (unsigned char)(200 + (x + y) % 50);
    }
}

// An RGBA8 picture of `pixel`, computed tile by tile through jobs.
class PatternSource : public ImageSource {
public:
    static SharedPtr<PatternSource> create(GenVec<int, 2> size, GenVec<int, 2> tile) {
        auto* s = new PatternSource(size, tile);
        return std::static_pointer_cast<PatternSource>(s->setupSelfRef());
    }
    imaging::TileLayout tileLayout() const override { return _layout; }

protected:
    PatternSource(GenVec<int, 2> size, GenVec<int, 2> tile)
        : ImageSource(size, imaging::PfRGBA8), _layout(size, tile, GenVec<int, 2>(0, 0), size) {}
    bool defaultCachingState() const override { return false; }
    SharedPtr<const ImageTile> computeTileData(unsigned int x, unsigned int y) override {
        const Recti rect = _layout.getTileRect(int(x), int(y));
        SharedPtr<ImageTile> tile = ImageTile::create(rect.size(), imaging::PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < rect.height(); ++j)
            for (int i = 0; i < rect.width(); ++i)
                for (int c = 0; c < 4; ++c)
                    data->at(i, j, c) = pixel(rect.xmin() + i, rect.ymin() + j, c);
        return tile;
    }

private:
    const imaging::TileLayout _layout;
};

std::string readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Mismatching samples of `picture` against `pixel` over `rect`.
int mismatches(const test::RgbaPicture& picture, const Recti& rect) {
    if (picture.width != rect.width() || picture.height != rect.height()) return -1;
    int bad = 0;
    for (int y = 0; y < rect.height(); ++y)
        for (int x = 0; x < rect.width(); ++x) {
            const auto p = picture.at(x, y);
            const int got[4] = {p.r, p.g, p.b, p.a};
            for (int c = 0; c < 4; ++c) bad += got[c] != pixel(rect.xmin() + x, rect.ymin() + y, c);
        }
    return bad;
}

struct IndexRow {
    std::string kind, what, size, format, link;
};

std::vector<IndexRow> readIndex(const std::string& folder) {
    std::vector<IndexRow> rows;
    XmlDocumentRapid doc;
    EXPECT_TRUE(doc.load(filesystem::pathJoin(folder, "index.html")));
    for (NodeIterator tr : doc.root().child("body").child("table").children("tr")) {
        std::vector<NodeIterator> cells;
        for (NodeIterator td : tr.children("td")) cells.push_back(td);
        if (cells.size() != 8) continue;
        rows.push_back(IndexRow{std::string(cells[2].text()), std::string(cells[3].text()),
                                std::string(cells[4].text()), std::string(cells[5].text()),
                                std::string(cells[6].child("a").attribute("href"))});
    }
    return rows;
}

// Saves a 150 x 90 pattern in tiles of 64 as TIFF to `path`.
void savePattern(const std::string& path) {
    auto source = PatternSource::create({150, 90}, {64, 64});
    SharedPtr<imaging::Image> image = imaging::Image::create(source);
    ImageSaverTIFF tiff;
    ImageSaver saver(image, &tiff);
    saver.save(FastString<char>(path), imaging::PfRGBA8);
    EXPECT_EQ(saver.status(), ImageSaver::SaveFinished);
}

}  // namespace

TEST(ImageLogPng, ASaveLeavesPicturesOfItsTilesRowsAndRequestsLinkedFromTheIndex) {
    installImageLogPngWriter();
    ImageLog::stop();
    TempDir dir;
    const std::string folder = dir / "log";
    savePattern(dir / "without.tif");
    EXPECT_FALSE(filesystem::exists(folder)) << "the log is off by default";

    ASSERT_TRUE(ImageLog::start(folder));
    savePattern(dir / "with.tif");
    ImageLog::stop();
    EXPECT_EQ(readBytes(dir / "with.tif"), readBytes(dir / "without.tif"))
        << "the log changes nothing in what is saved";

    const std::vector<IndexRow> rows = readIndex(folder);
    std::set<std::string> kinds;
    int sourceTiles = 0, rowBands = 0, svgs = 0;
    for (const IndexRow& row : rows) {
        SCOPED_TRACE(row.link);
        kinds.insert(row.kind);
        const std::string path = filesystem::pathJoin(folder, row.link);
        ASSERT_TRUE(filesystem::exists(path));
        int x = 0, y = 0, first = 0, last = 0;
        if (row.format == "SVG") {
            ++svgs;
            const test::RgbaPicture picture = test::renderSvgToPicture(path);
            EXPECT_EQ(std::to_string(picture.width) + " x " + std::to_string(picture.height),
                      row.size);
            if (row.kind == "request") {
                // The layout at 640 / 150 pixels a pixel, 10 from the left and 34 from the top:
                // every tile of the save was handed out, drawn green over the grey image.
                const double scale = 640.0 / 150.0;
                EXPECT_COLOR(picture, int(10 + 16 * scale), int(34 + 16 * scale), 0x7fcc7f, 6);
                EXPECT_COLOR(picture, int(10 + 140 * scale), int(34 + 80 * scale), 0x7fcc7f, 6);
            }
            continue;
        }
        EXPECT_EQ(row.format, "RGBA8u");
        const test::RgbaPicture picture = test::readPng(path);
        if (std::sscanf(row.link.c_str(), "%*5d-source%*d-tile-%d-%d.png", &x, &y) == 2) {
            ++sourceTiles;
            const Recti rect(x * 64, y * 64, std::min(64, 150 - x * 64), std::min(64, 90 - y * 64));
            EXPECT_EQ(mismatches(picture, rect), 0);
        } else if (std::sscanf(row.link.c_str(), "%*5d-saver-rows-%d-%d.png", &first, &last) == 2) {
            ++rowBands;
            EXPECT_EQ(mismatches(picture, Recti(0, first, 150, last - first + 1)), 0);
        }
    }
    EXPECT_EQ(sourceTiles, 6);
    EXPECT_EQ(rowBands, 2) << "one band per tile row";
    EXPECT_EQ(svgs, 2) << "the source's layout and the save's request";
    EXPECT_EQ(kinds, (std::set<std::string>{"source tile", "request tile", "saver rows",
                                            "tile layout", "request"}));
}

}  // namespace qor::imageio
