#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include <KRVQTProcessClient/Client/Invocation.h>
#include <KRVQTProcessClient/Client/KRVQTProcessOperations.h>
#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Foundation/Guarded.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// Wraps a client behind the same interface and retries reliable calls while the server cannot be reached.
///
/// A reliable call is made at most three times. After each failure the proxy waits up to about five seconds for the
/// server to come back. Other calls are made once.
///
/// All work runs on the calling thread and blocks it; the waits run that thread's run loop briefly. After the third
/// failure the proxy throws Exception "OperationFailed". Any other exception of a call propagates unchanged. After
/// clearTarget every operation throws Exception "NSInvalidArgumentException". Thread-safe.
class KRV_EXPORT ReliabilityProxy final : public KRVQTProcessClientOperations,
                                          public std::enable_shared_from_this<ReliabilityProxy> {
public:
    /// The waits use clock, which must outlive the proxy.
    [[nodiscard]] static std::shared_ptr<ReliabilityProxy>
    proxyForOperations(std::shared_ptr<KRVQTProcessOperations> operations, Clock& clock = Clock::steady());
    ~ReliabilityProxy() override;

    /// Returns the wrapped object, null after clearTarget.
    [[nodiscard]] std::shared_ptr<KRVQTProcessOperations> realOperations() const;
    void setRealOperations(std::shared_ptr<KRVQTProcessOperations> operations);
    /// Returns the number of reliable calls in progress.
    [[nodiscard]] std::int32_t numberOfOperationsInProgress() const noexcept { return numberOfOperationsInProgress_; }

    void clearTarget();
    /// Releases the wrapped object, without cleaning it up.
    void cleanUp();

    /// Aims the invocation at the wrapped object and performs it, with retries if it must be reliable. If its selector
    /// is "cleanUp", releases the target afterwards.
    void forwardInvocation(Invocation& invocation);
    /// Returns the wrapped object's decision if it is a ReliabilityDecision, else true for all but the base selectors.
    [[nodiscard]] bool doesThisOperationNeedToBeReliable(const Invocation& invocation) const;
    /// Performs an aimed invocation, with at most three attempts.
    void callWithRetry(const Invocation& invocation) const;
    /// Blocks until the transport of the invocation's target is ready. Returns false if that took five seconds or more.
    bool waitForTransporToBecomeAvailable(const Invocation& invocation) const;

    // The wrapped object's operations.

    bool convertMovie(std::string_view source, std::string_view writeToFile, const VideoSettings& videoSettings,
                      const AudioSettings& audioSettings, const ProgressDelegate& progress, ErrorOut error) override;
    using KRVReliableQTProcessOperations::convertMovie;
    [[nodiscard]] std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut error) override;
    [[nodiscard]] Value getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                    std::int32_t trackIndex, ErrorOut error) override;
    [[nodiscard]] std::shared_ptr<KRVTransport> transport() const override;
    [[nodiscard]] bool amIRegistered() override;
    [[nodiscard]] bool isServerReadyToTakeRequests() override;
    [[nodiscard]] Array operationsPendingCompletion() override;
    void registerWithServer() override;
    void unregisterFromServer() override;
    bool queueShutdownOfCurrentServer() override;
    // These throw Exception "NSInvalidArgumentException" if the wrapped object is no KRVQTProcessClientOperations.
    bool mergeSources(const Value& sources, std::string_view writeToFile, bool useShortestTrack,
                      const ProgressDelegate& progress, ErrorOut error) override;
    [[nodiscard]] KRVOperationBase::Ref getResultOfOperation(const KRVOperationBase::Ref& operation,
                                                             ErrorOut error) override;
    void removeResultsFromServer(const KRVOperationBase::Ref& operation) override;

    static constexpr Selector kCleanUp{"cleanUp"};

protected:
    bool performConvertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type, bool flattenOnly,
                             const ProgressDelegate& progress, ErrorOut error) override;
    bool performCreateThumbnails(std::string_view movie, std::string_view toFolder, Size withSize,
                                 const ProgressDelegate& progress, ErrorOut error) override;
    bool performMuxMovie(std::string_view source, std::string_view writeToFile, const ProgressDelegate& progress,
                         ErrorOut error) override;
    bool performCancelAllOperations(ErrorOut error) override;

private:
    explicit ReliabilityProxy(Clock& clock);
    void aimAndPerform(Invocation& invocation) const;
    template <typename Call>
    auto forward(Selector selector, Call call) const;

    Clock& clock_;
    Guarded<std::shared_ptr<KRVQTProcessOperations>> realOperations_;
    mutable std::atomic<std::int32_t> numberOfOperationsInProgress_{0};
};

}  // namespace krv
