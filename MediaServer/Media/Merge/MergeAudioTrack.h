#pragma once

#include <optional>

#include <MediaServer/Media/Audio/AudioResampler.h>
#include <MediaServer/Media/Codec/Decoder.h>
#include <MediaServer/Media/Codec/EncoderSession.h>
#include <MediaServer/Media/Merge/MergeTrack.h>

namespace krv::media {

/// Encodes the audio of all sources in the format of a model.
class MergeAudioTrack : public MergeTrack {
public:
    /// model: the stream whose format, language and title the track gets. It must outlive the track. end: of the merged
    /// movie, in microseconds.
    MergeAudioTrack(const AVStream& model, const Codec& codec, std::int64_t end);

    void open(OutputFile& output) override;
    void begin(const MergePart& part) override;
    void push(const AVPacket& packet) override;
    void hold(std::int64_t time) override;
    void end() override;
    void finish() override;

private:
    [[nodiscard]] std::int64_t sampleAt(std::int64_t time) const;
    void place(FramePtr frame);
    void encode(FramePtr frame) { encoder_->encode(*frame); }

    const AVStream& model_;
    const Codec& codec_;
    const std::int64_t end_;
    const Settings settings_;
    std::optional<EncoderSession> encoder_;
    std::optional<AudioResampler> resampler_;
    std::optional<Decoder> decoder_;
    MergePart part_{};
    bool fed_ = false;
    bool decoded_ = false;
};

}  // namespace krv::media
