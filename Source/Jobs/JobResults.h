#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Jobs/Progress.h>

/// The results of Media's jobs. Each contains the server's record, for details that are not modelled here.
namespace krv {

class KRVOperationBase;

/// The finished record. Shared and must not be changed.
using FinishedRecord = std::shared_ptr<const KRVOperationBase>;

/// A track of a source that the written movie does not have, or a property that it could not keep.
struct DroppedTrack {
    /// Number of the source, from 0.
    std::size_t source = 0;
    /// Index of the track in the source; −1: what was dropped belongs to the whole movie.
    std::int64_t index = -1;
    /// "video", "audio", "subtitle", "data", "attachment", "cover", "alpha", "stereo3D", "channels", "title", "language",
    /// "flag" or "chapters".
    std::string kind{};
    /// May be empty.
    std::string codec{};
    /// Language tag; may be empty.
    std::string language{};
    /// For a person, such as "mp4 files cannot hold bitmap subtitles".
    std::string reason{};

    friend bool operator==(const DroppedTrack&, const DroppedTrack&) = default;
};

/// A movie that was written.
struct Converted {
    std::filesystem::path path{};
    std::vector<DroppedTrack> droppedTracks{};
    /// Where the source ends, if it is truncated.
    std::optional<Seconds> sourceTruncatedAt{};
    FinishedRecord record{};
};

/// A movie that was joined from several.
struct Merged {
    std::filesystem::path path{};
    std::vector<DroppedTrack> droppedTracks{};
    /// Where each source ends, if it is truncated.
    std::vector<std::optional<Seconds>> sourcesTruncatedAt{};
    FinishedRecord record{};
};

struct Thumbnail {
    /// A JPEG file.
    std::filesystem::path path{};
    /// The time of the frame that it shows, from the start of the movie.
    Seconds time{0};
};

struct Thumbnails {
    /// In the order of their times.
    std::vector<Thumbnail> thumbnails{};
    std::optional<Seconds> sourceTruncatedAt{};
    FinishedRecord record{};
};

/// One track of a movie. Texts may be empty.
struct MovieTrack {
    /// As in InterestingTimesOptions::track.
    std::int64_t index = 0;
    /// "video", "audio", "subtitle", "data", "attachment" or "cover".
    std::string kind{};
    std::string codec{};
    /// Language tag.
    std::string language{};
    std::string title{};
    bool isDefault = false;
    /// For video: pixels of an upright frame as it is displayed, and frames per second. Else 0.
    double width = 0;
    double height = 0;
    double frameRate = 0;
    /// For audio. Else 0.
    std::int64_t channels = 0;
    std::int64_t sampleRate = 0;
};

struct MovieChapter {
    Seconds start{0};
    Seconds end{0};
    std::string title{};
};

/// The description of a movie.
struct MovieInfo {
    std::filesystem::path path{};
    /// Names for people, such as "H.264, AAC".
    std::string codecs{};
    /// For people, such as "AAC, 48000 Hz, stereo"; empty without audio.
    std::string audio{};
    std::optional<Seconds> duration{};
    /// Pixels of an upright frame as it is displayed; 0 without video.
    double width = 0;
    double height = 0;
    /// Frames per second; 0 without video.
    double frameRate = 0;
    /// Bytes of the file.
    std::int64_t size = 0;
    std::optional<std::chrono::system_clock::time_point> created{};
    std::optional<std::chrono::system_clock::time_point> modified{};
    /// A JPEG file: the cover, or a frame. Null without video.
    std::shared_ptr<const std::vector<std::byte>> poster{};
    std::vector<MovieTrack> tracks{};
    /// By name in lower case, such as "title" and "artist".
    std::map<std::string, std::string> tags{};
    std::vector<MovieChapter> chapters{};
    std::optional<Seconds> sourceTruncatedAt{};
    FinishedRecord record{};
};

/// The times to which a person would want to seek, in ascending order.
struct InterestingTimes {
    /// In units of 1/timescale seconds, exact.
    std::vector<std::int64_t> values{};
    std::int64_t timescale = 1;
    std::optional<Seconds> sourceTruncatedAt{};
    FinishedRecord record{};

    [[nodiscard]] KRV_EXPORT std::vector<Seconds> seconds() const;
};

/// The kernel features with which a server confines its workers.
struct SandboxSupport {
    /// Version of Landlock, 0 for none.
    std::int64_t landlock = 0;
    bool seccomp = false;
};

/// The server's present status.
struct ServerStatus {
    std::string version{};
    std::int64_t pid = 0;
    std::int64_t port = 0;
    Seconds uptime{0};
    /// Process ids of its clients.
    std::vector<std::int64_t> clients{};
    /// Numbers of media operations.
    std::int64_t queued = 0;
    std::int64_t running = 0;
    std::int64_t finished = 0;
    std::int64_t workers = 0;
    /// Nothing if the server does not say.
    std::optional<SandboxSupport> sandbox{};
    /// Names of the operations that wait or run, in order.
    std::vector<std::string> operations{};
    /// The server's own report, a JSON object.
    std::string json{};
};

/// The result of a request without one of its own.
struct Done {};

}  // namespace krv
