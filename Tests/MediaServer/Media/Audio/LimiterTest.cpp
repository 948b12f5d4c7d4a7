#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Audio/Limiter.h>

namespace krv::media {
namespace {

constexpr int kRate = 48000;
constexpr float kCeiling = 0.5F;

/// The output of limited().
struct Stereo {
    std::vector<float> left, right;
};

/// Returns the output for audio that is pushed in pieces of this many samples.
Stereo limited(const std::vector<float>& left, const std::vector<float>& right, std::size_t piece = 1000) {
    Limiter limiter(kRate, kCeiling);
    Stereo out;
    const auto sink = [&](std::span<const float> l, std::span<const float> r) {
        out.left.insert(out.left.end(), l.begin(), l.end());
        out.right.insert(out.right.end(), r.begin(), r.end());
    };
    for (std::size_t i = 0; i < left.size(); i += piece) {
        const std::size_t count = std::min(piece, left.size() - i);
        limiter.push(std::span(left).subspan(i, count), std::span(right).subspan(i, count), sink);
    }
    limiter.finish(sink);
    return out;
}

std::vector<float> tone(std::size_t samples, float amplitude) {
    std::vector<float> audio(samples);
    for (std::size_t i = 0; i < samples; ++i) {
        audio[i] = amplitude * static_cast<float>(std::sin(static_cast<double>(i) * 0.05));
    }
    return audio;
}

float peak(const std::vector<float>& audio) {
    float highest = 0;
    for (const float sample : audio) {
        highest = std::max(highest, std::abs(sample));
    }
    return highest;
}

TEST(Limiter, LeavesQuietAudioExactlyAsItIs) {
    const auto audio = tone(5000, 0.4999F);
    const auto out = limited(audio, audio);
    EXPECT_EQ(out.left, audio);
    EXPECT_EQ(out.right, audio);
}

TEST(Limiter, ReturnsAsManySamplesAsItReceives) {
    for (const std::size_t samples : {0U, 1U, 239U, 240U, 241U, 5000U}) {
        EXPECT_EQ(limited(tone(samples, 1), tone(samples, 1)).left.size(), samples);
    }
}

TEST(Limiter, NeverExceedsTheCeiling) {
    std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): reproducible
    std::uniform_real_distribution<float> any(-4, 4);
    std::vector<float> left(50'000), right(50'000);
    for (std::size_t i = 0; i < left.size(); ++i) {
        left[i] = any(random);
        right[i] = i % 977 == 0 ? 100 * any(random) : 0;
    }
    const auto out = limited(left, right);
    EXPECT_LE(peak(out.left), kCeiling);
    EXPECT_LE(peak(out.right), kCeiling);
}

TEST(Limiter, LimitsPeaksToTheCeilingAndNotBelow) {
    const auto out = limited(tone(48'000, 2), tone(48'000, 2));
    EXPECT_NEAR(peak(out.left), kCeiling, 0.01);
}

TEST(Limiter, KeepsThePositionOfEveryImpulse) {
    std::vector<float> audio(10'000);
    audio[0] = 0.3F;
    audio[4000] = 3;
    audio[9999] = -3;
    const auto out = limited(audio, std::vector<float>(audio.size()));
    EXPECT_GT(out.left[0], 0.29F);
    EXPECT_GT(out.left[4000], 0.49F);
    EXPECT_LT(out.left[9999], -0.49F);
    EXPECT_EQ(std::count_if(out.left.begin(), out.left.end(), [](float s) { return s != 0; }), 3);
}

TEST(Limiter, LowersBothChannelsTogether) {
    const auto out = limited(std::vector<float>(5000, 2), std::vector<float>(5000, 0.2F));
    EXPECT_NEAR(out.right[2500], 0.05, 0.001);
}

TEST(Limiter, RecoversCompletelyAfterALoudPassage) {
    auto audio = tone(10'000, 2);
    const auto quiet = tone(100'000, 0.1F);
    audio.insert(audio.end(), quiet.begin(), quiet.end());
    const auto out = limited(audio, audio);
    // Half a second after the loud part the output equals the input.
    for (std::size_t i = 10'000 + kRate / 2 + kRate / 10; i < audio.size(); ++i) {
        ASSERT_EQ(out.left[i], audio[i]) << i;
    }
}

TEST(Limiter, NeverJumpsInGain) {
    std::vector<float> audio(20'000, 0.5F);
    std::fill(audio.begin() + 10'000, audio.begin() + 10'100, 5.0F);
    const auto out = limited(audio, audio);
    for (std::size_t i = 1; i < audio.size(); ++i) {
        ASSERT_LT(std::abs(out.left[i] / audio[i] - out.left[i - 1] / audio[i - 1]), 0.01) << i;
    }
}

TEST(Limiter, DoesNotDependOnTheSizeOfThePieces) {
    const auto audio = tone(5000, 2);
    EXPECT_EQ(limited(audio, audio, 1).left, limited(audio, audio, 5000).left);
}

TEST(Limiter, TreatsNaNAndInfinityAsSilence) {
    std::vector<float> audio(1000, 0.25F);
    audio[500] = std::numeric_limits<float>::quiet_NaN();
    audio[600] = std::numeric_limits<float>::infinity();
    const auto out = limited(audio, audio);
    EXPECT_EQ(out.left[499], 0.25F);
    EXPECT_EQ(out.left[500], 0);
    EXPECT_EQ(out.left[600], 0);
    EXPECT_EQ(out.left[601], 0.25F);
}

}  // namespace
}  // namespace krv::media
