#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include <MediaServer/Media/Codec/BackgroundEncoder.h>
#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// An open encoder that writes its packets to a stream of the output. Not thread-safe.
class EncoderSession {
public:
    struct Request {
        const Codec& codec;
        float quality;  ///< in [0, 1], 0: standard
        const Settings& settings;
        bool highResolution = false;  ///< for PCM: 24 bits instead of 16
        bool inBackground = false;    ///< encodes on other threads while the caller prepares the next frames
    };
    /// Fills in the properties of the media (size, formats, rates, time base) before the encoder is opened.
    /// AVCodecContext::codec is already set and lists the formats that the encoder supports. If the request is for the
    /// background, it may be called again until this object is destroyed, by encode().
    using Prepare = std::function<void(AVCodecContext& context)>;

    /// Opens the first of the codec's encoders that can be opened, and adds its stream to the output.
    /// Throws Failure with SettingDoesNotApply or EncoderRefuses if the encoder rejects a setting.
    EncoderSession(const Request& request, OutputFile& output, const Prepare& prepare);

    /// Encodes a frame. Its pts is in units of the context's time base, and so is the pkt_duration of a video frame.
    void encode(AVFrame& frame);
    void finish();

    /// Returns which part of the frames has been encoded, in 0…1. Encoders look many frames ahead.
    [[nodiscard]] double done() const noexcept;

    [[nodiscard]] AVCodecContext& context() const noexcept { return *context_; }
    [[nodiscard]] AVStream& stream() const noexcept { return *stream_; }

private:
    [[nodiscard]] std::unique_ptr<BackgroundEncoder> makeBackground(const Request& request, const Prepare& prepare);
    void send(const AVFrame* frame);
    void write(AVPacket& packet);
    void makeTimesValid(AVPacket& packet);

    OutputFile& output_;
    CodecContextPtr context_;
    AVStream* stream_ = nullptr;
    std::unique_ptr<BackgroundEncoder> background_;
    std::int64_t frames_ = 0;
    std::int64_t packets_ = 0;
    std::optional<std::int64_t> lastDts_;
    std::map<std::int64_t, std::int64_t> durations_;  // of the frames that the encoder is working on, by their times
};

}  // namespace krv::media
