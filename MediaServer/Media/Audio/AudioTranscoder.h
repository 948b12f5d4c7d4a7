#pragma once

#include <deque>
#include <optional>

#include <MediaServer/Media/Audio/AudioResampler.h>
#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncoderSession.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Container/Track.h>

namespace krv::media {

/// Decodes an audio stream and encodes it again.
class AudioTranscoder : public Track {
public:
    struct Request {
        const Codec& codec;
        float quality;
        const Settings& settings;
    };

    AudioTranscoder(const Source& source, const AVStream& from, const Request& request);

    /// Returns true: the header of an audio stream contains everything that open() needs.
    [[nodiscard]] bool ready() const override { return true; }
    void push(AVPacket& packet) override;
    void open(OutputFile& output) override;
    void finish() override;

private:
    const Source& source_;
    const AVStream& from_;
    const Request request_;
    Decoder decoder_;
    std::optional<EncoderSession> encoder_;
    std::optional<AudioResampler> resampler_;
};

}  // namespace krv::media
