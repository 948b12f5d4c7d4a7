#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include <KRVQTProcessClient/Foundation/Dictionary.h>
#include <KRVQTProcessClient/Foundation/Error.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Selector.h>
#include <KRVQTProcessClient/Foundation/Value.h>
#include <KRVQTProcessClient/Operations/EncodingParameters.h>
#include <KRVQTProcessClient/Operations/OperationProgress.h>
#include <KRVQTProcessClient/Transports/KRVOperationTransport.h>

namespace krv {

using ProgressDelegate = std::shared_ptr<OperationProgress>;
using VideoSettings = std::shared_ptr<const VideoEncodingParameters>;
using AudioSettings = std::shared_ptr<const AudioEncodingParameters>;

/// The operations that are repeated if the server is lost while they run.
///
/// Each blocks the calling thread until the work has ended. Thread-safe. Paths are UTF-8 and absolute, because the
/// server does not share the caller's working directory. progress may be null; it is called on the calling thread.
/// error may be null; it is written if the operation failed. Each throws an Exception if the server cannot be reached.
///
/// The shared client repeats a call whose server was lost, up to three attempts in all (see ReliabilityProxy). Each
/// attempt starts the work and its progress from the beginning. The first one fails at once if the server's port is not
/// known yet, as in the first moments after defaultClient(). After each failure the call waits up to about five seconds
/// for a server, and does not call progress meanwhile.
class KRV_EXPORT KRVReliableQTProcessOperations {
public:
    virtual ~KRVReliableQTProcessOperations();

    static constexpr Selector kConvertMovieToType{"convertMovie:writeToFile:type:flattenOnly:progress:error:"};
    /// Converts a movie to an encoding type (see VideoConversion), or only flattens it. On success error stays
    /// unwritten.
    void convertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type, bool flattenOnly,
                      const ProgressDelegate& progress, ErrorOut error) {
        (void)performConvertMovie(source, writeToFile, type, flattenOnly, progress, error);
    }

    static constexpr Selector kConvertMovieWithSettings{
        "convertMovie:writeToFile:videoSettings:audioSettings:progress:error:"};
    /// Converts a movie with explicit settings, each of which may be null. Returns false if the server reported an
    /// error and it was stored in error. If the transport fails, the error is stored too, but the result is true. On
    /// success error stays unwritten.
    virtual bool convertMovie(std::string_view source, std::string_view writeToFile, const VideoSettings& videoSettings,
                              const AudioSettings& audioSettings, const ProgressDelegate& progress, ErrorOut error) = 0;

    static constexpr Selector kCreateThumbnails{"createThumbnailsFor:toFolder:withSize:progress:error:"};
    /// Writes thumbnails of the movie to a folder, fitted into a size in pixels. Reports failures of the transport
    /// only: if the server reports an error, such as an unreadable movie, error stays unwritten. Look into the folder.
    void createThumbnailsFor(std::string_view movie, std::string_view toFolder, Size withSize,
                             const ProgressDelegate& progress, ErrorOut error) {
        (void)performCreateThumbnails(movie, toFolder, withSize, progress, error);
    }

    static constexpr Selector kGetMetadata{"getMetadataFor:error:"};
    /// Returns the movie's metadata under the kMediaMetadata keys, including the poster frame; null on failure.
    [[nodiscard]] virtual std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut error) = 0;

    static constexpr Selector kMuxMovie{"muxMovie:writeToFile:progress:error:"};
    /// Copies the movie with its audio mixed down to two channels. On success error stays unwritten.
    void muxMovie(std::string_view source, std::string_view writeToFile, const ProgressDelegate& progress,
                  ErrorOut error) {
        (void)performMuxMovie(source, writeToFile, progress, error);
    }

    static constexpr Selector kGetInterestingTimes{"getInterestingTimesForMovie:specificTrackIndex:trackIndex:error:"};
    /// Returns the times to which a person would want to seek, as a dictionary under the kResultInterestingTime keys;
    /// null on failure or if there are none. trackIndex is used only if specificTrackIndex is true.
    [[nodiscard]] virtual Value getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                            std::int32_t trackIndex, ErrorOut error) = 0;

    /// Returns the selectors above: the only list of reliable operations.
    [[nodiscard]] static std::span<const Selector> requiredMethods() noexcept {
        static constexpr std::array<Selector, 6> kMethods{kConvertMovieToType, kConvertMovieWithSettings,
                                                          kCreateThumbnails,   kGetMetadata,
                                                          kMuxMovie,           kGetInterestingTimes};
        return kMethods;
    }

protected:
    // Implementations of the operations that are declared here without a result. They return whether error stayed
    // unwritten, for callers that use the class itself.
    virtual bool performConvertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type,
                                     bool flattenOnly, const ProgressDelegate& progress, ErrorOut error) = 0;
    virtual bool performCreateThumbnails(std::string_view movie, std::string_view toFolder, Size withSize,
                                         const ProgressDelegate& progress, ErrorOut error) = 0;
    virtual bool performMuxMovie(std::string_view source, std::string_view writeToFile,
                                 const ProgressDelegate& progress, ErrorOut error) = 0;
    /// Returns whether error stayed unwritten.
    [[nodiscard]] static bool holdsNoError(ErrorOut error) { return !error || !*error; }
};

/// All operations of the media server.
class KRV_EXPORT KRVQTProcessOperations : public KRVReliableQTProcessOperations {
public:
    ~KRVQTProcessOperations() override;

    static constexpr Selector kTransport{"transport"};
    /// Returns the transport of every call; null after cleanUp.
    [[nodiscard]] virtual std::shared_ptr<KRVTransport> transport() const = 0;

    static constexpr Selector kAmIRegistered{"amIRegistered"};
    /// Returns whether this process is registered with the server; false also if the server cannot be reached.
    [[nodiscard]] virtual bool amIRegistered() = 0;

    static constexpr Selector kIsServerReady{"isServerReadyToTakeRequests"};
    /// Returns whether the server responds; false also if it cannot be reached.
    [[nodiscard]] virtual bool isServerReadyToTakeRequests() = 0;

    static constexpr Selector kOperationsPendingCompletion{"operationsPendingCompletion"};
    /// Returns a new empty array. Does not ask the server.
    [[nodiscard]] virtual Array operationsPendingCompletion() = 0;

    static constexpr Selector kCancelAllOperations{"cancelAllOperations:"};
    /// Cancels every operation of this process. Throws an Exception if the server cannot be reached.
    void cancelAllOperations(ErrorOut error) { (void)performCancelAllOperations(error); }

    static constexpr Selector kRegisterWithServer{"registerWithServer"};
    /// Registers this process with the server. Throws an Exception on failure.
    virtual void registerWithServer() = 0;

    static constexpr Selector kUnregisterFromServer{"unregisterFromServer"};
    /// Removes this process's registration. Throws an Exception on failure.
    virtual void unregisterFromServer() = 0;

    static constexpr Selector kQueueShutdown{"queueShutdownOfCurrentServer"};
    /// Asks the server to exit when its present work is done. Returns false if the transport reported an error. Throws
    /// an Exception if the server cannot be reached.
    virtual bool queueShutdownOfCurrentServer() = 0;

protected:
    virtual bool performCancelAllOperations(ErrorOut error) = 0;
};

/// What a client can do beyond the interface: merging, and the results that the server keeps. None of it is repeated
/// when the server is lost; the shared client passes each call on once.
class KRV_EXPORT KRVQTProcessClientOperations : public KRVQTProcessOperations {
public:
    ~KRVQTProcessClientOperations() override;

    static constexpr Selector kMergeSources{"mergeSources:writeToFile:useShortestTrack:progress:error:"};
    /// Joins the sources (an array of paths) in order. With useShortestTrack each source ends with its shortest track.
    /// Returns false if an error was stored in error. Throws an Exception if the server cannot be reached or is
    /// lost. The destination is complete or untouched then, so the call may be repeated.
    virtual bool mergeSources(const Value& sources, std::string_view writeToFile, bool useShortestTrack,
                              const ProgressDelegate& progress, ErrorOut error) = 0;

    static constexpr Selector kGetResult{"getResultOfOperation:error:"};
    /// Returns the finished record of an operation, null if the server has none. The record may contain an error, which
    /// is also stored in error. Throws an Exception if the server cannot be reached.
    [[nodiscard]] virtual KRVOperationBase::Ref getResultOfOperation(const KRVOperationBase::Ref& operation,
                                                                     ErrorOut error) = 0;

    static constexpr Selector kRemoveResults{"removeResultsFromServer:"};
    /// Deletes the result of an operation on the server. Logs a failure. operation may be null here and above: the
    /// request then names no operation.
    virtual void removeResultsFromServer(const KRVOperationBase::Ref& operation) = 0;
};

}  // namespace krv
