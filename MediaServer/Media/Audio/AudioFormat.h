#pragma once

#include <MediaServer/Media/Codec/CodecTable.h>
#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Foundation/AV.h>

namespace krv::media {

/// A channel layout, owned.
class ChannelLayout {
public:
    ChannelLayout() = default;
    explicit ChannelLayout(const AVChannelLayout& other) { assign(other); }
    ~ChannelLayout() { av_channel_layout_uninit(&layout_); }
    ChannelLayout(const ChannelLayout&) = delete;
    ChannelLayout& operator=(const ChannelLayout&) = delete;

    void assign(const AVChannelLayout& other);
    /// The usual layout of this many channels.
    void assignDefault(int channels);
    [[nodiscard]] const AVChannelLayout& get() const noexcept { return layout_; }

private:
    AVChannelLayout layout_{};
};

/// Whether a source is worth more than 16 bits when it is kept without loss.
[[nodiscard]] bool hasHighResolution(const AVStream& stream);

/// Sets sample rate, channel layout, sample format and time base of an encoder that is not open yet: the
/// source's where the encoder takes them, else the nearest that lose least; settings win.
/// Throws Failure with SettingDoesNotApply or UnsupportedChannels for what the encoder cannot do.
void chooseAudioFormat(AVCodecContext& context, const AVStream& from, const Settings& settings, const Codec& codec);

}  // namespace krv::media
