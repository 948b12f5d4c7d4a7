#pragma once

#include <filesystem>
#include <memory>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Jobs/Job.h>
#include <KRVQTProcessClient/Jobs/JobOptions.h>
#include <KRVQTProcessClient/Jobs/JobResults.h>

namespace krv {

/// Converts, merges and inspects movies: each member starts a job and returns a handle to it at once.
///
/// A job waits until a media server responds, and one is launched at once if none is running. If the server is lost, the
/// work is sent to the next one, up to three times in all. Any number of jobs may be started. One thread follows all of
/// them, and sends the server as many as it can use, in the order in which they were started.
///
/// Copies share everything. Destroying a Media does not cancel its jobs. Thread-safe.
class KRV_EXPORT Media {
public:
    enum class Launch : bool {
        /// Launch a server if none is running, and keep this process registered with it.
        IfMissing,
        /// Fail if none is running.
        Never,
    };
    struct Settings {
        Launch launch = Launch::IfMissing;
        /// How long a job waits for a server to respond. It fails earlier if waiting cannot help, for instance because
        /// the server's program is missing.
        Seconds patience{20};
    };

    /// The first Media of a process that may launch a server must be created on the main thread (throws Exception
    /// "NotMainThread"), because it creates the shared client. Throws Exception "OutOfDescriptors" or "HTTPLoop" if this
    /// process has too few descriptors or threads left.
    Media();
    explicit Media(Settings settings);
    ~Media();
    Media(const Media&);
    Media& operator=(const Media&);

    /// Converts a movie.
    [[nodiscard]] Job<Converted> convert(ConvertOptions options) const;
    /// Copies every track into one self-contained file that can be played while it is loaded.
    [[nodiscard]] Job<Converted> flatten(FlattenOptions options) const;
    /// Copies a movie and mixes its audio down to two channels.
    [[nodiscard]] Job<Converted> mixToStereo(MixToStereoOptions options) const;
    /// Joins movies, one after the other.
    [[nodiscard]] Job<Merged> merge(MergeOptions options) const;
    /// Writes thumbnails that are spread evenly over a movie. All or none appear.
    [[nodiscard]] Job<Thumbnails> thumbnails(ThumbnailOptions options) const;
    /// Describes a movie.
    [[nodiscard]] Job<MovieInfo> info(InfoOptions options) const;
    [[nodiscard]] Job<MovieInfo> info(const std::filesystem::path& source) const {
        return info(InfoOptions{.source = source});
    }
    /// Finds the times to which a person would want to seek.
    [[nodiscard]] Job<InterestingTimes> interestingTimes(InterestingTimesOptions options) const;

    /// Asks a server that is running for its status. Fails at once, without launching one, if none is running.
    [[nodiscard]] Job<ServerStatus> serverStatus(JobControl control = {}) const;
    /// Cancels the work of all this user's applications. The same holds if no server is running.
    [[nodiscard]] Job<Done> cancelAllWork(JobControl control = {}) const;
    /// Asks the server to exit when it has finished its work. The same holds if no server is running.
    [[nodiscard]] Job<Done> shutDownServer(JobControl control = {}) const;

private:
    class Implementation;
    std::shared_ptr<Implementation> implementation_;
};

}  // namespace krv
