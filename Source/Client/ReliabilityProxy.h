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

/// Stands before the client and has its interface. Calls worth retrying are made up to three times while the server
/// cannot be reached, each failure followed by a wait of about five seconds at most for it to come back; the others are
/// passed on once.
///
/// All work runs on the calling thread and blocks it; in its waits the thread's run loop turns a little. After the
/// third failure Exception "OperationFailed" is raised. Everything else that a call raises passes through unchanged.
/// Once the target is gone every operation raises Exception "NSInvalidArgumentException". Any thread.
class KRV_EXPORT ReliabilityProxy final : public KRVQTProcessOperations {
public:
    /// clock is what the waits sleep on and are measured with; it must outlive the proxy.
    [[nodiscard]] static std::shared_ptr<ReliabilityProxy>
    proxyForOperations(std::shared_ptr<KRVQTProcessOperations> operations, Clock& clock = Clock::steady());
    ~ReliabilityProxy() override;

    /// The wrapped object; null after clearTarget.
    [[nodiscard]] std::shared_ptr<KRVQTProcessOperations> realOperations() const;
    void setRealOperations(std::shared_ptr<KRVQTProcessOperations> operations);
    /// How many reliable calls are under way.
    [[nodiscard]] std::int32_t numberOfOperationsInProgress() const noexcept { return numberOfOperationsInProgress_; }

    void clearTarget();
    /// Lets go of the wrapped object, to which nothing is passed on.
    void cleanUp();

    /// What every operation comes down to: aims the invocation at the wrapped object and performs it, reliably if it
    /// has to be. One whose selector is "cleanUp" takes the target away afterwards.
    void forwardInvocation(Invocation& invocation);
    /// The wrapped object's own decision when it is a ReliabilityDecision, else true for all but the basic selectors.
    [[nodiscard]] bool doesThisOperationNeedToBeReliable(const Invocation& invocation) const;
    /// Performs an aimed invocation with up to three attempts.
    void callWithRetry(const Invocation& invocation) const;
    /// Blocks until the transport of the invocation's target is ready; false when that took five seconds or more.
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
