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

/// The operations that are worth repeating when the server goes away in their midst.
///
/// All of them block the calling thread until the work has ended, and may be called from any thread. Paths are UTF-8
/// and absolute, since the server does not share the caller's working directory. progress may be null; it is called on
/// the calling thread. error may be null; it is written when the operation failed. When the server cannot be reached an
/// Exception is raised.
class KRV_EXPORT KRVReliableQTProcessOperations {
public:
    virtual ~KRVReliableQTProcessOperations();

    static constexpr Selector kConvertMovieToType{"convertMovie:writeToFile:type:flattenOnly:progress:error:"};
    /// Converts to one of the encoding types (see VideoConversion), or only flattens. Success is an error that stays
    /// unwritten.
    void convertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type, bool flattenOnly,
                      const ProgressDelegate& progress, ErrorOut error) {
        (void)performConvertMovie(source, writeToFile, type, flattenOnly, progress, error);
    }

    static constexpr Selector kConvertMovieWithSettings{
        "convertMovie:writeToFile:videoSettings:audioSettings:progress:error:"};
    /// Converts with explicit settings, each of which may be null. False when the server reported an error and it was
    /// stored in error. A failure of the transport is stored there as well, with the answer true: success is an error
    /// that stays unwritten.
    virtual bool convertMovie(std::string_view source, std::string_view writeToFile, const VideoSettings& videoSettings,
                              const AudioSettings& audioSettings, const ProgressDelegate& progress, ErrorOut error) = 0;

    static constexpr Selector kCreateThumbnails{"createThumbnailsFor:toFolder:withSize:progress:error:"};
    /// Makes pictures of the movie in a folder, fitted inside a size in pixels. Only a failure to talk to the server
    /// is reported; what the server itself says of the work is not.
    void createThumbnailsFor(std::string_view movie, std::string_view toFolder, Size withSize,
                             const ProgressDelegate& progress, ErrorOut error) {
        (void)performCreateThumbnails(movie, toFolder, withSize, progress, error);
    }

    static constexpr Selector kGetMetadata{"getMetadataFor:error:"};
    /// The movie's metadata under the kMediaMetadata keys, poster frame included; null when it failed.
    [[nodiscard]] virtual std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut error) = 0;

    static constexpr Selector kMuxMovie{"muxMovie:writeToFile:progress:error:"};
    /// Copies the movie with its audio mixed to two channels. Success is an error that stays unwritten.
    void muxMovie(std::string_view source, std::string_view writeToFile, const ProgressDelegate& progress,
                  ErrorOut error) {
        (void)performMuxMovie(source, writeToFile, progress, error);
    }

    static constexpr Selector kGetInterestingTimes{"getInterestingTimesForMovie:specificTrackIndex:trackIndex:error:"};
    /// Where a person would want to seek, as a dictionary under the kResultInterestingTime keys; null when it failed or
    /// there is none. trackIndex counts only when specificTrackIndex is true.
    [[nodiscard]] virtual Value getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                            std::int32_t trackIndex, ErrorOut error) = 0;

    /// The selectors above: the one list of what is reliable.
    [[nodiscard]] static std::span<const Selector> requiredMethods() noexcept {
        static constexpr std::array<Selector, 6> kMethods{kConvertMovieToType, kConvertMovieWithSettings,
                                                          kCreateThumbnails,   kGetMetadata,
                                                          kMuxMovie,           kGetInterestingTimes};
        return kMethods;
    }

protected:
    // The work behind the operations that are declared here without a result. They answer whether the error stayed
    // unwritten, which a caller that holds the class itself may use.
    virtual bool performConvertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type,
                                     bool flattenOnly, const ProgressDelegate& progress, ErrorOut error) = 0;
    virtual bool performCreateThumbnails(std::string_view movie, std::string_view toFolder, Size withSize,
                                         const ProgressDelegate& progress, ErrorOut error) = 0;
    virtual bool performMuxMovie(std::string_view source, std::string_view writeToFile,
                                 const ProgressDelegate& progress, ErrorOut error) = 0;
    /// What they answer.
    [[nodiscard]] static bool holdsNoError(ErrorOut error) { return !error || !*error; }
};

/// Everything an application can ask of the server.
class KRV_EXPORT KRVQTProcessOperations : public KRVReliableQTProcessOperations {
public:
    ~KRVQTProcessOperations() override;

    static constexpr Selector kTransport{"transport"};
    /// The channel that every call goes over; null after clean-up.
    [[nodiscard]] virtual std::shared_ptr<KRVTransport> transport() const = 0;

    static constexpr Selector kAmIRegistered{"amIRegistered"};
    /// Whether the server knows this process; false also when it cannot be asked.
    [[nodiscard]] virtual bool amIRegistered() = 0;

    static constexpr Selector kIsServerReady{"isServerReadyToTakeRequests"};
    /// Whether the server answers; false when it cannot be asked.
    [[nodiscard]] virtual bool isServerReadyToTakeRequests() = 0;

    static constexpr Selector kOperationsPendingCompletion{"operationsPendingCompletion"};
    /// Always a new empty array; the server is not asked.
    [[nodiscard]] virtual Array operationsPendingCompletion() = 0;

    static constexpr Selector kCancelAllOperations{"cancelAllOperations:"};
    /// Cancels every operation of this process.
    void cancelAllOperations(ErrorOut error) { (void)performCancelAllOperations(error); }

    static constexpr Selector kRegisterWithServer{"registerWithServer"};
    /// Makes this process known to the server. Raises when that fails.
    virtual void registerWithServer() = 0;

    static constexpr Selector kUnregisterFromServer{"unregisterFromServer"};
    /// Makes the server forget this process. Raises when that fails.
    virtual void unregisterFromServer() = 0;

    static constexpr Selector kQueueShutdown{"queueShutdownOfCurrentServer"};
    /// Asks the server to end once it has finished what it is doing. False when the request failed.
    virtual bool queueShutdownOfCurrentServer() = 0;

protected:
    virtual bool performCancelAllOperations(ErrorOut error) = 0;
};

}  // namespace krv
