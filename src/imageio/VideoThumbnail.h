#pragma once
// Thumbnails of video files, through FFmpeg: a frame near the start of the video, as an 8-bit
// RGBA image (alpha 255) fitted inside the requested size, at most 256 by 256. FFmpeg's
// libraries are opened by the first call, not when the program starts.

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

// How large a video thumbnail may come out.
struct VideoThumbnailLimits {
    int largestSide = 256;  // the clamp of each side of the requested size
    bool enlarge = true;    // whether a frame smaller than the fit is scaled up to it
};

// Decodes the first frame at or after 1 second or a tenth of the video's length, whichever comes
// first, turned as the video is shown (sample aspect ratio and rotation), and scales it to fit
// inside `size` with each side clamped to limits.largestSide, 256 unless told (a side of 0 or less
// counts as that side). Without limits.enlarge a frame that already fits keeps its shown size.
//
// Outputs: `image`, when wanted (non-null) and empty, gets the thumbnail; `metadata`, when wanted
// and already holding a Metadata, gets Imagesize set to the thumbnail's size on it.
//
// Returns false, logging "SHCreateItemFromParsingName for file '%*' failed with error code %*"
// at level 1, when FFmpeg cannot open the file or finds no video stream in it, or when its
// libraries cannot be loaded on this machine (error code AVERROR(ENOSYS); the first call also
// logs the library and the loader's reason at warning level). Returns true with
// the image output untouched, logging "IShellItemImageFactory::GetImage for file '%*' failed with
// error code %*" at level 1, when the video has no frame that decodes. Blocks on file reads;
// re-entrant, and safe on any number of threads at once. Never throws.
bool loadVideoThumbnail(const FastString<char>& path, math::GenVec<int, 2> size, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const VideoThumbnailLimits& limits = {});

}  // namespace qor::imageio
