#include <algorithm>
#include <optional>
#include <utility>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Logging/Log.h>

namespace krv {
namespace {

constexpr LogSite site(std::string_view function, LogContext context = kLogContextClient) {
    return {"Source/Client/KRVQuicktimeProcessClient", Selector(function), 0, context};
}

std::optional<std::string> uniqueIDOf(const KRVOperationBase::Ref& operation) {
    return operation ? operation->uniqueID() : std::nullopt;
}

}  // namespace

TransportInvocation::Reply KRVQuicktimeProcessClient::call(const Ref& operation, ErrorOut error) const {
    return TransportInvocation::invocationWith(operation, clock_)->invokeOverTransport(transport(), error);
}

KRVOperationBase::Ref KRVQuicktimeProcessClient::callAndWait(const Ref& operation, const ProgressDelegate& progress,
                                                             ErrorOut error) const {
    operation->setProgressDelegate(progress);
    return TransportInvocation::invocationWith(operation, clock_)
        ->invokeOverTransportGetProgressWaitToComplete(transport(), error, progressTimeoutDuration());
}

// Media work.

bool KRVQuicktimeProcessClient::performConvertMovie(std::string_view source, std::string_view writeToFile,
                                                    std::int32_t type, bool flattenOnly,
                                                    const ProgressDelegate& progress, ErrorOut error) {
    const auto operation = KRVOperationBase::encodeVideoOperation(source, writeToFile);
    operation->arguments()->set(kArgumentEncodingFlattenOnly, flattenOnly);
    operation->arguments()->set(kArgumentEncodingType, type);
    const auto response = callAndWait(operation, progress, error);
    return migrateInvocationError(response, error);
}

bool KRVQuicktimeProcessClient::convertMovie(std::string_view source, std::string_view writeToFile,
                                             const VideoSettings& videoSettings, const AudioSettings& audioSettings,
                                             const ProgressDelegate& progress, ErrorOut error) {
    const auto operation = KRVOperationBase::encodeVideoOperation(source, writeToFile, audioSettings, videoSettings);
    const auto response = callAndWait(operation, progress, error);
    return migrateInvocationError(response, error);
}

bool KRVQuicktimeProcessClient::performCreateThumbnails(std::string_view movie, std::string_view toFolder,
                                                        Size withSize, const ProgressDelegate& progress,
                                                        ErrorOut error) {
    // An error in the returned record is not reported to the caller of this operation.
    (void)callAndWait(KRVOperationBase::createThumbnailsForVideo(movie, toFolder, withSize), progress, error);
    return holdsNoError(error);
}

bool KRVQuicktimeProcessClient::performMuxMovie(std::string_view source, std::string_view writeToFile,
                                                const ProgressDelegate& progress, ErrorOut error) {
    const auto response = callAndWait(KRVOperationBase::muxAudioTo2chOperation(source, writeToFile), progress, error);
    migrateInvocationError(response, error);
    return holdsNoError(error);
}

bool KRVQuicktimeProcessClient::mergeSources(const Value& sources, std::string_view writeToFile, bool useShortestTrack,
                                             const ProgressDelegate& progress, ErrorOut error) {
    const auto self = weak_from_this().lock();  // the observer may release the last other reference
    const auto operation = KRVOperationBase::mergeSourcesOperation(sources, writeToFile, useShortestTrack);
    const auto response = callAndWait(operation, progress, error);
    migrateInvocationError(response, error);
    removeResultsFromServer(operation);
    return holdsNoError(error);
}

KRVOperationBase::Ref KRVQuicktimeProcessClient::finishedRecordOf(const Ref& operation, ErrorOut error) {
    std::shared_ptr<const Error> transportError;
    const auto response = callAndWait(operation, nullptr, &transportError);
    if (transportError) {
        if (error) {
            *error = std::move(transportError);
        }
        return nullptr;
    }
    migrateInvocationError(response, error);
    if (response && response->error()) {
        return nullptr;
    }
    return getResultOfOperation(response, error);
}

std::shared_ptr<const Dictionary> KRVQuicktimeProcessClient::getMetadataFor(std::string_view movie, ErrorOut error) {
    const auto finished = finishedRecordOf(KRVOperationBase::provideMetadataFor(movie), error);
    return finished && !finished->error() ? finished->metadata() : nullptr;
}

Value KRVQuicktimeProcessClient::getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex,
                                                             std::int32_t trackIndex, ErrorOut error) {
    const auto finished =
        finishedRecordOf(KRVOperationBase::getInterestingTimesOperation(movie, specificTrackIndex, trackIndex), error);
    if (!finished || finished->error()) {
        migrateInvocationError(finished, error);
        return {};
    }
    const auto result = finished->result();
    return result ? (*result)[kResultInterestingTimes] : Value();
}

// Control requests.

bool KRVQuicktimeProcessClient::isServerReadyToTakeRequests() {
    try {
        (void)call(KRVOperationBase::readyToProcessRequestOperation(), nullptr);
        return true;
    } catch (const Exception& exception) {
        KRV_LOG(kLogFlagError, site("isServerReadyToTakeRequests"),
                "Error invoking 'isServerReadyToTakeRequests' operation: {}", exception.description());
        return false;
    }
}

bool KRVQuicktimeProcessClient::amIRegistered() {
    try {
        const auto reply =
            KRVOperationBase::operationFromData(call(KRVOperationBase::amIRegisteredOperation(), nullptr));
        return reply && reply->isClientRegistered();
    } catch (const Exception& exception) {
        KRV_LOG(kLogFlagError, site("amIRegistered"), "Error invoking 'amIRegistered:' operation: {}",
                exception.description());
        return false;
    }
}

Array KRVQuicktimeProcessClient::operationsPendingCompletion() {
    return {};
}

void KRVQuicktimeProcessClient::registerWithServer() {
    const auto operation = KRVOperationBase::registerWithServerOperation();
    TransportInvocation::throwExceptionBasedOnResponse(operation, call(operation, nullptr));
}

void KRVQuicktimeProcessClient::unregisterFromServer() {
    const auto operation = KRVOperationBase::unregisterFromServerOperation();
    TransportInvocation::throwExceptionBasedOnResponse(operation, call(operation, nullptr));
}

bool KRVQuicktimeProcessClient::performCancelAllOperations(ErrorOut error) {
    const auto operation = KRVOperationBase::cancelAllOperationsOperation();
    const auto reply = call(operation, error);
    if (!holdsNoError(error)) {
        return false;
    }
    TransportInvocation::throwExceptionIfNoError(error, operation, reply);
    return true;
}

bool KRVQuicktimeProcessClient::queueShutdownOfCurrentServer() {
    std::shared_ptr<const Error> error;
    (void)call(KRVOperationBase::shutdownCommand(), &error);
    if (!error) {
        return true;
    }
    KRV_LOG(kLogFlagError, site("queueShutdownOfCurrentServer", kLogContextApplication),
            "Couldn't sent reques to shutdown server, {}", error->description());
    return false;
}

// Results.

KRVOperationBase::Ref KRVQuicktimeProcessClient::getResultOfOperation(const Ref& operation, ErrorOut error) {
    try {
        std::shared_ptr<const Error> transportError;
        const auto reply = call(KRVOperationBase::returnResultForOperation(uniqueIDOf(operation)), &transportError);
        if (transportError) {
            if (error) {
                *error = std::move(transportError);
            }
            return nullptr;
        }
        auto finished = KRVOperationBase::operationFromData(reply);
        migrateInvocationError(finished, error);
        return finished;
    } catch (const Exception& exception) {
        // The text names metadata for every kind of result.
        KRV_LOG(kLogFlagError, site("getResultOfOperation:error:"), "Failed to make call to get metadata, {}",
                exception.description());
        throw;
    }
}

void KRVQuicktimeProcessClient::removeResultsFromServer(const Ref& operation) {
    const auto failed = [&operation](const std::string& why) {
        KRV_LOG(kLogFlagError, site("removeResultsFromServer:", kLogContextApplication),
                "Couldn't remove results from server for {}, {}", operation ? operation->description() : "(null)", why);
    };
    try {
        std::shared_ptr<const Error> error;
        (void)call(KRVOperationBase::removeReturnResultForOperation(uniqueIDOf(operation)), &error);
        if (error) {
            failed(error->description());
        }
    } catch (const Exception& exception) {
        // The work has ended, and a server that exited since then no longer has the results.
        failed(exception.description());
    }
}

bool KRVQuicktimeProcessClient::migrateInvocationError(const Ref& response, ErrorOut toError) {
    const auto error = response ? response->error() : nullptr;
    if (!toError || !error) {
        return true;
    }
    *toError = error;
    return false;
}

bool KRVQuicktimeProcessClient::doesOperationNeedToBeReliable(const Invocation& invocation) const {
    if (!invocation.selector || isBaseObjectSelector(*invocation.selector)) {
        return false;
    }
    const auto methods = KRVReliableQTProcessOperations::requiredMethods();
    return std::find(methods.begin(), methods.end(), *invocation.selector) != methods.end();
}

}  // namespace krv
