#pragma once
// How hard a load tries: the numbers are what binds.

namespace qor::imageio {

enum ImageQuality : int {
    ImageQualityFast = 0,       // JPEG: fast integer DCT
    ImageQualityThumbnail = 1,  // an embedded thumbnail or preview when the file has one
    ImageQualityBest = 2,       // JPEG: floating point DCT
};

}  // namespace qor::imageio
