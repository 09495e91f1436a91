#pragma once
// The functions of FFmpeg that the library calls, in tables filled when they are first needed
// rather than linked: libavformat and libavcodec pull in some 130 shared libraries, libavutil
// some 20, and a program that reads no video and enlarges no picture needs none of them. The
// scaler (libswscale, libavutil) is opened by the first enlargement or video, the rest by the
// first video.
//
// Thread contract: scalerCalls() and ffmpegCalls() may be called on any thread; the first call of
// each opens its libraries while any others wait for it. The tables never change afterwards and
// are never freed.

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace qor::imageio::detail {

// The library file names, with the major versions of the headers built against.
inline constexpr const char* kAvutilLibrary = "libavutil.so." AV_STRINGIFY(LIBAVUTIL_VERSION_MAJOR);
inline constexpr const char* kSwscaleLibrary =
    "libswscale.so." AV_STRINGIFY(LIBSWSCALE_VERSION_MAJOR);
inline constexpr const char* kAvcodecLibrary =
    "libavcodec.so." AV_STRINGIFY(LIBAVCODEC_VERSION_MAJOR);
inline constexpr const char* kAvformatLibrary =
    "libavformat.so." AV_STRINGIFY(LIBAVFORMAT_VERSION_MAJOR);

#define QOR_SCALER_FUNCTIONS(X) \
    X(sws_getContext)           \
    X(sws_scale)                \
    X(sws_freeContext)

#define QOR_FFMPEG_FUNCTIONS(X)      \
    QOR_SCALER_FUNCTIONS(X)          \
    X(av_log_set_callback)           \
    X(av_log_format_line2)           \
    X(av_dict_set)                   \
    X(av_dict_free)                  \
    X(av_display_rotation_get)       \
    X(av_rescale_q)                  \
    X(av_frame_alloc)                \
    X(av_frame_free)                 \
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
#define QOR_FFMPEG_POINTER(name) decltype(&::name) name = nullptr;
// libswscale's scaling, for the decoders' enlargements.
struct ScalerCalls {
    QOR_SCALER_FUNCTIONS(QOR_FFMPEG_POINTER)
};
// Everything the video thumbnails call, the scaler included.
struct FfmpegCalls {
    QOR_FFMPEG_FUNCTIONS(QOR_FFMPEG_POINTER)
};
#undef QOR_FFMPEG_POINTER

// The tables, opened and resolved on the first call of each. Null when a library does not open or
// lacks a function: the first call logs which (one line at warning level), and later calls return
// null at once without trying again. Block on the loader on the first call. Never throw.
const ScalerCalls* scalerCalls();
const FfmpegCalls* ffmpegCalls();

}  // namespace qor::imageio::detail
