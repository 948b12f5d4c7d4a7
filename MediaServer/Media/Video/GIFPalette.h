#pragma once

#include <functional>

#include <MediaServer/Media/Codec/Settings.h>
#include <MediaServer/Media/Container/Source.h>
#include <MediaServer/Media/Foundation/AV.h>
#include <MediaServer/Media/Subtitles/BurnIn.h>
#include <MediaServer/Media/Video/VideoFormat.h>

namespace krv::media {

/// Frames per second. Browsers show a frame that has less than two hundredths of a second for ten.
inline constexpr int kHighestGIFRate = 50;

/// Chooses the palette for a GIF that shows one or several movies. Not thread-safe; codecs and filters may use threads of
/// their own.
class PaletteChooser {
public:
    /// Borrows both.
    PaletteChooser(const Settings& settings, const Container& container);

    /// Counts the colours of a video stream. Reads the source from its present position to its end. Decodes all frames
    /// of a short movie, only the key frames of a long one. burnIn: draws subtitles first, if there are any.
    void read(Source& source, std::size_t index, const BurnIn::Maker& burnIn = {});
    /// Returns a frame of 16 x 16 pixels, one for each colour. One of the colours is transparent. Throws Failure with
    /// Damaged if no frame could be decoded.
    [[nodiscard]] FramePtr palette();

private:
    [[nodiscard]] VideoFormatRequest requestFor(const AVStream& stream, const AVFrame& first) const;
    void begin(const AVStream& stream, const AVFrame& first);
    void add(FramePtr frame);

    const Settings& settings_;
    const Container& container_;
    VideoFormat format_;
    FilterGraphPtr graph_;
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
    std::int64_t count_ = 0;
};

/// Reduces frames to the colours of a palette, with dithering. Not thread-safe.
class PaletteMapper {
public:
    using Sink = std::function<void(FramePtr)>;

    /// palette: of a PaletteChooser. format: of the frames. timeBase: unit of their times.
    PaletteMapper(const AVFrame& palette, const VideoFormat& format, AVRational timeBase);

    void push(FramePtr frame, const Sink& sink);
    void finish(const Sink& sink);

private:
    void drain(const Sink& sink);

    FilterGraphPtr graph_;
    AVFilterContext* in_ = nullptr;
    AVFilterContext* out_ = nullptr;
};

}  // namespace krv::media
