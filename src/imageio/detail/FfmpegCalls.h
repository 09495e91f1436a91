#pragma once
// The functions of libavformat and libavcodec that the video thumbnails call. These two libraries
// (and the hundred-odd libraries they pull in) are opened on the first video, not when the program
// starts: the video code calls them through this table. libavutil and libswscale, which the image
// decoders' resizing uses as well and which cost little to load, stay linked.
//
// Thread contract: ffmpegCalls() may be called on any thread; the first call opens the libraries
// while any others wait for it. The table never changes afterwards and is never freed.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace qor::imageio::detail {

// The library file names, with the major versions of the headers built against.
inline constexpr const char* kAvcodecLibrary =
    "libavcodec.so." AV_STRINGIFY(LIBAVCODEC_VERSION_MAJOR);
inline constexpr const char* kAvformatLibrary =
    "libavformat.so." AV_STRINGIFY(LIBAVFORMAT_VERSION_MAJOR);

#define QOR_FFMPEG_FUNCTIONS(X)      \
    X(avformat_open_input)           \
    X(avformat_close_input)          \
    X(avformat_find_stream_info)     \
    X(av_find_best_stream)           \
    X(av_stream_get_side_data)       \
    X(av_seek_frame)                 \
    X(av_read_frame)                 \
    X(avcodec_alloc_context3)        \
    X(avcodec_free_context)          \
    X(avcodec_parameters_to_context) \
    X(avcodec_open2)                 \
    X(avcodec_send_packet)           \
    X(avcodec_receive_frame)         \
    X(av_packet_alloc)               \
    X(av_packet_free)                \
    X(av_packet_unref)

// One pointer for each function, named as the function and typed as its header declares it.
struct FfmpegCalls {
#define QOR_FFMPEG_POINTER(name) decltype(&::name) name = nullptr;
    QOR_FFMPEG_FUNCTIONS(QOR_FFMPEG_POINTER)
#undef QOR_FFMPEG_POINTER
};

// The table, opened and resolved on the first call. Null when a library does not open or lacks a
// function: the first call logs which (one line at warning level), and later calls return null at
// once without trying again. Blocks on the loader on the first call. Never throws.
const FfmpegCalls* ffmpegCalls();

}  // namespace qor::imageio::detail
