// Video thumbnails on videos encoded here with libavcodec (MPEG-4 Visual, or Motion JPEG where the
// build lacks it) in MP4 and AVI containers.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include <atomic>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "imageio/VideoThumbnail.h"

namespace qor::imageio {
namespace {

using testing::Bytes;
using testing::TempFolder;
using Vec = math::GenVec<int, 2>;

struct VideoRecipe {
    const char* container = "mp4";
    int width = 160;
    int height = 120;
    int frames = 10;
    AVRational rate{10, 1};
    int clockwiseDegrees = 0;
    bool blankPackets = false;  // every packet's bytes zeroed: nothing decodes
    // Luma of pixel (x, y) of frame i; chroma is neutral.
    std::function<int(int i, int x, int y)> luma = [](int i, int, int) { return 16 + 7 * i; };
};

const AVCodec* testEncoder() {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    return codec ? codec : avcodec_find_encoder(AV_CODEC_ID_MJPEG);
}

// Writes the video; an empty string when this FFmpeg cannot encode it.
std::string makeVideo(const std::string& path, const VideoRecipe& recipe) {
    const AVCodec* codec = testEncoder();
    AVFormatContext* out = nullptr;
    if (!codec || avformat_alloc_output_context2(&out, nullptr, recipe.container, path.c_str()) < 0)
        return {};
    AVStream* stream = avformat_new_stream(out, nullptr);
    AVCodecContext* encoder = avcodec_alloc_context3(codec);
    encoder->width = recipe.width;
    encoder->height = recipe.height;
    encoder->time_base = av_inv_q(recipe.rate);
    encoder->framerate = recipe.rate;
    encoder->pix_fmt = codec->id == AV_CODEC_ID_MJPEG ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    encoder->gop_size = 12;
    encoder->max_b_frames = 0;
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = FF_QP2LAMBDA * 2;
    if (out->oformat->flags & AVFMT_GLOBALHEADER) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (avcodec_open2(encoder, codec, nullptr) < 0) {
        ADD_FAILURE() << "cannot open the encoder";
        return {};
    }
    avcodec_parameters_from_context(stream->codecpar, encoder);
    stream->time_base = encoder->time_base;
    if (recipe.clockwiseDegrees) {
        uint8_t* matrix = av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * 4);
        av_display_rotation_set(reinterpret_cast<int32_t*>(matrix), recipe.clockwiseDegrees);
    }
    if (avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE) < 0 ||
        avformat_write_header(out, nullptr) < 0) {
        ADD_FAILURE() << "cannot start writing " << path;
        return {};
    }

    AVPacket* packet = av_packet_alloc();
    const auto drain = [&] {
        while (avcodec_receive_packet(encoder, packet) >= 0) {
            av_packet_rescale_ts(packet, encoder->time_base, stream->time_base);
            packet->stream_index = stream->index;
            if (recipe.blankPackets) std::memset(packet->data, 0, size_t(packet->size));
            av_interleaved_write_frame(out, packet);
        }
    };
    AVFrame* frame = av_frame_alloc();
    frame->format = encoder->pix_fmt;
    frame->width = recipe.width;
    frame->height = recipe.height;
    av_frame_get_buffer(frame, 0);
    for (int i = 0; i < recipe.frames; ++i) {
        av_frame_make_writable(frame);
        for (int y = 0; y < recipe.height; ++y)
            for (int x = 0; x < recipe.width; ++x)
                frame->data[0][y * frame->linesize[0] + x] = uint8_t(recipe.luma(i, x, y));
        for (int p = 1; p < 3; ++p)
            for (int y = 0; y < recipe.height / 2; ++y)
                std::memset(frame->data[p] + y * frame->linesize[p], 128, size_t(recipe.width / 2));
        frame->pts = i;
        avcodec_send_frame(encoder, frame);
        drain();
    }
    avcodec_send_frame(encoder, nullptr);
    drain();
    av_write_trailer(out);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&encoder);
    avio_closep(&out->pb);
    avformat_free_context(out);
    return path;
}

// The grey that RGB conversion makes of a limited-range luma (BT.601).
double greyOf(int luma, bool fullRange) { return fullRange ? luma : (luma - 16) * 255.0 / 219.0; }

// The frame whose luma (16 + 7 i) is nearest the thumbnail's centre grey.
int frameShown(const ImageOut& image, int frames) {
    const int grey = image->at(image->width() / 2, image->height() / 2, 1);
    const bool fullRange = testEncoder()->id == AV_CODEC_ID_MJPEG;
    int best = 0;
    for (int i = 1; i < frames; ++i)
        if (std::abs(greyOf(16 + 7 * i, fullRange) - grey) <
            std::abs(greyOf(16 + 7 * best, fullRange) - grey))
            best = i;
    return best;
}

class VideoThumbnail : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testEncoder())
            GTEST_SKIP() << "this FFmpeg has neither an MPEG-4 nor an MJPEG encoder";
    }
    TempFolder folder;
};

TEST_F(VideoThumbnail, FrameAtTenthOfShortVideoOrOneSecond) {
    // 3.5 s: a tenth is 0.35 s, so the frame at 0.4 s (the fifth) is the first at or after it.
    VideoRecipe shortClip;
    shortClip.frames = 35;
    ImageOut image;
    ASSERT_TRUE(
        loadVideoThumbnail(FastString<char>(makeVideo(folder.path() + "/short.mp4", shortClip)),
                           Vec(256, 256), &image, nullptr));
    ASSERT_TRUE(image);
    EXPECT_EQ(frameShown(image, 35), 4);
    EXPECT_EQ(image->at(5, 5, 3), 255);

    // 15 s at 2 frames a second: one second in, the third frame.
    VideoRecipe longClip;
    longClip.container = "avi";
    longClip.frames = 30;
    longClip.rate = AVRational{2, 1};
    image.reset();
    ASSERT_TRUE(
        loadVideoThumbnail(FastString<char>(makeVideo(folder.path() + "/long.avi", longClip)),
                           Vec(64, 64), &image, nullptr));
    ASSERT_TRUE(image);
    EXPECT_EQ(frameShown(image, 30), 2);
}

TEST_F(VideoThumbnail, FitsInsideRequestClampedTo256AndReportsSize) {
    const FastString<char> path(makeVideo(folder.path() + "/v.mp4", VideoRecipe()));
    const auto sizeFor = [&](Vec request) {
        ImageOut image;
        EXPECT_TRUE(loadVideoThumbnail(path, request, &image, nullptr));
        return image ? Vec(image->width(), image->height()) : Vec();
    };
    EXPECT_EQ(sizeFor(Vec(100, 100)), Vec(100, 75));
    EXPECT_EQ(sizeFor(Vec(0, 0)), Vec(256, 192));
    EXPECT_EQ(sizeFor(Vec(1000, 50)), Vec(67, 50));

    // Imagesize goes onto a metadata that is there; an empty one stays empty.
    SharedPtr<Metadata> present = std::make_shared<Metadata>();
    EXPECT_TRUE(loadVideoThumbnail(path, Vec(80, 80), nullptr, &present));
    EXPECT_EQ(present->size(), Vec2i(80, 60));
    SharedPtr<Metadata> absent;
    ImageOut image;
    EXPECT_TRUE(loadVideoThumbnail(path, Vec(80, 80), &image, &absent));
    EXPECT_FALSE(absent);
    EXPECT_TRUE(image);
}

TEST_F(VideoThumbnail, LimitsRaiseTheClampAndCanKeepSmallFramesAsTheyAre) {
    VideoRecipe large;
    large.width = 640;
    large.height = 480;
    large.frames = 3;
    const FastString<char> big(makeVideo(folder.path() + "/big.mp4", large));
    const FastString<char> small(makeVideo(folder.path() + "/small.mp4", VideoRecipe()));
    const auto sizeFor = [&](const FastString<char>& path, Vec request,
                             VideoThumbnailLimits limits) {
        ImageOut image;
        EXPECT_TRUE(loadVideoThumbnail(path, request, &image, nullptr, limits));
        return image ? Vec(image->width(), image->height()) : Vec();
    };
    EXPECT_EQ(sizeFor(big, Vec(2048, 2048), {2048, false}), Vec(640, 480));
    EXPECT_EQ(sizeFor(big, Vec(512, 512), {2048, false}), Vec(512, 384));
    EXPECT_EQ(sizeFor(big, Vec(512, 512), {}), Vec(256, 192));
    EXPECT_EQ(sizeFor(small, Vec(2048, 2048), {2048, false}), Vec(160, 120));
    EXPECT_EQ(sizeFor(small, Vec(2048, 2048), {2048, true}), Vec(2048, 1536));
}

TEST_F(VideoThumbnail, TurnsAsTheVideoIsShown) {
    // Dark left half, bright right half, shown turned a quarter clockwise: dark on top.
    VideoRecipe recipe;
    recipe.clockwiseDegrees = 90;
    recipe.luma = [](int, int x, int) { return x < 80 ? 30 : 220; };
    ImageOut image;
    ASSERT_TRUE(loadVideoThumbnail(FastString<char>(makeVideo(folder.path() + "/turned.mp4", recipe)),
                                   Vec(0, 0), &image, nullptr));
    ASSERT_TRUE(image);
    EXPECT_EQ(Vec(image->width(), image->height()), Vec(192, 256));
    EXPECT_LT(image->at(96, 30, 0), 60);
    EXPECT_GT(image->at(96, 220, 0), 200);
}

TEST_F(VideoThumbnail, FilesThatAreNoVideoOrHaveNoFrame) {
    LogCapture log;
    std::mt19937 random(5);
    Bytes noise(8192);
    for (uint8_t& b : noise) b = uint8_t(random());
    const std::string noisePath = folder.write("noise.avi", noise);
    ImageOut image;
    EXPECT_FALSE(loadVideoThumbnail(FastString<char>(noisePath), Vec(64, 64), &image, nullptr));
    EXPECT_TRUE(log.contains("SHCreateItemFromParsingName for file '" + noisePath +
                             "' failed with error code"));
    EXPECT_FALSE(loadVideoThumbnail(FastString<char>(folder.path() + "/missing.mp4"), Vec(64, 64),
                                    &image, nullptr));
    EXPECT_FALSE(image);

    // A container with a video stream whose frames do not decode: the item exists, it just has
    // no thumbnail.
    VideoRecipe blank;
    blank.container = "avi";
    blank.blankPackets = true;
    const std::string emptyPath = makeVideo(folder.path() + "/blank.avi", blank);
    EXPECT_TRUE(loadVideoThumbnail(FastString<char>(emptyPath), Vec(64, 64), &image, nullptr));
    EXPECT_FALSE(image);
    EXPECT_TRUE(log.contains("IShellItemImageFactory::GetImage for file '" + emptyPath +
                             "' failed with error code"));

    // An MP4 cut short loses its index, written last: not a video any more. An AVI cut short
    // keeps its header, and the frames before the cut still give a thumbnail.
    const auto cut = [&](const std::string& name, const VideoRecipe& recipe, double keep) {
        std::ifstream in(makeVideo(folder.path() + "/whole-" + name, recipe), std::ios::binary);
        const Bytes whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        return folder.write(name,
                            Bytes(whole.begin(), whole.begin() + ptrdiff_t(whole.size() * keep)));
    };
    image.reset();
    EXPECT_FALSE(loadVideoThumbnail(FastString<char>(cut("cut.mp4", VideoRecipe(), 0.6)), Vec(64, 64),
                                    &image, nullptr));
    VideoRecipe avi;
    avi.container = "avi";
    avi.frames = 40;
    EXPECT_TRUE(loadVideoThumbnail(FastString<char>(cut("cut.avi", avi, 0.7)), Vec(64, 64), &image,
                                   nullptr));
    EXPECT_TRUE(image);
}

// Thumbnails of one video taken on several threads at once are the same as one taken alone.
TEST(VideoThumbnailThreads, ConcurrentThumbnailsMatch) {
    if (!testEncoder()) GTEST_SKIP() << "this FFmpeg has neither an MPEG-4 nor an MJPEG encoder";
    TempFolder folder;
    VideoRecipe recipe;
    recipe.frames = 20;
    recipe.luma = [](int i, int x, int y) { return 16 + (x * 3 + y * 5 + i) % 200; };
    const FastString<char> path(makeVideo(folder.path() + "/threads.mp4", recipe));
    ImageOut expected;
    ASSERT_TRUE(loadVideoThumbnail(path, Vec(96, 96), &expected, nullptr));
    ASSERT_TRUE(expected);
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int round = 0; round < 3; ++round) {
                ImageOut got;
                if (!loadVideoThumbnail(path, Vec(96, 96), &got, nullptr) || !got ||
                    testing::maxDifference(*got, *expected) != 0)
                    ++mismatches;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace qor::imageio
