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

/// Decodes audio streams and encodes all of them as one in stereo (see stereoMatrix()), in sync with each
/// other and the picture, and limited to -1 dB of full scale.
class StereoMixTrack : public Track {
public:
    /// from: one or more; the first lends the mix its sample rate, language and title. It gets the packets of
    /// all of them.
    StereoMixTrack(const Source& source, const std::vector<const AVStream*>& from, const Codec& codec);

    [[nodiscard]] bool ready() const override { return true; }
    void push(const AVPacket& packet) override;
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
    std::optional<AudioResampler> packing_;  // into frames as the encoder wants them
    std::int64_t encoded_ = 0;               // samples
};

}  // namespace krv::media
