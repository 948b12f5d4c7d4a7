#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Jobs/Progress.h>
#include <KRVQTProcessClient/Operations/VideoConversion.h>

/// The options of Media's jobs, for designated initialisers. Only the files have to be given.
///
/// Paths may be relative to the working folder at the time of the call. Their names must be UTF-8. An existing destination
/// is replaced when the work is complete, and is untouched if it fails or is cancelled.
namespace krv {

class RunLoop;

/// Called on the job's loop whenever its progress changes, at most once at a time. If the loop falls behind, only the
/// latest progress is delivered. If it throws, the exception is logged and the job is cancelled.
using ProgressCallback = std::function<void(const Progress&)>;

/// Options of every job.
struct JobControl {
    /// Where callbacks are called. Null: the main run loop. It must outlive the job.
    RunLoop* loop = nullptr;
    /// A stop request cancels the job.
    std::stop_token stop{};
    /// The job fails if the server reports no change for longer than this.
    Seconds stallTimeout{60};
};

/// How video is encoded. An empty text and a zero mean the default.
struct VideoOptions {
    /// "h264", "hevc", "av1", "vp9", "prores" or a four-character code such as "apch".
    std::string codec{};
    /// Above 0 and at most 1.
    double quality = 0;
    /// Frames per second, constant. By default the timing of the source is kept.
    double fps = 0;
    /// Further settings as "key=value:key=value": width, height, bitrate, preset, pixelFormat, and options of the encoder.
    std::string settings{};

    friend bool operator==(const VideoOptions&, const VideoOptions&) = default;
};

/// How audio is encoded. An empty text and a zero mean the default.
struct AudioOptions {
    /// "aac", "opus", "flac", "mp3", "pcm", "alac" or a four-character code.
    std::string codec{};
    /// Above 0 and at most 1.
    double quality = 0;
    /// Further settings as "key=value:key=value": bitrate, channels, sampleRate, and options of the encoder.
    std::string settings{};

    friend bool operator==(const AudioOptions&, const AudioOptions&) = default;
};

struct ConvertOptions {
    std::filesystem::path source{};
    /// Its extension selects the container.
    std::filesystem::path destination{};
    /// By default H.264, or what suits the extension where H.264 does not. Video and audio options refine it.
    std::optional<VideoConversion::Type> type{};
    VideoOptions video{};
    AudioOptions audio{};
    /// The part of the source that is converted. By default all of it.
    std::optional<Seconds> start{};
    std::optional<Seconds> end{};
    /// The tracks to keep: indices or languages, separated by commas. By default all.
    std::string audioTracks{};
    std::string subtitleTracks{};
    /// Index or language of a subtitle track that is drawn into the video.
    std::string burnInSubtitleTrack{};
    /// Fails before it writes anything, if a track would be dropped.
    bool strict = false;
    ProgressCallback onProgress{};
    JobControl control{};
};

struct FlattenOptions {
    std::filesystem::path source{};
    std::filesystem::path destination{};
    std::optional<Seconds> start{};
    std::optional<Seconds> end{};
    std::string audioTracks{};
    std::string subtitleTracks{};
    bool strict = false;
    ProgressCallback onProgress{};
    JobControl control{};
};

struct MixToStereoOptions {
    std::filesystem::path source{};
    std::filesystem::path destination{};
    ProgressCallback onProgress{};
    JobControl control{};
};

struct MergeOptions {
    /// At least one, in order.
    std::vector<std::filesystem::path> sources{};
    std::filesystem::path destination{};
    /// Each source ends with its shortest track. By default shorter tracks are held to the end of the longest.
    bool useShortestTrack = false;
    /// Frames per second; 0: those of the first source.
    double fps = 0;
    /// Pixels; 0: those of the first source.
    int width = 0;
    int height = 0;
    ProgressCallback onProgress{};
    JobControl control{};
};

struct ThumbnailOptions {
    std::filesystem::path source{};
    /// Created if it is missing.
    std::filesystem::path folder{};
    /// 1 to 9999.
    int count = 12;
    /// Pixels that each thumbnail is fitted into without enlarging it; 0: not limited.
    int width = 0;
    int height = 0;
    ProgressCallback onProgress{};
    JobControl control{};
};

struct InfoOptions {
    std::filesystem::path source{};
    ProgressCallback onProgress{};
    JobControl control{};
};

struct InterestingTimesOptions {
    std::filesystem::path source{};
    /// Only the times of this track. By default those of the whole movie.
    std::optional<std::int32_t> track{};
    ProgressCallback onProgress{};
    JobControl control{};
};

}  // namespace krv
