#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Audio/AudioMixer.h>

namespace krv::media {
namespace {

using testing::ElementsAre;

class AudioMixerTest : public testing::Test {
protected:
    void add(AudioMixer& sum, std::size_t track, const std::vector<float>& samples) {
        sum.add(track, samples, std::vector<float>(samples.size(), 1), sink_);
    }
    std::vector<float> left_, right_;
    AudioMixer::Sink sink_ = [this](std::span<const float> left, std::span<const float> right) {
        left_.insert(left_.end(), left.begin(), left.end());
        right_.insert(right_.end(), right.begin(), right.end());
    };
};

TEST_F(AudioMixerTest, PassesASingleTrack) {
    AudioMixer sum(1, 100);
    add(sum, 0, {1, 2});
    add(sum, 0, {3});
    EXPECT_THAT(left_, ElementsAre(1, 2, 3));
    EXPECT_THAT(right_, ElementsAre(1, 1, 1));
}

TEST_F(AudioMixerTest, AddsTracksWhereTheyOverlap) {
    AudioMixer sum(2, 100);
    add(sum, 0, {1, 2, 3});
    EXPECT_THAT(left_, ElementsAre());
    add(sum, 1, {10, 20});
    EXPECT_THAT(left_, ElementsAre(11, 22));
    add(sum, 1, {30, 40});
    EXPECT_THAT(left_, ElementsAre(11, 22, 33));
    EXPECT_THAT(right_, ElementsAre(2, 2, 2));
}

TEST_F(AudioMixerTest, DoesNotWaitForAFinishedTrack) {
    AudioMixer sum(2, 100);
    add(sum, 0, {1});
    sum.finish(0, sink_);
    EXPECT_THAT(left_, ElementsAre());
    add(sum, 1, {10, 20});
    EXPECT_THAT(left_, ElementsAre(11, 20));
    sum.finish(1, sink_);
    EXPECT_THAT(left_, ElementsAre(11, 20));
}

TEST_F(AudioMixerTest, DeliversTheRestWhenTheLastTrackFinishes) {
    AudioMixer sum(2, 100);
    add(sum, 0, {1, 2});
    sum.finish(1, sink_);
    EXPECT_THAT(left_, ElementsAre(1, 2));
}

TEST_F(AudioMixerTest, DoesNotWaitForATrackThatStaysFarBehind) {
    AudioMixer sum(2, 2);
    add(sum, 0, {1, 2, 3, 4, 5});
    EXPECT_THAT(left_, ElementsAre(1, 2, 3));
    // Its first three samples are too late, the others are in time.
    add(sum, 1, {10, 20});
    add(sum, 1, {30, 40, 50, 60});
    EXPECT_THAT(left_, ElementsAre(1, 2, 3, 44, 55));
    sum.finish(0, sink_);
    EXPECT_THAT(left_, ElementsAre(1, 2, 3, 44, 55, 60));
}

}  // namespace
}  // namespace krv::media
