#pragma once

#include <atomic>
#include <memory>

#include <KRVQTProcessClient/Client/Invocation.h>
#include <KRVQTProcessClient/Client/KRVQTProcessOperations.h>
#include <KRVQTProcessClient/Client/ReliabilityDecision.h>
#include <KRVQTProcessClient/Client/ServerRunner.h>
#include <KRVQTProcessClient/Client/TransportInvocation.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Foundation/Mutex.h>
#include <KRVQTProcessClient/Monitoring/KRVProcessMonitor.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// Turns each request of the application into an operation record and runs it over a transport.
///
/// An application calls defaultClient() on its main thread and uses what it gets. The operations hold no lock and may
/// be called from any thread; each blocks its caller.
///
/// A client that monitors the server has a runner, and the two keep each other alive until cleanUp.
class KRV_EXPORT KRVQuicktimeProcessClient final : public KRVQTProcessOperations,
                                                   public ReliabilityDecision,
                                                   public std::enable_shared_from_this<KRVQuicktimeProcessClient> {
public:
    // The one client that a process shares.

    /// The shared client. Made on first use, which must be on the main thread (Exception "NotMainThread" elsewhere);
    /// then it launches the server if none runs and keeps this process registered, for which the main run loop has to
    /// turn. Calls worth repeating are repeated while the server is away (see ReliabilityProxy). Any thread later.
    [[nodiscard]] static std::shared_ptr<KRVQTProcessOperations> defaultClient();
    /// Puts a new client over that transport in the place of the shared one, bare: nothing is repeated. The old one is
    /// dropped as it is, without cleanUp. Any thread.
    static std::shared_ptr<KRVQuicktimeProcessClient> clientWithTransport(std::shared_ptr<KRVTransport> transport,
                                                                          bool monitorServer);
    /// The same, monitoring the server.
    static std::shared_ptr<KRVQuicktimeProcessClient> clientWithTransport(std::shared_ptr<KRVTransport> transport);
    /// Lets go of the shared client; the next defaultClient() makes another. A bare client is cleaned up by that and
    /// its runner ends. The one that defaultClient() made goes on watching the server for as long as the process lives.
    static void destroySingleton();

    // Making and ending a client.

    /// A client is only made with a transport: always raises Exception "NSInvalidArgumentException".
    [[noreturn]] static std::shared_ptr<KRVQuicktimeProcessClient> init();
    /// A client of its own. With monitorServer, one that launches and watches the server from a second from now on.
    [[nodiscard]] static std::shared_ptr<KRVQuicktimeProcessClient>
    initWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer);
    /// The same with a runner that sees another system.
    [[nodiscard]] static std::shared_ptr<KRVQuicktimeProcessClient>
    initWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer,
                      ServerRunner::Environment environment);
    /// A client of its own without monitoring. clock is what waiting calls measure stalls with; it must outlive it.
    explicit KRVQuicktimeProcessClient(std::shared_ptr<KRVTransport> transport, Clock& clock = Clock::steady());
    ~KRVQuicktimeProcessClient() override;
    /// Ends the client: its runner, if it has one, stops, and the transport goes. Once; not while a call is under way.
    void cleanUp();

    /// Null without monitoring and after cleanUp.
    [[nodiscard]] std::shared_ptr<ServerRunner> serverRunner() const;
    /// Null after cleanUp.
    [[nodiscard]] std::shared_ptr<KRVProcessMonitor> procMonitor() const;
    /// For log lines.
    [[nodiscard]] std::string description() const;

    [[nodiscard]] std::shared_ptr<KRVTransport> transport() const override;
    void setTransport(std::shared_ptr<KRVTransport> transport);
    /// Seconds for which progress may stand still before a waiting call gives up; 60 at first.
    [[nodiscard]] float progressTimeoutDuration() const noexcept { return progressTimeoutDuration_; }
    void setProgressTimeoutDuration(float seconds) noexcept { progressTimeoutDuration_ = seconds; }

    // Media work. Each waits for the server to end it. The results say more than the interface declares. The two
    // conversions answer false when the server's record carried an error and it was stored in error; a failure of the
    // transport is stored there too, but the answer is true then: look at error. The others answer whether error holds
    // nothing afterwards. Without an out-parameter every answer is true.

    bool convertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type, bool flattenOnly,
                      const ProgressDelegate& progress, ErrorOut error) {
        return performConvertMovie(source, writeToFile, type, flattenOnly, progress, error);
    }
    bool convertMovie(std::string_view source, std::string_view writeToFile, const VideoSettings& videoSettings,
                      const AudioSettings& audioSettings, const ProgressDelegate& progress, ErrorOut error) override;
    bool createThumbnailsFor(std::string_view movie, std::string_view toFolder, Size withSize,
                             const ProgressDelegate& progress, ErrorOut error) {
        return performCreateThumbnails(movie, toFolder, withSize, progress, error);
    }
    bool muxMovie(std::string_view source, std::string_view writeToFile, const ProgressDelegate& progress,
                  ErrorOut error) {
        return performMuxMovie(source, writeToFile, progress, error);
    }
    /// Joins the sources (an array of paths) in order. With useShortestTrack each source ends with its shortest track.
    /// Not among the reliable operations.
    bool mergeSources(const Value& sources, std::string_view writeToFile, bool useShortestTrack,
                      const ProgressDelegate& progress, ErrorOut error);
    [[nodiscard]] std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut error) override;
    [[nodiscard]] Value getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                    std::int32_t trackIndex, ErrorOut error) override;

    // Control requests: one call each.

    [[nodiscard]] bool amIRegistered() override;
    [[nodiscard]] bool isServerReadyToTakeRequests() override;
    [[nodiscard]] Array operationsPendingCompletion() override;
    bool cancelAllOperations(ErrorOut error) { return performCancelAllOperations(error); }
    void registerWithServer() override;
    void unregisterFromServer() override;
    bool queueShutdownOfCurrentServer() override;

    // Results that the server keeps.

    /// The finished record of an operation, which may carry an error of its own (also stored in error); null when there
    /// is none. Raises when the server is unreachable.
    [[nodiscard]] KRVOperationBase::Ref getResultOfOperation(const KRVOperationBase::Ref& operation, ErrorOut error);
    /// Makes the server forget the result of an operation. A failure is only logged.
    void removeResultsFromServer(const KRVOperationBase::Ref& operation);

    /// Moves the record's error into the out-parameter. True when there is none of the two.
    static bool migrateInvocationError(const KRVOperationBase::Ref& response, ErrorOut toError);

    /// Whether the call is one of KRVReliableQTProcessOperations.
    [[nodiscard]] bool doesOperationNeedToBeReliable(const Invocation& invocation) const override;

protected:
    bool performConvertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type, bool flattenOnly,
                             const ProgressDelegate& progress, ErrorOut error) override;
    bool performCreateThumbnails(std::string_view movie, std::string_view toFolder, Size withSize,
                                 const ProgressDelegate& progress, ErrorOut error) override;
    bool performMuxMovie(std::string_view source, std::string_view writeToFile, const ProgressDelegate& progress,
                         ErrorOut error) override;
    bool performCancelAllOperations(ErrorOut error) override;

private:
    using Ref = KRVOperationBase::Ref;
    explicit KRVQuicktimeProcessClient(Clock& clock);
    void initWithMonitor(bool monitorServer, ServerRunner::Environment environment);
    [[nodiscard]] TransportInvocation::Reply call(const Ref& operation, ErrorOut error) const;
    [[nodiscard]] Ref callAndWait(const Ref& operation, const ProgressDelegate& progress, ErrorOut error) const;
    [[nodiscard]] Ref finishedRecordOf(const Ref& operation, ErrorOut error);

    Clock& clock_;
    mutable Mutex mutex_;
    std::atomic<bool> inCleanup_{false};
    std::shared_ptr<ServerRunner> serverRunner_ KRV_GUARDED_BY(mutex_);
    std::shared_ptr<KRVProcessMonitor> procMonitor_ KRV_GUARDED_BY(mutex_);
    Guarded<std::shared_ptr<KRVTransport>> transport_;
    std::atomic<float> progressTimeoutDuration_{0};
};

/// The shared client as a variable: the proxy that defaultClient() made, a bare client, or null. To be looked at only;
/// the operations of the class change it under their lock.
extern "C" KRV_EXPORT std::shared_ptr<KRVQTProcessOperations>&
    __default_krv_quicktime_process_client;  // NOLINT(bugprone-reserved-identifier): its name in every binary

}  // namespace krv
