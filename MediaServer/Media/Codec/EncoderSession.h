#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/OutputFile.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// An open encoder that writes its packets to a stream of the output. One thread.
class EncoderSession {
public:
    struct Request {
        const Codec& codec;
        float quality;  ///< in [0, 1], 0: standard
        const Settings& settings;
        bool highResolution = false;  ///< for PCM: 24 bits instead of 16
    };
    /// Fills in what the media demand (size, formats, rates, time base) before the encoder is opened. Gets
    /// the encoder, of whose formats it may have to choose.
    using Prepare = std::function<void(AVCodecContext& context)>;

    /// Opens the first of the codec's encoders that works, and adds its stream to the output.
    /// Throws Failure with SettingDoesNotApply or EncoderRefuses if it does not take a setting.
    EncoderSession(const Request& request, OutputFile& output, const Prepare& prepare);

    /// Encodes a frame; its pts is in units of the context's time base. For video, pkt_duration is how long
    /// it is shown.
    void encode(AVFrame& frame);
    void finish();

    [[nodiscard]] AVCodecContext& context() const noexcept { return *context_; }
    [[nodiscard]] AVStream& stream() const noexcept { return *stream_; }

private:
    void send(const AVFrame* frame);
    void makeTimesValid(AVPacket& packet);

    OutputFile& output_;
    CodecContextPtr context_;
    AVStream* stream_ = nullptr;
    PacketPtr packet_ = newPacket();
    std::optional<std::int64_t> lastDts_;
    std::map<std::int64_t, std::int64_t> durations_;  // by time, of the frames that are inside the encoder
};

}  // namespace krv::media
