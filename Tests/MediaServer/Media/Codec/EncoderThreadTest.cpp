#include <cmath>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Codec/EncoderThread.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

constexpr int kFrames = 200;
constexpr int kSamples = 1024;

CodecContextPtr openEncoder() {
    CodecContextPtr encoder(notNull(avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_AAC))));
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->sample_rate = 48000;
    encoder->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    EXPECT_EQ(avcodec_open2(encoder.get(), nullptr, nullptr), 0);
    return encoder;
}

FramePtr tone(int number) {
    FramePtr frame = newFrame();
    frame->nb_samples = kSamples;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = 48000;
    frame->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    frame->pts = std::int64_t{kSamples} * number;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    auto* const samples = reinterpret_cast<float*>(frame->data[0]);
    for (int i = 0; i < kSamples; ++i) {
        samples[i] = std::sin(static_cast<float>(number * kSamples + i) * 0.05F);
    }
    return frame;
}

/// Appends the contents of packets to a text.
auto appendTo(std::string& all) {
    return [&all](AVPacket& packet) {
        all.append(reinterpret_cast<const char*>(packet.data), static_cast<std::size_t>(packet.size));
    };
}

TEST(EncoderThreadTest, DeliversWhatTheEncoderMakes) {
    std::string direct;
    const CodecContextPtr encoder = openEncoder();
    const PacketPtr packet = newPacket();
    for (int i = 0; i <= kFrames; ++i) {
        const FramePtr frame = i < kFrames ? tone(i) : nullptr;
        ASSERT_EQ(avcodec_send_frame(encoder.get(), frame.get()), 0);
        while (avcodec_receive_packet(encoder.get(), packet.get()) == 0) {
            appendTo(direct)(*packet);
        }
    }

    std::string threaded;
    const CodecContextPtr other = openEncoder();
    EncoderThread thread(*other);
    for (int i = 0; i < kFrames; ++i) {
        thread.push(tone(i), appendTo(threaded));
    }
    thread.finish(appendTo(threaded));
    EXPECT_FALSE(direct.empty());
    EXPECT_EQ(threaded, direct);
}

TEST(EncoderThreadTest, ReportsThatTheEncoderHasFailed) {
    const CodecContextPtr encoder = openEncoder();
    EncoderThread thread(*encoder);
    std::string all;
    FramePtr wrong = tone(0);
    wrong->nb_samples = kSamples + 1;  // more than the encoder's frames have
    const auto encode = [&] {
        thread.push(std::move(wrong), appendTo(all));
        for (int i = 1; i < kFrames; ++i) {
            thread.push(tone(i), appendTo(all));
        }
        thread.finish(appendTo(all));
    };
    EXPECT_THROW(encode(), Failure);
}

TEST(EncoderThreadTest, CanBeDestroyedAtAnyTime) {
    const CodecContextPtr encoder = openEncoder();
    std::string all;
    { const EncoderThread unused(*encoder); }
    EncoderThread thread(*encoder);
    for (int i = 0; i < kFrames; ++i) {
        thread.push(tone(i), appendTo(all));
    }
}

TEST(EncoderThreadTest, PassesOnWhatItsCallerThrows) {
    const CodecContextPtr encoder = openEncoder();
    EncoderThread thread(*encoder);
    const auto encode = [&] {
        for (int i = 0; i < kFrames; ++i) {
            thread.push(tone(i), [](AVPacket&) { throw Failure({.cause = FailureCause::UnwritableDestination}); });
        }
    };
    EXPECT_THROW(encode(), Failure);
}

}  // namespace
}  // namespace krv::media
