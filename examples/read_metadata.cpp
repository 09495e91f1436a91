// Prints the size, capture time, camera and position of a picture, and its raw metadata keys.
//   example_read_metadata FILE
#include <cstdio>

#include "base/Log.h"
#include "imageio/Metadata.h"
#include "imageio/MetadataReader.h"

int main(int argc, char** argv) {
    using namespace qor;
    using imageio::MetadataField;
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    qor::setLogLevel(qor::LogWarning);  // the library's own log: warnings and errors only
    // Reads EXIF, IPTC and XMP without decoding a pixel; null (logged) when the file is no
    // picture.
    SharedPtr<imageio::Metadata> metadata = imageio::readMetadata(argv[1]);
    if (!metadata) {
        std::fprintf(stderr, "no metadata in %s\n", argv[1]);
        return 1;
    }
    const auto size = metadata->size();
    std::printf("size:     %d x %d\n", size.x, size.y);
    std::printf("taken:    %s\n", metadata->captureTime().toString().c_str());
    imageio::Metadata::String make, model;
    if (metadata->get(MetadataField::MakeString, make) &&
        metadata->get(MetadataField::ModelString, model))
        std::printf("camera:   %s %s\n", make.c_str(), model.c_str());
    math::GenVec<double, 3> where;
    if (metadata->get(MetadataField::GPSCoordinates, where))
        std::printf("position: %.5f N, %.5f E\n", where.y, where.x);
    for (const auto& [key, value] : metadata->rawMap())
        std::printf("  %s = %s\n", key.c_str(), value.c_str());
    return 0;
}
