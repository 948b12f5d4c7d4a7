#pragma once

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// Owns a channel layout.
class ChannelLayout {
public:
    ChannelLayout() = default;
    explicit ChannelLayout(const AVChannelLayout& other) { assign(other); }
    ~ChannelLayout() { av_channel_layout_uninit(&layout_); }
    ChannelLayout(const ChannelLayout&) = delete;
    ChannelLayout& operator=(const ChannelLayout&) = delete;

    void assign(const AVChannelLayout& other);
    /// Assigns the default layout for a number of channels.
    void assignDefault(int channels);
    [[nodiscard]] const AVChannelLayout& get() const noexcept { return layout_; }

private:
    AVChannelLayout layout_{};
};

/// Returns whether a lossless copy of a source needs more than 16 bits per sample.
[[nodiscard]] bool hasHighResolution(const AVStream& stream);

/// Returns how many of a source's channels remain if the request does not choose their number.
[[nodiscard]] int channelsKept(const AVStream& from, const Codec& codec);

/// Sets sample rate, channel layout, sample format and time base of an encoder that is not open yet. Takes the
/// request's settings first, then the source's values if the encoder supports them, else the nearest values that lose
/// least. Throws Failure with SettingDoesNotApply or UnsupportedChannels if the encoder does not support a setting.
void chooseAudioFormat(AVCodecContext& context, const AVStream& from, const Settings& settings, const Codec& codec);

}  // namespace krv::media
