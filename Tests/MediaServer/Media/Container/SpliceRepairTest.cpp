#include <optional>

#include <gmock/gmock.h>

#include <MediaServer/Media/Container/SpliceRepair.h>

namespace krv::media {
namespace {

/// A recording with video at 25 frames per second and audio in packets of 20 ms. Times are in milliseconds.
class SpliceRepairTest : public testing::Test {
protected:
    static constexpr std::int64_t kFrame = 40;
    static constexpr std::int64_t kSound = 20;

    SpliceRepairTest()
        : format_(avformat_alloc_context()) {
        for (const AVMediaType kind : {AVMEDIA_TYPE_VIDEO, AVMEDIA_TYPE_AUDIO, AVMEDIA_TYPE_SUBTITLE}) {
            AVStream* const stream = avformat_new_stream(format_, nullptr);
            stream->codecpar->codec_type = kind;
            stream->time_base = {1, 1000};
        }
        repair_.emplace(*format_);
    }
    ~SpliceRepairTest() override { avformat_free_context(format_); }

    struct Timed {
        int stream;
        std::int64_t time;
        bool operator==(const Timed& other) const = default;
    };
    friend void PrintTo(const Timed& timed, std::ostream* out) { *out << timed.stream << " at " << timed.time; }

    void push(int stream, std::int64_t time) {
        PacketPtr packet = newPacket();
        packet->stream_index = stream;
        packet->pts = packet->dts = time;
        packet->duration = stream == 0 ? kFrame : kSound;
        std::deque<PacketPtr> ready;
        repair_->push(std::move(packet), ready);
        note(ready);
    }
    void video(std::int64_t time) { push(0, time); }
    void audio(std::int64_t time) { push(1, time); }
    void subtitle(std::int64_t time) { push(2, time); }
    void finish() {
        std::deque<PacketPtr> ready;
        repair_->finish(ready);
        note(ready);
    }
    /// Returns what came out since the last call.
    std::vector<Timed> output() { return std::exchange(output_, {}); }

    std::optional<SpliceRepair> repair_;

private:
    void note(const std::deque<PacketPtr>& ready) {
        for (const PacketPtr& packet : ready) {
            output_.push_back({packet->stream_index, packet->pts});
        }
    }

    AVFormatContext* format_;
    std::vector<Timed> output_;
};

using testing::ElementsAre;

TEST_F(SpliceRepairTest, LeavesASteadyClockAlone) {
    video(0);
    audio(0);
    video(40);
    audio(5000);  // a pause
    video(5000);
    audio(4950);  // an inexact clock
    EXPECT_THAT(output(),
                ElementsAre(Timed{0, 0}, Timed{1, 0}, Timed{0, 40}, Timed{1, 5000}, Timed{0, 5000}, Timed{1, 4950}));
}

TEST_F(SpliceRepairTest, GoesOnWhereTheVideoWas) {
    for (const std::int64_t restart : {0, 100'000}) {
        repair_->restart(0);
        video(50'000);
        audio(50'000);
        (void)output();
        video(restart);
        audio(restart + 5);
        video(restart + 40);
        EXPECT_THAT(output(), ElementsAre(Timed{0, 50'040}, Timed{1, 50'045}, Timed{0, 50'080})) << restart;
    }
}

TEST_F(SpliceRepairTest, WaitsForTheVideoIfTheAudioJumpsFirst) {
    video(50'000);
    audio(50'000);
    (void)output();
    audio(3);
    audio(23);
    video(50'040);  // of the part before
    EXPECT_THAT(output(), ElementsAre(Timed{0, 50'040}));
    video(0);
    EXPECT_THAT(output(), ElementsAre(Timed{0, 50'080}, Timed{1, 50'083}, Timed{1, 50'103}));
    audio(43);
    EXPECT_THAT(output(), ElementsAre(Timed{1, 50'123}));
}

TEST_F(SpliceRepairTest, DropsAudioThatOverlapsThePartBefore) {
    video(50'000);
    audio(50'000);
    audio(50'020);
    audio(50'040);
    audio(50'060);
    (void)output();
    video(0);
    audio(0);   // 50'040, which is heard already
    audio(20);  // 50'060
    audio(40);
    EXPECT_THAT(output(), ElementsAre(Timed{0, 50'040}, Timed{1, 50'080}));
}

TEST_F(SpliceRepairTest, GoesOnWithTheAudioIfTheVideoHasEnded) {
    video(50'000);
    audio(50'000);
    (void)output();
    audio(0);
    audio(20);
    EXPECT_THAT(output(), ElementsAre());
    finish();
    EXPECT_THAT(output(), ElementsAre(Timed{1, 50'020}, Timed{1, 50'040}));
}

TEST_F(SpliceRepairTest, DoesNotHoldBackForever) {
    video(50'000);
    audio(50'000);
    for (std::int64_t i = 0; i < 5000; ++i) {
        audio(i * kSound);
    }
    EXPECT_GT(output().size(), 4000U);
}

TEST_F(SpliceRepairTest, MovesSubtitlesWithTheVideo) {
    video(50'000);
    subtitle(50'010);
    video(0);
    subtitle(50'020);  // of the part before
    subtitle(30);
    EXPECT_THAT(output(),
                ElementsAre(Timed{0, 50'000}, Timed{2, 50'010}, Timed{0, 50'040}, Timed{2, 50'020}, Timed{2, 50'070}));
}

TEST_F(SpliceRepairTest, FollowsSeveralJumps) {
    std::int64_t expected = 0;
    for (const std::int64_t restart : {0, 60'000, 20'000, 300'000}) {
        video(restart);
        audio(restart);
        EXPECT_THAT(output(), ElementsAre(Timed{0, expected}, Timed{1, expected})) << restart;
        expected += kFrame;
    }
}

TEST_F(SpliceRepairTest, StartsAfterASeekWithAKnownOffset) {
    video(50'000);
    repair_->restart(7'000'000);
    (void)output();
    video(100);
    audio(100);
    EXPECT_THAT(output(), ElementsAre(Timed{0, 7'100}, Timed{1, 7'100}));
}

}  // namespace
}  // namespace krv::media
