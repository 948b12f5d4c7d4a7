#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MediaTestKit.h"

namespace krv::media::test {

/// A line of text, with its times in seconds.
struct TextLine {
    double start;
    double end;
    std::string text;

    bool operator==(const TextLine&) const = default;
};
void PrintTo(const TextLine& line, std::ostream* out);

/// Returns lines as the content of an SRT file.
std::string subRip(const std::vector<TextLine>& lines);

/// Returns the lines of a text subtitle track, as decoded by ffmpeg. Times are rounded to milliseconds.
std::vector<TextLine> linesOf(const std::string& path, int track = 0);

/// A grey rectangle in a video of a size, in pixels.
struct Bitmap {
    int x;
    int y;
    int width;
    int height;
};
/// Bitmaps that are shown at a time. Without any, what was shown before disappears.
struct DisplaySet {
    double time;
    std::optional<Bitmap> bitmap{};
};
/// Returns the content of a file with Blu-ray subtitles, in white.
std::string bluRaySubtitles(int width, int height, const std::vector<DisplaySet>& sets);

/// Adds subtitle tracks to the video and audio of a movie, which are copied. files: one for each track, as "-i" has
/// them. options: for ffmpeg, such as metadata; "-c:s copy" unless they say otherwise.
OutputPath withSubtitles(const std::string& movie, const std::vector<std::string>& files, const std::string& extension,
                         const std::vector<std::string>& options = {});

/// Writes a file that is removed with the result.
OutputPath fileWith(const std::string& extension, const std::string& content);

/// A packet of a subtitle track, with its times in seconds.
struct SubtitlePacket {
    double time;
    double duration;
    int size;
    std::string hash;
};
std::vector<SubtitlePacket> subtitlePackets(const std::string& path, int track = 0);

}  // namespace krv::media::test
