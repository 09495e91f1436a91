#include "imageio/detail/VideoFrameSearch.h"

#include "base/Log.h"

namespace qor::imageio::detail {

namespace {

struct PacketFree {
    const FfmpegCalls* ffmpeg;
    void operator()(AVPacket* packet) const { ffmpeg->av_packet_free(&packet); }
};
using Packet = std::unique_ptr<AVPacket, PacketFree>;

// One search: the frame being received, the last one decoded before the target, and the error.
class FrameSearch {
public:
    FrameSearch(const FfmpegCalls& ffmpeg, const VideoCodecCalls& calls, int64_t target, int& error)
        : _ffmpeg(ffmpeg),
          _calls(calls),
          _target(target),
          _error(error),
          _frame(ffmpeg.av_frame_alloc(), FrameFree{&ffmpeg}),
          _last(nullptr, FrameFree{&ffmpeg}) {}

    // What reading the codec's ready frames came to.
    enum Outcome {
        NoFrameReady,  // the codec wants input
        Found,         // a frame at or after the target: take()
        Ended,         // no more frames, or no memory: take() gives the last one
    };

    // Receives frames until the codec has none ready. Sets `received` to how many came.
    Outcome receiveReady(int& received) {
        received = 0;
        for (;;) {
            if (!_frame) return Ended;
            const int answer = _calls.receiveFrame(_frame.get());
            if (answer == AVERROR(EAGAIN)) return NoFrameReady;
            if (answer < 0) {
                if (answer != AVERROR_EOF) _error = answer;
                return Ended;
            }
            ++received;
            const int64_t time = _frame->best_effort_timestamp;
            if (_target == AV_NOPTS_VALUE || time == AV_NOPTS_VALUE || time >= _target) {
                _found = true;
                return Found;
            }
            _last = std::move(_frame);
            _frame.reset(_ffmpeg.av_frame_alloc());
        }
    }

    // Sends `packet` (null to drain), reading ready frames first as long as the codec answers
    // EAGAIN. NoFrameReady when the packet was taken.
    Outcome send(const AVPacket* packet) {
        for (;;) {
            const int answer = _calls.sendPacket(packet);
            if (answer != AVERROR(EAGAIN)) {
                if (answer < 0 && answer != AVERROR_EOF) _error = answer;
                return NoFrameReady;
            }
            int received = 0;
            const Outcome outcome = receiveReady(received);
            if (outcome != NoFrameReady) return outcome;
            if (received == 0) {
                // Neither input nor output: a codec in that state would hold this loop forever.
                QOR_LOG(LogDebug, "findFrameAt: the codec refuses input and has no frame ready");
                _error = AVERROR(EAGAIN);
                return Ended;
            }
        }
    }

    VideoFrame take() { return _found ? std::move(_frame) : std::move(_last); }
    // False when the first frame could not be allocated.
    bool allocated() const { return bool(_frame); }

private:
    const FfmpegCalls& _ffmpeg;
    const VideoCodecCalls& _calls;
    const int64_t _target;
    int& _error;
    VideoFrame _frame;  // receives the next frame
    VideoFrame _last;   // the last frame before the target
    bool _found = false;
};

}  // namespace

VideoFrame findFrameAt(const FfmpegCalls& ffmpeg, const VideoCodecCalls& calls, int streamIndex,
                       int64_t target, int& error) {
    error = AVERROR_EOF;
    Packet packet(ffmpeg.av_packet_alloc(), PacketFree{&ffmpeg});
    FrameSearch search(ffmpeg, calls, target, error);
    if (!packet || !search.allocated()) {
        error = AVERROR(ENOMEM);
        return nullptr;
    }
    int received = 0;
    for (int packets = 0; packets < kMaxVideoPackets;) {
        if (calls.readPacket(packet.get()) < 0) {
            // The end of the file: the codec gives what it still holds.
            if (search.send(nullptr) != FrameSearch::NoFrameReady) return search.take();
            search.receiveReady(received);
            return search.take();
        }
        if (packet->stream_index != streamIndex) {
            ffmpeg.av_packet_unref(packet.get());
            continue;
        }
        ++packets;
        FrameSearch::Outcome outcome = search.send(packet.get());
        ffmpeg.av_packet_unref(packet.get());
        if (outcome == FrameSearch::NoFrameReady) outcome = search.receiveReady(received);
        if (outcome != FrameSearch::NoFrameReady) return search.take();
    }
    return search.take();
}

}  // namespace qor::imageio::detail
