#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <MediaServer/Media/Codec/AACWindow.h>
#include <MediaServer/Media/Codec/EncodeFrame.h>
#include <MediaServer/Media/Codec/SegmentedEncoder.h>
#include <MediaServer/Media/Foundation/Failure.h>

namespace krv::media {
namespace {

constexpr int kSamples = 1024;
constexpr int kRate = 48000;
constexpr std::size_t kSegment = 96;
constexpr std::int64_t kBitRate = 256'000;

using Samples = std::vector<float>;
using Channels = std::vector<Samples>;

CodecContextPtr openEncoder(int channels) {
    av_log_set_level(AV_LOG_ERROR);
    CodecContextPtr encoder(notNull(avcodec_alloc_context3(avcodec_find_encoder_by_name("aac"))));
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->sample_rate = kRate;
    encoder->bit_rate = kBitRate;
    av_channel_layout_default(&encoder->ch_layout, channels);
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    EXPECT_EQ(avcodec_open2(encoder.get(), nullptr, nullptr), 0);
    return encoder;
}

FramePtr frameOf(const Channels& channels, std::size_t from) {
    FramePtr frame = newFrame();
    frame->nb_samples = static_cast<int>(std::min<std::size_t>(kSamples, channels[0].size() - from));
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = kRate;
    av_channel_layout_default(&frame->ch_layout, static_cast<int>(channels.size()));
    frame->pts = static_cast<std::int64_t>(from);
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (std::size_t c = 0; c < channels.size(); ++c) {
        std::memcpy(frame->extended_data[c], &channels[c][from],
                    sizeof(float) * static_cast<unsigned>(frame->nb_samples));
    }
    return frame;
}

std::vector<PacketPtr> encodedAtOnce(const Channels& channels) {
    const CodecContextPtr encoder = openEncoder(static_cast<int>(channels.size()));
    std::vector<PacketPtr> packets;
    const auto keep = [&](AVPacket& packet) { packets.push_back(reference(packet)); };
    for (std::size_t i = 0; i < channels[0].size(); i += kSamples) {
        EXPECT_EQ(encodeFrame(*encoder, frameOf(channels, i).get(), keep), 0);
    }
    EXPECT_EQ(encodeFrame(*encoder, nullptr, keep), 0);
    return packets;
}

std::vector<PacketPtr> encodedInSegments(const Channels& channels) {
    const CodecContextPtr encoder = openEncoder(static_cast<int>(channels.size()));
    SegmentedEncoder segmented(*encoder, [&] { return openEncoder(static_cast<int>(channels.size())); });
    std::vector<PacketPtr> packets;
    const auto keep = [&](AVPacket& packet) { packets.push_back(reference(packet)); };
    for (std::size_t i = 0; i < channels[0].size(); i += kSamples) {
        segmented.push(frameOf(channels, i), keep);
    }
    segmented.finish(keep);
    return packets;
}

Channels decoded(const std::vector<PacketPtr>& packets, int channels) {
    const CodecContextPtr encoder = openEncoder(channels);
    const CodecContextPtr decoder(notNull(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_AAC))));
    const CodecParametersPtr parameters(notNull(avcodec_parameters_alloc()));
    EXPECT_GE(avcodec_parameters_from_context(parameters.get(), encoder.get()), 0);
    EXPECT_GE(avcodec_parameters_to_context(decoder.get(), parameters.get()), 0);
    EXPECT_EQ(avcodec_open2(decoder.get(), nullptr, nullptr), 0);
    Channels result(static_cast<std::size_t>(channels));
    const FramePtr frame = newFrame();
    for (const PacketPtr& packet : packets) {
        EXPECT_EQ(avcodec_send_packet(decoder.get(), packet.get()), 0);
        while (avcodec_receive_frame(decoder.get(), frame.get()) == 0) {
            for (std::size_t c = 0; c < result.size(); ++c) {
                const auto* const samples = reinterpret_cast<const float*>(frame->extended_data[c]);
                result[c].insert(result[c].end(), samples, samples + frame->nb_samples);
            }
        }
    }
    for (Samples& samples : result) {
        samples.erase(samples.begin(), samples.begin() + kSamples);  // the encoder's delay
    }
    return result;
}

/// The mean square of the error of each frame.
std::vector<double> errors(const Channels& original, const Channels& copy) {
    std::vector<double> result(original[0].size() / kSamples, 1e-12);
    for (std::size_t i = 0; i < result.size() * kSamples; ++i) {
        for (std::size_t c = 0; c < original.size(); ++c) {
            result[i / kSamples] += std::pow(double{original[c][i]} - double{copy[c][i]}, 2) / kSamples;
        }
    }
    return result;
}

/// Chords that change, noise, and hits at random times, which make the encoder change its windows.
Channels music(std::size_t length, int channels) {
    std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same in every run
    std::uniform_real_distribution<float> noise(-1, 1);
    Channels result(static_cast<std::size_t>(channels), Samples(length));
    float hit = 0;
    for (std::size_t i = 0; i < length; ++i) {
        hit = random() % 9000 == 0 ? 0.6F : hit * 0.998F;
        const float base = 0.02F + 0.001F * static_cast<float>(i / 30'000 % 13);
        for (std::size_t c = 0; c < result.size(); ++c) {
            result[c][i] = 0.2F * std::sin(static_cast<float>(i % 100'000) * base * static_cast<float>(c + 1)) +
                           (0.02F + hit) * noise(random);
        }
    }
    return result;
}

Channels tone(std::size_t length) {
    Samples samples(length);
    for (std::size_t i = 0; i < length; ++i) {
        samples[i] = 0.5F * static_cast<float>(std::sin(static_cast<double>(i) * 0.06));
    }
    return {samples, samples};
}

std::string bytes(const std::vector<PacketPtr>& packets) {
    std::string all;
    for (const PacketPtr& packet : packets) {
        all.append(reinterpret_cast<const char*>(packet->data), static_cast<std::size_t>(packet->size));
    }
    return all;
}

void expectSamePackets(const std::vector<PacketPtr>& packets, const std::vector<PacketPtr>& expected) {
    ASSERT_EQ(packets.size(), expected.size());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        ASSERT_EQ(packets[i]->pts, expected[i]->pts) << i;
        ASSERT_EQ(packets[i]->duration, expected[i]->duration) << i;
    }
}

class SegmentedEncoderTest : public testing::TestWithParam<int> {};

TEST_P(SegmentedEncoderTest, MakesWhatOneEncoderMakes) {
    const Channels original = music(std::size_t{kRate} * 60 + 300, GetParam());
    const auto whole = encodedAtOnce(original);
    const auto segmented = encodedInSegments(original);
    expectSamePackets(segmented, whole);
    EXPECT_NEAR(static_cast<double>(bytes(segmented).size()) / static_cast<double>(bytes(whole).size()), 1, 0.02);

    // An encoder's rate control makes any two frames differ, but they are equally good on average.
    const auto expected = errors(original, decoded(whole, GetParam()));
    const auto actual = errors(original, decoded(segmented, GetParam()));
    double all = 0;
    double atJoins = 0;
    int joins = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const double decibels = 10 * std::log10(actual[i] / expected[i]);
        all += decibels;
        if (i > kSegment / 2 && (i + 2) % kSegment < 6) {
            atJoins += decibels;
            ++joins;
        }
    }
    EXPECT_LT(all / static_cast<double>(expected.size()), 0.5);
    EXPECT_LT(atJoins / joins, 1);
}

TEST_P(SegmentedEncoderTest, LetsWindowsFitTogether) {
    const auto packets = encodedInSegments(music(std::size_t{kRate} * 60, GetParam()));
    std::vector<std::optional<AACWindow>> windows;
    for (const PacketPtr& packet : packets) {
        windows.push_back(aacWindow(*packet));
    }
    const auto endsShort = [](int sequence) { return sequence == 1 || sequence == 2; };
    const auto beginsShort = [](int sequence) { return sequence == 2 || sequence == 3; };
    int shortOnes = 0;
    for (std::size_t i = 1; i < windows.size(); ++i) {
        if (windows[i - 1] && windows[i]) {
            EXPECT_EQ(endsShort(windows[i - 1]->sequence), beginsShort(windows[i]->sequence)) << i;
            shortOnes += windows[i]->sequence == 2 ? 1 : 0;
        }
    }
    EXPECT_GT(shortOnes, 20);  // otherwise nothing was tested
}

INSTANTIATE_TEST_SUITE_P(Channels, SegmentedEncoderTest, testing::Values(1, 2));

TEST(SegmentedEncoding, GoesOnWithOneEncoderWhereTheWindowsDoNotFit) {
    // The clicks in one channel give it other windows than the other. So the windows of a packet are not known, and the
    // segments cannot be joined before the clicks end.
    Channels original = tone(std::size_t{kRate} * 40);
    for (std::size_t i = 0; i < std::size_t{kRate} * 20; i += kSamples) {
        original[0][i] = i % 2 == 0 ? 0.95F : -0.95F;
    }
    const auto whole = encodedAtOnce(original);
    std::size_t longest = 0;
    std::size_t run = 0;
    for (const PacketPtr& packet : whole) {
        run = aacWindow(*packet) ? 0 : run + 1;
        longest = std::max(longest, run);
    }
    EXPECT_GT(longest, 4 * kSegment);  // otherwise nothing was tested
    const auto segmented = encodedInSegments(original);
    expectSamePackets(segmented, whole);
    EXPECT_EQ(decoded(segmented, 2)[0].size(), decoded(whole, 2)[0].size());
}

TEST(SegmentedEncoding, KeepsAToneWithoutClicks) {
    const Channels original = tone(std::size_t{kRate} * 20);
    const auto found = errors(original, decoded(encodedInSegments(original), 2));
    // The first frames are those of an encoder that has just begun.
    EXPECT_LT(*std::max_element(found.begin() + 4, found.end() - 1), 1e-5);
}

TEST(SegmentedEncoding, MakesTheSameInEveryRun) {
    const Channels original = music(std::size_t{kRate} * 15, 2);
    const std::string first = bytes(encodedInSegments(original));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(bytes(encodedInSegments(original)), first);
    }
}

TEST(SegmentedEncoding, EncodesStreamsOfAnyLength) {
    for (const std::size_t frames : std::vector<std::size_t>{0, 1, 2, 15, 95, 96, 97, 98, 112, 191, 192, 193, 300}) {
        for (const std::size_t rest : std::vector<std::size_t>{0, 1, 1023}) {
            if (frames + rest > 0) {
                const Channels original = music(frames * kSamples + rest, 2);
                SCOPED_TRACE(original[0].size());
                expectSamePackets(encodedInSegments(original), encodedAtOnce(original));
            }
        }
    }
}

TEST(SegmentedEncoding, CanBeDestroyedAtAnyTime) {
    const Channels original = music(std::size_t{kRate} * 10, 2);
    for (const std::size_t frames : std::vector<std::size_t>{0, 1, 50, 97, 200, 400}) {
        const CodecContextPtr encoder = openEncoder(2);
        SegmentedEncoder segmented(*encoder, [] { return openEncoder(2); });
        int packets = 0;
        for (std::size_t i = 0; i < frames; ++i) {
            segmented.push(frameOf(original, i * kSamples), [&](AVPacket&) { ++packets; });
        }
        EXPECT_LE(packets, static_cast<int>(frames));
    }
}

TEST(SegmentedEncoding, ReportsThatAnEncoderHasFailed) {
    const Channels original = music(std::size_t{kRate} * 10, 2);
    const CodecContextPtr encoder = openEncoder(2);
    SegmentedEncoder segmented(*encoder, [] { return openEncoder(2); });
    const auto encode = [&] {
        for (std::size_t i = 0; i < 400; ++i) {
            FramePtr frame = frameOf(original, i * kSamples);
            frame->nb_samples += i == 150 ? 1 : 0;  // more than the encoder's frames have
            segmented.push(std::move(frame), [](AVPacket&) {});
        }
        segmented.finish([](AVPacket&) {});
    };
    EXPECT_THROW(encode(), Failure);
}

TEST(SegmentedEncoding, PassesOnWhatItsCallerThrows) {
    const Channels original = music(std::size_t{kRate} * 10, 2);
    const CodecContextPtr encoder = openEncoder(2);
    SegmentedEncoder segmented(*encoder,
                               []() -> CodecContextPtr { throw Failure({.cause = FailureCause::EncoderRefuses}); });
    const auto encode = [&] {
        for (std::size_t i = 0; i < 400; ++i) {
            segmented.push(frameOf(original, i * kSamples), [](AVPacket&) {});
        }
    };
    EXPECT_THROW(encode(), Failure);
}

TEST(AACWindowTest, IsUnknownWithoutAHeader) {
    EXPECT_FALSE(aacWindow(*newPacket()));
}

}  // namespace
}  // namespace krv::media
