// Retries, in one place.
//
// An application's call must not fail because the server crashed or is starting: the server runner brings it back
// within seconds. The proxy retries the call as a whole, not the request that failed. After a crash the server knows
// nothing of the work, so a conversion starts over, and so does its progress. Therefore only operations that may be
// performed twice are retried (each leaves its output complete or absent), and the client decides which those are.
//
// Every operation becomes an Invocation (a selector, and a callable with its arguments) and passes through
// aimAndPerform. Only the packaging is written once per operation.
#include <type_traits>
#include <utility>

#include <fmt/format.h>

#include <KRVQTProcessClient/Client/ReliabilityDecision.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Foundation/ExceptionNames.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>

namespace krv {
namespace {

using namespace std::chrono_literals;

constexpr int kAttempts = 3;
constexpr Clock::Duration kLongestWait = 5s;
constexpr Clock::Duration kBetweenProbes = 1s;
/// How long the run loop runs in each iteration of the wait.
constexpr Clock::Duration kRunLoopSlice = Clock::Duration(1s) / 30;

constexpr LogSite site(std::string_view function) {
    return {"Source/Client/ReliabilityProxy", Selector(function), kLoggingHTTPMessaging | kLoggingDebug};
}

std::string_view nameOf(const Invocation& invocation) {
    return invocation.selector ? invocation.selector->name() : std::string_view("(null)");
}

/// Returns the target as a client with operations beyond the interface.
KRVQTProcessClientOperations& clientOperations(KRVQTProcessOperations& target, Selector selector) {
    if (auto* const client = dynamic_cast<KRVQTProcessClientOperations*>(&target)) {
        return *client;
    }
    throw Exception(std::string(kInvalidArgumentException),
                    fmt::format("The target of the proxy does not recognise {}", selector.name()));
}

/// Counts a call until it returns or throws.
class InProgress {
public:
    explicit InProgress(std::atomic<std::int32_t>& counter)
        : counter_(counter) {
        ++counter_;
    }
    ~InProgress() { --counter_; }
    InProgress(const InProgress&) = delete;
    InProgress& operator=(const InProgress&) = delete;

private:
    std::atomic<std::int32_t>& counter_;
};

}  // namespace

ReliabilityProxy::ReliabilityProxy(Clock& clock)
    : clock_(clock) {}

ReliabilityProxy::~ReliabilityProxy() = default;

std::shared_ptr<ReliabilityProxy>
ReliabilityProxy::proxyForOperations(std::shared_ptr<KRVQTProcessOperations> operations, Clock& clock) {
    std::shared_ptr<ReliabilityProxy> proxy(new ReliabilityProxy(clock));
    proxy->setRealOperations(std::move(operations));
    return proxy;
}

std::shared_ptr<KRVQTProcessOperations> ReliabilityProxy::realOperations() const {
    return realOperations_.get();
}

void ReliabilityProxy::setRealOperations(std::shared_ptr<KRVQTProcessOperations> operations) {
    realOperations_.set(std::move(operations));
}

void ReliabilityProxy::clearTarget() {
    setRealOperations(nullptr);
}

void ReliabilityProxy::cleanUp() {
    clearTarget();
}

// The dispatcher.

void ReliabilityProxy::forwardInvocation(Invocation& invocation) {
    aimAndPerform(invocation);
    if (nameOf(invocation) == kCleanUp.name()) {
        cleanUp();
    }
}

void ReliabilityProxy::aimAndPerform(Invocation& invocation) const {
    const auto self = weak_from_this().lock();  // an observer may release the last other reference
    invocation.target = realOperations();
    if (!invocation.target) {
        throw Exception(std::string(kInvalidArgumentException),
                        fmt::format("{} was sent to a proxy without a target", nameOf(invocation)));
    }
    if (doesThisOperationNeedToBeReliable(invocation)) {
        callWithRetry(invocation);
    } else {
        invocation.invoke();
    }
}

bool ReliabilityProxy::doesThisOperationNeedToBeReliable(const Invocation& invocation) const {
    const auto target = invocation.target ? invocation.target : realOperations();
    if (const auto* const decision = dynamic_cast<const ReliabilityDecision*>(target.get())) {
        return decision->doesOperationNeedToBeReliable(invocation);
    }
    return !invocation.selector || !isBaseObjectSelector(*invocation.selector);
}

void ReliabilityProxy::callWithRetry(const Invocation& invocation) const {
    const InProgress counted(numberOfOperationsInProgress_);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        KRV_LOG(kLogFlagVerbose, site("callWithRetry:"), "Attempt {} at calling: {}", attempt + 1, nameOf(invocation));
        try {
            invocation.invoke();
            return;
        } catch (const Exception& exception) {
            const auto transport = invocation.target->transport();
            if (!transport || !transport->isThisACommunicationsFailure(exception)) {
                throw;
            }
        }
        KRV_LOG(kLogFlagInfo, site("callWithRetry:"),
                "Failed while trying to call {}... waiting for transport to be ready ...", nameOf(invocation));
        // Also after the last attempt, so that the caller's next call finds the server running again.
        (void)waitForTransporToBecomeAvailable(invocation);
    }
    throw Exception(std::string(kOperationFailedException),
                    fmt::format("Call to {} failed. The server couldn't be contacted", nameOf(invocation)));
}

bool ReliabilityProxy::waitForTransporToBecomeAvailable(const Invocation& invocation) const {
    const auto transport = invocation.target->transport();
    const auto isReady = [&transport] { return transport && transport->serviceReadyToRock(); };
    const auto start = clock_.now();
    for (bool ready = isReady(); !ready; ready = isReady()) {
        if (clock_.now() - start >= kLongestWait) {
            break;
        }
        clock_.sleepFor(kBetweenProbes);
        RunLoop::current().runUntil(clock_.now() + kRunLoopSlice);
        KRV_LOG(kLogFlagVerbose, site("waitForTransporToBecomeAvailable:"),
                "Waiting {:.2f}s for operation {} to be available via {}", secondsFromDuration(clock_.now() - start),
                nameOf(invocation), transport ? transport->description() : "(null)");
    }
    return clock_.now() - start < kLongestWait;
}

template <typename Call>
auto ReliabilityProxy::forward(Selector selector, Call call) const {
    using Result = std::invoke_result_t<Call, KRVQTProcessOperations&>;
    if constexpr (std::is_void_v<Result>) {
        Invocation invocation{selector, std::move(call), nullptr};
        aimAndPerform(invocation);
    } else {
        Result result{};
        Invocation invocation{selector, [&](KRVQTProcessOperations& target) { result = call(target); }, nullptr};
        aimAndPerform(invocation);
        return result;
    }
}

// The packaging.

bool ReliabilityProxy::performConvertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type,
                                           bool flattenOnly, const ProgressDelegate& progress, ErrorOut error) {
    forward(kConvertMovieToType, [&](KRVQTProcessOperations& target) {
        target.convertMovie(source, writeToFile, type, flattenOnly, progress, error);
    });
    return holdsNoError(error);
}

bool ReliabilityProxy::convertMovie(std::string_view source, std::string_view writeToFile,
                                    const VideoSettings& videoSettings, const AudioSettings& audioSettings,
                                    const ProgressDelegate& progress, ErrorOut error) {
    return forward(kConvertMovieWithSettings, [&](KRVQTProcessOperations& target) {
        return target.convertMovie(source, writeToFile, videoSettings, audioSettings, progress, error);
    });
}

bool ReliabilityProxy::performCreateThumbnails(std::string_view movie, std::string_view toFolder, Size withSize,
                                               const ProgressDelegate& progress, ErrorOut error) {
    forward(kCreateThumbnails, [&](KRVQTProcessOperations& target) {
        target.createThumbnailsFor(movie, toFolder, withSize, progress, error);
    });
    return holdsNoError(error);
}

std::shared_ptr<const Dictionary> ReliabilityProxy::getMetadataFor(std::string_view movie, ErrorOut error) {
    return forward(kGetMetadata, [&](KRVQTProcessOperations& target) { return target.getMetadataFor(movie, error); });
}

bool ReliabilityProxy::performMuxMovie(std::string_view source, std::string_view writeToFile,
                                       const ProgressDelegate& progress, ErrorOut error) {
    forward(kMuxMovie, [&](KRVQTProcessOperations& target) { target.muxMovie(source, writeToFile, progress, error); });
    return holdsNoError(error);
}

Value ReliabilityProxy::getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                    std::int32_t trackIndex, ErrorOut error) {
    return forward(kGetInterestingTimes, [&](KRVQTProcessOperations& target) {
        return target.getInterestingTimesForMovie(movie, specificTrackIndex, trackIndex, error);
    });
}

std::shared_ptr<KRVTransport> ReliabilityProxy::transport() const {
    return forward(kTransport, [](KRVQTProcessOperations& target) { return target.transport(); });
}

bool ReliabilityProxy::amIRegistered() {
    return forward(kAmIRegistered, [](KRVQTProcessOperations& target) { return target.amIRegistered(); });
}

bool ReliabilityProxy::isServerReadyToTakeRequests() {
    return forward(kIsServerReady, [](KRVQTProcessOperations& target) { return target.isServerReadyToTakeRequests(); });
}

Array ReliabilityProxy::operationsPendingCompletion() {
    return forward(kOperationsPendingCompletion,
                   [](KRVQTProcessOperations& target) { return target.operationsPendingCompletion(); });
}

bool ReliabilityProxy::performCancelAllOperations(ErrorOut error) {
    forward(kCancelAllOperations, [&](KRVQTProcessOperations& target) { target.cancelAllOperations(error); });
    return holdsNoError(error);
}

void ReliabilityProxy::registerWithServer() {
    forward(kRegisterWithServer, [](KRVQTProcessOperations& target) { target.registerWithServer(); });
}

void ReliabilityProxy::unregisterFromServer() {
    forward(kUnregisterFromServer, [](KRVQTProcessOperations& target) { target.unregisterFromServer(); });
}

bool ReliabilityProxy::queueShutdownOfCurrentServer() {
    return forward(kQueueShutdown,
                   [](KRVQTProcessOperations& target) { return target.queueShutdownOfCurrentServer(); });
}

bool ReliabilityProxy::mergeSources(const Value& sources, std::string_view writeToFile, bool useShortestTrack,
                                    const ProgressDelegate& progress, ErrorOut error) {
    return forward(kMergeSources, [&](KRVQTProcessOperations& target) {
        return clientOperations(target, kMergeSources)
            .mergeSources(sources, writeToFile, useShortestTrack, progress, error);
    });
}

KRVOperationBase::Ref ReliabilityProxy::getResultOfOperation(const KRVOperationBase::Ref& operation, ErrorOut error) {
    return forward(kGetResult, [&](KRVQTProcessOperations& target) {
        return clientOperations(target, kGetResult).getResultOfOperation(operation, error);
    });
}

void ReliabilityProxy::removeResultsFromServer(const KRVOperationBase::Ref& operation) {
    forward(kRemoveResults, [&](KRVQTProcessOperations& target) {
        clientOperations(target, kRemoveResults).removeResultsFromServer(operation);
    });
}

}  // namespace krv
