#include "imageio/VideoThumbnail.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "base/Log.h"
#include "imageio/decoders/detail/DecodeSupport.h"
#include "imageio/detail/FfmpegCalls.h"
#include "imageio/detail/VideoFrameSearch.h"

namespace qor::imageio {

namespace {

using detail::Rgba8Image;

// The frame is taken at this time or at a tenth of the length, whichever is earlier.
constexpr int64_t kThumbnailTime = AV_TIME_BASE;  // 1 second

// FFmpeg's warnings and errors go to our log at debug level; its chatter below that is dropped.
void logFromFfmpeg(void* context, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_WARNING) return;
    char line[1024];
    int printPrefix = 1;
    // Only ever installed by the table, so the table is there.
    detail::ffmpegCalls()->av_log_format_line2(context, level, format, arguments, line, sizeof line,
                                               &printPrefix);
    std::string_view text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    QOR_LOG(LogDebug, "FFmpeg: %*", text);
}

using detail::FfmpegCalls;

void routeFfmpegLog(const FfmpegCalls& ffmpeg) {
    static std::once_flag once;
    std::call_once(once, [&ffmpeg] { ffmpeg.av_log_set_callback(logFromFfmpeg); });
}

struct InputClose {
    const FfmpegCalls* ffmpeg;
    void operator()(AVFormatContext* input) const { ffmpeg->avformat_close_input(&input); }
};
struct CodecFree {
    const FfmpegCalls* ffmpeg;
    void operator()(AVCodecContext* codec) const { ffmpeg->avcodec_free_context(&codec); }
};
struct ScalerFree {
    const FfmpegCalls* ffmpeg;
    void operator()(SwsContext* scaler) const { ffmpeg->sws_freeContext(scaler); }
};
using Input = std::unique_ptr<AVFormatContext, InputClose>;
using Codec = std::unique_ptr<AVCodecContext, CodecFree>;
using Scaler = std::unique_ptr<SwsContext, ScalerFree>;

// FFmpeg takes a location as a URL; a plain path goes through its file protocol, so that no name
// can reach another protocol.
std::string fileUrl(const FastString<char>& path) {
    const std::string_view p = path.view();
    if (p.substr(0, 5) == "file:") return std::string(p);
    return "file:" + std::string(p);
}

// The clockwise rotation, in quarter turns, with which the stream is meant to be shown.
int quarterTurns(const FfmpegCalls& ffmpeg, const AVStream* stream) {
    const uint8_t* matrix =
        ffmpeg.av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
    if (!matrix) return 0;
    const double degrees =
        -ffmpeg.av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
    if (std::isnan(degrees)) return 0;
    return ((int(std::lround(degrees / 90.0)) % 4) + 4) % 4;
}

// The time of the thumbnail frame in the stream's time base, and whether to seek there.
int64_t thumbnailTime(const FfmpegCalls& ffmpeg, const AVFormatContext* input,
                      const AVStream* stream) {
    if (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) return AV_NOPTS_VALUE;
    int64_t length = input->duration;
    if ((length == AV_NOPTS_VALUE || length <= 0) && stream->duration != AV_NOPTS_VALUE &&
        stream->duration > 0)
        length = ffmpeg.av_rescale_q(stream->duration, stream->time_base, AV_TIME_BASE_Q);
    if (length == AV_NOPTS_VALUE || length <= 0) return AV_NOPTS_VALUE;
    const int64_t at = std::min(kThumbnailTime, length / 10);
    const int64_t start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    return start + ffmpeg.av_rescale_q(at, AV_TIME_BASE_Q, stream->time_base);
}

// `image` turned clockwise by `turns` quarter turns.
SharedPtr<Rgba8Image> rotate(const SharedPtr<Rgba8Image>& image, int turns) {
    if (turns == 0) return image;
    const int w = image->width();
    const int h = image->height();
    const bool swap = turns % 2 == 1;
    SharedPtr<Rgba8Image> turned = Rgba8Image::create(swap ? h : w, swap ? w : h);
    for (int y = 0; y < h; ++y) {
        const uint32_t* in = reinterpret_cast<const uint32_t*>(image->row(y));
        for (int x = 0; x < w; ++x) {
            int tx = x, ty = y;
            if (turns == 1) tx = h - 1 - y, ty = x;
            if (turns == 2) tx = w - 1 - x, ty = h - 1 - y;
            if (turns == 3) tx = y, ty = w - 1 - x;
            std::memcpy(&turned->at(tx, ty), in + x, 4);
        }
    }
    return turned;
}

// The frame scaled to fit inside `box` as it is shown, converted to RGBA. Null when the frame's
// format or size is not usable.
SharedPtr<Rgba8Image> toThumbnail(const FfmpegCalls& ffmpeg, const AVFrame& frame,
                                  const AVStream* stream, math::GenVec<int, 2> box, bool enlarge,
                                  const FastString<char>& path) {
    if (!detail::plausibleSize(frame.width, frame.height)) return nullptr;
    AVRational aspect = frame.sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0) aspect = stream->sample_aspect_ratio;
    double shownWidth = frame.width;
    if (aspect.num > 0 && aspect.den > 0) shownWidth = frame.width * av_q2d(aspect);
    const int turns = quarterTurns(ffmpeg, stream);
    math::GenVec<int, 2> shown(std::max(1, int(std::lround(shownWidth))), frame.height);
    if (turns % 2 == 1) shown = math::GenVec<int, 2>(shown.y, shown.x);
    math::GenVec<int, 2> fitted =
        !enlarge && shown.x <= box.x && shown.y <= box.y ? shown : fitInside(shown, box);
    // The scaler works in the frame's orientation; the turn comes after.
    if (turns % 2 == 1) fitted = math::GenVec<int, 2>(fitted.y, fitted.x);

    const bool reduces = fitted.x <= frame.width && fitted.y <= frame.height;
    Scaler scaler(ffmpeg.sws_getContext(
                      frame.width, frame.height, AVPixelFormat(frame.format), fitted.x, fitted.y,
                      AV_PIX_FMT_RGBA, reduces ? SWS_AREA : SWS_BICUBIC, nullptr, nullptr, nullptr),
                  ScalerFree{&ffmpeg});
    if (!scaler) return nullptr;
    SharedPtr<Rgba8Image> image = detail::allocateRgba(fitted.x, fitted.y, path);
    if (!image) return nullptr;
    uint8_t* planes[4] = {image->data(), nullptr, nullptr, nullptr};
    int strides[4] = {int(image->byteStride()), 0, 0, 0};
    if (ffmpeg.sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, planes,
                         strides) != fitted.y)
        return nullptr;
    return rotate(image, turns);
}

}  // namespace

bool loadVideoThumbnail(const FastString<char>& path, math::GenVec<int, 2> size, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const VideoThumbnailLimits& limits) {
    const FfmpegCalls* ffmpeg = detail::ffmpegCalls();
    if (!ffmpeg) {
        QOR_LOG(LogDebug, "SHCreateItemFromParsingName for file '%*' failed with error code %*",
                path, AVERROR(ENOSYS));
        return false;
    }
    routeFfmpegLog(*ffmpeg);
    AVFormatContext* opened = nullptr;
    AVDictionary* options = nullptr;
    ffmpeg->av_dict_set(&options, "protocol_whitelist", "file", 0);
    int error = ffmpeg->avformat_open_input(&opened, fileUrl(path).c_str(), nullptr, &options);
    ffmpeg->av_dict_free(&options);
    Input input(opened, InputClose{ffmpeg});
    if (error >= 0) error = ffmpeg->avformat_find_stream_info(input.get(), nullptr);
    const AVCodec* decoder = nullptr;
    if (error >= 0)
        error = ffmpeg->av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    if (error < 0 || !decoder) {
        QOR_LOG(LogDebug, "SHCreateItemFromParsingName for file '%*' failed with error code %*",
                path, error);
        return false;
    }
    const int streamIndex = error;
    AVStream* stream = input->streams[streamIndex];
    const bool imageWanted = detail::wanted(image);
    const bool metadataPresent = metadata && *metadata;
    if (!imageWanted && !metadataPresent) return true;

    // A stream that claims a frame larger than any thumbnail source is not decoded at all.
    const AVCodecParameters* parameters = stream->codecpar;
    const bool sizeKnown = parameters->width > 0 && parameters->height > 0;
    Codec codec(ffmpeg->avcodec_alloc_context3(decoder), CodecFree{ffmpeg});
    if (sizeKnown && !detail::plausibleSize(parameters->width, parameters->height))
        error = AVERROR(ERANGE);
    else
        error = codec ? ffmpeg->avcodec_parameters_to_context(codec.get(), parameters)
                      : AVERROR(ENOMEM);
    if (error >= 0) error = ffmpeg->avcodec_open2(codec.get(), decoder, nullptr);
    detail::VideoFrame frame;
    if (error >= 0) {
        const int64_t target = thumbnailTime(*ffmpeg, input.get(), stream);
        if (target != AV_NOPTS_VALUE &&
            ffmpeg->av_seek_frame(input.get(), streamIndex, target, AVSEEK_FLAG_BACKWARD) < 0)
            ffmpeg->av_seek_frame(input.get(), streamIndex, 0, AVSEEK_FLAG_BACKWARD);
        AVFormatContext* file = input.get();
        AVCodecContext* decoding = codec.get();
        const detail::VideoCodecCalls calls{
            [ffmpeg, file](AVPacket* packet) { return ffmpeg->av_read_frame(file, packet); },
            [ffmpeg, decoding](const AVPacket* packet) {
                return ffmpeg->avcodec_send_packet(decoding, packet);
            },
            [ffmpeg, decoding](AVFrame* out) {
                return ffmpeg->avcodec_receive_frame(decoding, out);
            }};
        frame = detail::findFrameAt(*ffmpeg, calls, streamIndex, target, error);
    }
    SharedPtr<Rgba8Image> thumbnail;
    if (frame) {
        const int largest = limits.largestSide;
        const math::GenVec<int, 2> box(size.x > 0 ? std::min(size.x, largest) : largest,
                                       size.y > 0 ? std::min(size.y, largest) : largest);
        try {
            thumbnail = toThumbnail(*ffmpeg, *frame, stream, box, limits.enlarge, path);
        } catch (const std::bad_alloc&) {
            thumbnail = nullptr;
        }
        if (!thumbnail) error = AVERROR(EINVAL);
    }
    if (!thumbnail) {
        QOR_LOG(LogDebug,
                "IShellItemImageFactory::GetImage for file '%*' failed with error code %*", path,
                error);
        return true;
    }
    if (metadataPresent)
        (*metadata)->set(MetadataField::Imagesize, Vec2i(thumbnail->width(), thumbnail->height()));
    if (imageWanted) *image = std::move(thumbnail);
    return true;
}

}  // namespace qor::imageio
