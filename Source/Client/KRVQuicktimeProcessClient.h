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

/// Makes an operation record of each request and sends it over a transport.
///
/// An application calls defaultClient() on its main thread and uses the result. The operations are thread-safe, hold no
/// lock, and block their caller.
///
/// A client that monitors the server has a runner. The two keep references to each other until cleanUp.
class KRV_EXPORT KRVQuicktimeProcessClient final : public KRVQTProcessClientOperations,
                                                   public ReliabilityDecision,
                                                   public std::enable_shared_from_this<KRVQuicktimeProcessClient> {
public:
    // The process's shared client.

    /// Returns the shared client, and creates it on first use. The first call must be on the main thread (throws
    /// Exception "NotMainThread" otherwise); later calls are thread-safe. Throws Exception "OutOfDescriptors" if this
    /// process has too few file descriptors left to create it; nothing is left behind then. The client launches the server if none is
    /// running and keeps this process registered, for which the main run loop must run. Reliable calls are retried
    /// (see ReliabilityProxy).
    [[nodiscard]] static std::shared_ptr<KRVQTProcessClientOperations> defaultClient();
    /// Replaces the shared client by a new one over that transport, without retries. The old one is released without
    /// cleanUp. Thread-safe.
    static std::shared_ptr<KRVQuicktimeProcessClient> clientWithTransport(std::shared_ptr<KRVTransport> transport,
                                                                          bool monitorServer);
    /// The same, with monitoring.
    static std::shared_ptr<KRVQuicktimeProcessClient> clientWithTransport(std::shared_ptr<KRVTransport> transport);
    /// Releases the shared client; the next defaultClient() creates another. A client of clientWithTransport() is
    /// cleaned up and its runner stops. One of defaultClient() continues to watch the server until the process exits.
    static void destroySingleton();

    // Creating and cleaning up a client.

    /// Always throws Exception "NSInvalidArgumentException": a client needs a transport.
    [[noreturn]] static std::shared_ptr<KRVQuicktimeProcessClient> init();
    /// Creates a client. With monitorServer its runner starts to launch and watch the server one second later.
    [[nodiscard]] static std::shared_ptr<KRVQuicktimeProcessClient>
    initWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer);
    /// The same, with a runner in another environment.
    [[nodiscard]] static std::shared_ptr<KRVQuicktimeProcessClient>
    initWithTransport(std::shared_ptr<KRVTransport> transport, bool monitorServer,
                      ServerRunner::Environment environment);
    /// Creates a client without monitoring. Waiting calls measure stalls with clock, which must outlive the client.
    explicit KRVQuicktimeProcessClient(std::shared_ptr<KRVTransport> transport, Clock& clock = Clock::steady());
    ~KRVQuicktimeProcessClient() override;
    /// Stops the runner, if there is one, and releases the transport. Repeated calls do nothing. Must not be called
    /// while an operation is in progress.
    void cleanUp();

    /// Returns the runner; null without monitoring and after cleanUp.
    [[nodiscard]] std::shared_ptr<ServerRunner> serverRunner() const;
    /// Returns the monitor; null after cleanUp.
    [[nodiscard]] std::shared_ptr<KRVProcessMonitor> procMonitor() const;
    /// For log lines.
    [[nodiscard]] std::string description() const;

    [[nodiscard]] std::shared_ptr<KRVTransport> transport() const override;
    void setTransport(std::shared_ptr<KRVTransport> transport);
    /// Seconds without progress after which a waiting call gives up. Default 60.
    [[nodiscard]] float progressTimeoutDuration() const noexcept { return progressTimeoutDuration_; }
    void setProgressTimeoutDuration(float seconds) noexcept { progressTimeoutDuration_ = seconds; }

    // Media work. Each operation waits until the server has finished it. The results say more than the interface
    // declares. The two conversions return false if the server's record had an error and it was stored in error. If the
    // transport fails, that error is stored too, but the result is true: check error. The others return whether error
    // is empty afterwards. Without an out-parameter every operation returns true.

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
    bool mergeSources(const Value& sources, std::string_view writeToFile, bool useShortestTrack,
                      const ProgressDelegate& progress, ErrorOut error) override;
    [[nodiscard]] std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut error) override;
    [[nodiscard]] Value getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                    std::int32_t trackIndex, ErrorOut error) override;

    // Control requests: one request each.

    [[nodiscard]] bool amIRegistered() override;
    [[nodiscard]] bool isServerReadyToTakeRequests() override;
    [[nodiscard]] Array operationsPendingCompletion() override;
    bool cancelAllOperations(ErrorOut error) { return performCancelAllOperations(error); }
    void registerWithServer() override;
    void unregisterFromServer() override;
    bool queueShutdownOfCurrentServer() override;

    // Results that the server keeps.

    [[nodiscard]] KRVOperationBase::Ref getResultOfOperation(const KRVOperationBase::Ref& operation,
                                                             ErrorOut error) override;
    void removeResultsFromServer(const KRVOperationBase::Ref& operation) override;

    /// Stores the record's error in the out-parameter. Returns true if either is missing.
    static bool migrateInvocationError(const KRVOperationBase::Ref& response, ErrorOut toError);

    /// Returns whether the call is one of KRVReliableQTProcessOperations.
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

/// The shared client as a variable: the proxy of defaultClient(), a client of clientWithTransport(), or null. Read-only
/// for applications; the class changes it under its lock.
extern "C" KRV_EXPORT std::shared_ptr<KRVQTProcessOperations>&
    __default_krv_quicktime_process_client;  // NOLINT(bugprone-reserved-identifier): its name in every binary

}  // namespace krv
