#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <MediaServer/Media/Container/PartReader.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Subtitles/Font.h>
#include <MediaServer/Media/Subtitles/Overlay.h>
#include <MediaServer/Media/Subtitles/SubtitleRenderer.h>

namespace krv::media {

/// Draws a track of subtitles into the frames of a movie. It reads the movie a second time, because the packets of the
/// track may be stored later than those of the frames. Not thread-safe.
class BurnIn {
public:
    struct Request {
        int descriptor;  ///< of the movie; borrowed
        std::string path;
        std::optional<Part> part;
        std::size_t video;  ///< the stream of the frames
        std::size_t track;  ///< the stream of the subtitles
        Font font;          ///< for text whose own font the movie does not have
    };

    /// Makes what draws into frames of a layout.
    using Maker = std::function<std::unique_ptr<BurnIn>(const FrameLayout&)>;

    /// Throws the failures of Source and of SubtitleDecoder. Throws Failure with UnsupportedSetting if there is no font
    /// for text, and with SettingDoesNotApply if subtitles cannot be drawn into such frames.
    BurnIn(const Request& request, const FrameLayout& layout, Progress& progress);

    /// Returns when what is shown may change, after one time and before another, in microseconds. Neither may fall from
    /// call to call.
    [[nodiscard]] std::vector<std::int64_t> changesBetween(std::int64_t after, std::int64_t before);

    /// Draws what is shown at a time in microseconds. Copies the data of the frame if others refer to it. Times must
    /// not fall.
    void draw(AVFrame& frame, std::int64_t time);

private:
    [[nodiscard]] std::vector<Font> fontsOfMovie() const;
    void readUntil(std::int64_t time);
    void add(const Subtitle& subtitle);

    Source source_;
    PartReader reader_;
    SubtitleDecoder decoder_;
    const int track_;
    const FrameLayout layout_;
    std::unique_ptr<SubtitleRenderer> renderer_;
    std::vector<OverlayImage> images_;
    std::vector<Overlay> overlays_;  // images_ in the form of the frames
    bool ended_ = false;
    std::int64_t latest_ = -1;  // the start of the latest subtitle that has been read
    std::set<std::int64_t> changes_;
};

}  // namespace krv::media
