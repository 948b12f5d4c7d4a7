#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include <MediaServer/Media/Audio/AudioMixer.h>
#include <MediaServer/Media/Audio/AudioResampler.h>
#include <MediaServer/Media/Audio/Limiter.h>
#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncoderSession.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>

namespace krv::media {

/// Decodes audio streams, mixes them down to one stereo stream (see stereoMatrix()), limits it to -1 dB of full scale
/// and encodes it. The streams stay in sync with each other and with the video.
class StereoMixTrack : public Track {
public:
    /// from: one or more streams, whose packets are all pushed here. The first one determines the sample rate, language
    /// and title of the mix.
    StereoMixTrack(const Source& source, const std::vector<const AVStream*>& from, const Codec& codec);

    [[nodiscard]] bool ready() const override { return true; }
    void push(AVPacket& packet) override;
    void open(OutputFile& output) override;
    void finish() override;

private:
    struct Input {
        explicit Input(const AVStream& stream)
            : from(stream)
            , decoder(stream) {}
        const AVStream& from;
        Decoder decoder;
        std::optional<AudioResampler> resampler;
    };

    void prepare(AVCodecContext& context) const;
    void add(std::size_t input, const AVFrame& frame);
    void limit(std::span<const float> left, std::span<const float> right);
    void encode(std::span<const float> left, std::span<const float> right);

    const Source& source_;
    const Codec& codec_;
    const Settings settings_;
    std::vector<std::unique_ptr<Input>> inputs_;
    std::optional<EncoderSession> encoder_;
    std::optional<AudioMixer> sum_;
    std::optional<Limiter> limiter_;
    std::optional<AudioResampler> packing_;  // into frames of the encoder's size
    std::int64_t encoded_ = 0;               // samples
};

}  // namespace krv::media
