// The thumbnail frame search against scripted codecs, for the answers that FFmpeg's own decoders
// give only now and then (a packet refused with EAGAIN while a frame is ready).

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "imageio/detail/VideoFrameSearch.h"

namespace qor::imageio {
namespace {

using detail::findFrameAt;
using detail::VideoCodecCalls;

// A file of packets, (stream, time) each, and a codec that decodes on a thread of its own: a
// packet it takes is decoded while the caller goes on, and that frame is done by the caller's
// next send, which the codec then refuses with EAGAIN until the frame is read, as avcodec allows.
struct AsyncCodec {
    std::vector<std::pair<int, int64_t>> file;
    size_t next = 0;
    std::optional<int64_t> busy;
    std::deque<int64_t> ready;
    bool draining = false;
    std::vector<int64_t> taken;  // the times of the packets the codec took, in order

    VideoCodecCalls calls() {
        return {[this](AVPacket* packet) {
                    if (next == file.size()) return AVERROR_EOF;
                    packet->stream_index = file[next].first;
                    packet->pts = file[next].second;
                    ++next;
                    return 0;
                },
                [this](const AVPacket* packet) {
                    if (busy) ready.push_back(*std::exchange(busy, std::nullopt));
                    if (!packet) {
                        draining = true;
                        return 0;
                    }
                    if (!ready.empty()) return AVERROR(EAGAIN);
                    busy = packet->pts;
                    taken.push_back(packet->pts);
                    return 0;
                },
                [this](AVFrame* frame) {
                    if (ready.empty()) return draining ? AVERROR_EOF : AVERROR(EAGAIN);
                    frame->best_effort_timestamp = ready.front();
                    ready.pop_front();
                    return 0;
                }};
    }
};

// Video packets 0 .. count - 1 of stream 0, each followed by a packet of stream 1.
AsyncCodec videoWithAudio(int count) {
    AsyncCodec codec;
    for (int i = 0; i < count; ++i) {
        codec.file.emplace_back(0, i);
        codec.file.emplace_back(1, 1000 + i);
    }
    return codec;
}

// The packets come from the libraries opened at run time; a test fails when they do not open.
const detail::FfmpegCalls& ffmpeg() {
    const detail::FfmpegCalls* calls = detail::ffmpegCalls();
    if (!calls) throw std::runtime_error("libavformat or libavcodec cannot be loaded");
    return *calls;
}

std::vector<int64_t> upTo(int64_t last) {
    std::vector<int64_t> times;
    for (int64_t t = 0; t <= last; ++t) times.push_back(t);
    return times;
}

TEST(VideoFrameSearch, PacketsRefusedWithEagainAreSentAgain) {
    {
        AsyncCodec codec = videoWithAudio(12);
        int error = 0;
        detail::VideoFrame frame = findFrameAt(ffmpeg(), codec.calls(), 0, 5, error);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->best_effort_timestamp, 5);
        EXPECT_EQ(codec.taken, upTo(5));
    }
    {
        // A target past the end: the codec is drained and its last frame taken.
        AsyncCodec codec = videoWithAudio(8);
        int error = 0;
        detail::VideoFrame frame = findFrameAt(ffmpeg(), codec.calls(), 0, 100, error);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->best_effort_timestamp, 7);
        EXPECT_EQ(codec.taken, upTo(7));
        EXPECT_EQ(error, AVERROR_EOF);
    }
}

TEST(VideoFrameSearch, CodecThatNeitherTakesNorGivesEndsTheSearch) {
    AsyncCodec codec = videoWithAudio(4);
    VideoCodecCalls calls = codec.calls();
    calls.sendPacket = [](const AVPacket*) { return AVERROR(EAGAIN); };
    int error = 0;
    EXPECT_FALSE(findFrameAt(ffmpeg(), calls, 0, 2, error));
    EXPECT_EQ(error, AVERROR(EAGAIN));
}

}  // namespace
}  // namespace qor::imageio
