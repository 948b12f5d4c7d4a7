#include <cerrno>

#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/Operations/MediaWorkflow.h>
#include <MediaServer/Protocol/FailureSentence.h>

namespace krv::server {

Outcome performMediaOperation(const JobRunner& runner, const KRVOperationBase::Ref& request,
                              const Cancellation& cancellation, const std::function<void(double)>& onProgress) {
    const auto failed = [&](Failure failure) {
        // Neither the source nor the destination is to blame, and the client may try again.
        if (failure.errorNumber == EMFILE || failure.errorNumber == ENFILE) {
            failure = {.cause = FailureCause::OutOfDescriptors};
        }
        return Outcome{Outcome::Kind::Failed, makeError(*request, failure), nullptr};
    };
    std::optional<Failure> failure;
    const auto files = OperationFiles::open(*request, failure);
    if (!files) {
        return failed(*failure);
    }
    Outcome outcome = runner.run(*request, files->descriptors(), cancellation, onProgress);
    if (outcome.kind != Outcome::Kind::Completed) {
        return outcome;
    }
    const auto continueFlush = [&] {
        onProgress(1.0);
        return !cancellation.requested();
    };
    if ((failure = files->flush(continueFlush))) {
        return failed(*failure);
    }
    if (!files->commit(*outcome.record, continueFlush, failure)) {
        return failure ? failed(*failure) : Outcome{Outcome::Kind::Cancelled, nullptr, nullptr};
    }
    return outcome;
}

}  // namespace krv::server
