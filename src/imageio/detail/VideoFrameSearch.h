#pragma once
// The search for the thumbnail frame of a video: packets read from the file go to the codec and
// frames come back, until one lies at or after the wanted time. The three FFmpeg calls come in as
// function objects, so that the exchange with the codec can be driven by a scripted one.
//
// Thread contract: one search runs on the calling thread and uses its codec alone.

#include <cstdint>
#include <functional>
#include <memory>

#include "imageio/detail/FfmpegCalls.h"

namespace qor::imageio::detail {

struct FrameFree {
    const FfmpegCalls* ffmpeg = nullptr;
    void operator()(AVFrame* frame) const { ffmpeg->av_frame_free(&frame); }
};
using VideoFrame = std::unique_ptr<AVFrame, FrameFree>;

// The calls of one video stream, with FFmpeg's answers: 0 or more for success, AVERROR(EAGAIN)
// and AVERROR_EOF as avcodec documents them, other negative values for errors.
struct VideoCodecCalls {
    std::function<int(AVPacket*)> readPacket;        // av_read_frame
    std::function<int(const AVPacket*)> sendPacket;  // avcodec_send_packet; null starts draining
    std::function<int(AVFrame*)> receiveFrame;       // avcodec_receive_frame
};

// Packets read after the seek before the last decoded frame is taken as it is.
constexpr int kMaxVideoPackets = 2000;

// Sends the packets of stream `streamIndex` to the codec and takes its frames until one has a
// best-effort time at or after `target` (any frame when `target` is AV_NOPTS_VALUE, or when a
// frame has no time). A packet the codec refuses with EAGAIN is sent again once its ready frames
// are read, so that no packet is lost; a codec that refuses a packet with no frame ready ends the
// search (error AVERROR(EAGAIN)). At the end of the file the codec is drained; at the end of its
// frames, or after kMaxVideoPackets packets, the last frame decoded is taken. Null when no frame
// decodes; `error` then holds the codec's last error (AVERROR_EOF when there was none). The packet
// and the frames come from `ffmpeg`. Blocks on the reads. Never throws.
VideoFrame findFrameAt(const FfmpegCalls& ffmpeg, const VideoCodecCalls& calls, int streamIndex,
                       int64_t target, int& error);

}  // namespace qor::imageio::detail
