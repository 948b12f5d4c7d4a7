#include <cstring>
#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Audio/AudioResampler.h>

namespace krv::media {
namespace {

constexpr int kRate = 8000;
constexpr AVRational kUnit{1, 1000};

/// Collects the output of a resampler for 16-bit mono at 8 kHz.
class AudioResamplerTest : public testing::Test {
protected:
    AudioResamplerTest() {
        const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PCM_S16LE);
        encoder_.reset(avcodec_alloc_context3(codec));
        encoder_->sample_fmt = AV_SAMPLE_FMT_S16;
        encoder_->sample_rate = kRate;
        av_channel_layout_default(&encoder_->ch_layout, 1);
        resampler_ = std::make_unique<AudioResampler>(*encoder_, kUnit, 10'000);
    }

    /// Pushes a frame of constant value.
    void push(std::int64_t time, int milliseconds, std::int16_t value, int rate = kRate) {
        const FramePtr frame = newFrame();
        frame->pts = time;
        frame->format = AV_SAMPLE_FMT_S16;
        frame->sample_rate = rate;
        frame->nb_samples = rate * milliseconds / 1000;
        av_channel_layout_default(&frame->ch_layout, 1);
        ASSERT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
        auto* samples = reinterpret_cast<std::int16_t*>(frame->data[0]);
        std::fill(samples, samples + frame->nb_samples, value);
        resampler_->push(*frame, sink_);
    }

    std::vector<std::int16_t>& finish() {
        resampler_->finish(sink_);
        return samples_;
    }

    /// Returns the index of the first sample that is not 0, or the number of samples.
    std::size_t firstNonZero() const {
        return static_cast<std::size_t>(std::find_if(samples_.begin(), samples_.end(), [](auto s) { return s != 0; }) -
                                        samples_.begin());
    }

    CodecContextPtr encoder_;
    std::unique_ptr<AudioResampler> resampler_;
    std::vector<std::int16_t> samples_;
    AudioResampler::Sink sink_ = [this](FramePtr frame) {
        EXPECT_EQ(frame->pts, static_cast<std::int64_t>(samples_.size()));
        const auto* data = reinterpret_cast<const std::int16_t*>(frame->data[0]);
        samples_.insert(samples_.end(), data, data + frame->nb_samples);
    };
};

TEST_F(AudioResamplerTest, AudioInSyncPassesUnchanged) {
    for (int i = 0; i < 10; ++i) {
        push(i * 100, 100, 1000);
    }
    EXPECT_THAT(finish(), testing::AllOf(testing::SizeIs(8000), testing::Each(1000)));
}

TEST_F(AudioResamplerTest, ALateStartIsFilledWithSilence) {
    push(500, 100, 1000);
    finish();
    EXPECT_EQ(firstNonZero(), 4000U);
    EXPECT_EQ(samples_.size(), 4800U);
}

TEST_F(AudioResamplerTest, AGapIsFilledWithSilence) {
    push(0, 100, 1000);
    push(300, 100, 1000);
    finish();
    EXPECT_EQ(samples_.size(), 3200U);
    EXPECT_EQ(samples_[1600], 0);
    EXPECT_EQ(samples_[2400], 1000);
}

TEST_F(AudioResamplerTest, AnOverlapIsCut) {
    push(0, 100, 1000);
    push(50, 100, 2000);
    finish();
    EXPECT_EQ(samples_.size(), 1200U);
    EXPECT_EQ(samples_[799], 1000);
    EXPECT_EQ(samples_[800], 2000);
}

TEST_F(AudioResamplerTest, AudioBeforeTheBeginningIsCut) {
    push(-50, 100, 1000);
    EXPECT_EQ(finish().size(), 400U);
}

TEST_F(AudioResamplerTest, RoundedTimestampsChangeNothing) {
    for (int i = 0; i < 10; ++i) {
        push(i * 100 + (i % 2 == 0 ? 3 : -3) + (i == 0 ? -3 : 0), 100, 1000);
    }
    EXPECT_THAT(finish(), testing::AllOf(testing::SizeIs(8000), testing::Each(1000)));
}

TEST_F(AudioResamplerTest, TheDeviationOfASlowClockDoesNotAddUp) {
    // Each frame is 1 ms longer than its timestamps say, which would add up to 0.3 s after 300 frames.
    for (int i = 0; i < 300; ++i) {
        push(i * 20, 21, 1000);
    }
    EXPECT_NEAR(static_cast<double>(finish().size()), 6.0 * kRate, 0.04 * kRate);
}

TEST_F(AudioResamplerTest, ADamagedTimestampDoesNotAddHoursOfSilence) {
    push(0, 100, 1000);
    push(100'000'000, 100, 1000);
    EXPECT_EQ(finish().size(), 1600U);
}

TEST_F(AudioResamplerTest, AChangeOfTheSourcesRateIsFollowed) {
    push(0, 500, 1000);
    push(500, 500, 1000, 16000);
    EXPECT_NEAR(static_cast<double>(finish().size()), kRate, 40);
}

}  // namespace
}  // namespace krv::media
