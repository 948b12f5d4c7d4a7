#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>

#include <MediaServer/Files/OperationFiles.h>
#include <MediaServer/Operations/MediaWorkflow.h>
#include <MediaServer/Protocol/FailureSentence.h>
#include <MediaServer/Protocol/MediaRequest.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using End = BlockingCalls::End;

/// For opening one file.
constexpr auto kPatience = 20s;
/// For closing all files. Nobody needs to wait for that, except that a moment later everything is tidy.
constexpr auto kPatienceForClosing = 1s;
/// For a cancelled operation to remove what it has written. It goes on after that, but its client has waited enough.
constexpr auto kPatienceAfterCancellation = 250ms;

/// What the executor thread and the thread that opens the files share.
struct Opening {
    KRVOperationBase::Ref request;
    std::unique_ptr<OperationFiles> files;
    std::optional<Failure> failure;
    /// The number of the file that is being opened; see OperationFiles.
    std::atomic<std::size_t> file{0};
    /// The description of the file, if it is remembered. Then the file is closed again.
    KRVOperationBase::Ref known;
};

/// What the executor thread and the thread that finishes the outputs share.
struct Finishing {
    std::unique_ptr<OperationFiles> files;
    KRVOperationBase::Ref record;
    std::optional<Failure> failure;
    bool done = false;
};

std::optional<Failure> failureOf(End end, const Opening& opening) {
    switch (end) {
    case End::Returned:
        return opening.failure;
    case End::Refused:
        return Failure{.cause = FailureCause::TooManyDrivesDoNotRespond};
    case End::NoThread:
        return Failure{.cause = FailureCause::OutOfDescriptors};
    default:
        break;
    }
    const std::size_t file = opening.file;
    if (file < sourcesOf(*opening.request).size()) {
        return Failure{.cause = FailureCause::SourceDoesNotRespond, .source = file};
    }
    return Failure{.cause = FailureCause::DestinationDoesNotRespond};
}

/// Flushes the outputs and puts them in place.
void finish(Finishing& finishing, const Placing& placing) {
    finishing.failure = finishing.files->flush(placing.onProgress);
    finishing.done = !finishing.failure && finishing.files->commit(*finishing.record, placing, finishing.failure);
}

/// Removes what has been written, unless it is in place, and closes the files.
void close(std::unique_ptr<OperationFiles>& files, const BlockingCalls::Report& report) {
    if (files) {
        report.uses(files->outputDrive());
        files->closeOutput();
        report.cleanedUp();
        files->closeSources([&](dev_t drive) { report.uses(drive); });
        files.reset();
    }
}

/// The same on a thread of its own, because it may block on a drive that has stopped responding since. last: is called
/// there before; may be empty.
void discard(BlockingCalls& calls, std::unique_ptr<OperationFiles> files, const std::function<void()>& onDelay,
             const std::function<void(const OperationFiles&)>& last = {}) {
    const auto finishing = std::make_shared<Finishing>(Finishing{std::move(files), nullptr, {}, false});
    (void)calls.run(
        [finishing, last](const BlockingCalls::Report& report) {
            if (last && finishing->files) {
                last(*finishing->files);
            }
            close(finishing->files, report);
        },
        {.limit = kPatienceForClosing, .cleansUp = true, .onDelay = onDelay});
}

}  // namespace

Outcome MediaWorkflow::perform(const KRVOperationBase::Ref& request, const Cancellation& cancellation,
                               const std::function<void(double)>& onProgress,
                               const std::function<void()>& onDelay) const {
    const auto failed = [&](Failure failure) {
        // Neither the source nor the destination is to blame, and the client may try again.
        if (failure.errorNumber == EMFILE || failure.errorNumber == ENFILE) {
            failure = {.cause = FailureCause::OutOfDescriptors};
        }
        return Outcome{Outcome::Kind::Failed, makeError(*request, failure), nullptr};
    };
    const Outcome cancelled{Outcome::Kind::Cancelled, nullptr, nullptr};

    const bool describes = request->operationType() == OpProvideMetadata;
    const std::string path = request->encodingSourceFilename().value_or("");
    const auto opening = std::make_shared<Opening>();
    opening->request = request;
    const End opened = blockingCalls.run(
        [opening, describes, path, cache = descriptions](const BlockingCalls::Report& report) {
            opening->files = OperationFiles::open(
                *opening->request,
                [&](std::size_t file, dev_t drive) {
                    if (opening->file.exchange(file) != file) {
                        (void)report();
                    }
                    return report.mayUse(drive);
                },
                opening->failure);
            if (opening->files && describes) {
                opening->known = cache->find(path, opening->files->sourceState());
            }
            if (opening->known || !report()) {
                close(opening->files, report);
            }
        },
        {.cancellation = cancellation.descriptor(), .limit = kPatience, .onDelay = onDelay});
    if (opened == End::Cancelled) {
        return cancelled;
    }
    if (const auto failure = failureOf(opened, *opening)) {
        return failed(*failure);
    }
    if (opening->known) {
        return {Outcome::Kind::Completed, nullptr, opening->known};
    }
    auto files = std::move(opening->files);

    Outcome outcome = runner.run(*request, files->descriptors(), cancellation, onProgress, onDelay);
    if (outcome.kind != Outcome::Kind::Completed) {
        discard(blockingCalls, std::move(files), onDelay);
        return outcome;
    }
    if (!files->haveOutput()) {
        const auto remember = [cache = descriptions, path, record = outcome.record](const OperationFiles& open) {
            if (FileState::of(open.descriptors().front()) == open.sourceState()) {
                cache->add(path, open.sourceState(), *record);
            }
        };
        discard(blockingCalls, std::move(files), onDelay, describes ? std::function(remember) : nullptr);
        return outcome;
    }

    const auto finishing = std::make_shared<Finishing>(Finishing{std::move(files), outcome.record, {}, false});
    const End finished = blockingCalls.run(
        [finishing](const BlockingCalls::Report& report) {
            finish(*finishing, {report, [&report] { return report.decide(); }});
            if (!report()) {
                close(finishing->files, report);
            }
        },
        {.cancellation = cancellation.descriptor(),
         .afterCancellation = kPatienceAfterCancellation,
         .cleansUp = true,
         .onReport = [&] { onProgress(1.0); }});
    if (finished == End::Cancelled) {
        return cancelled;
    }
    if (finished != End::Returned) {
        // The work is worth more than the risk that this thread has to wait for the drive.
        const auto wanted = [&] {
            onProgress(1.0);
            return !cancellation.requested();
        };
        finish(*finishing, {wanted, wanted});
    }
    discard(blockingCalls, std::move(finishing->files), onDelay);
    if (finishing->failure) {
        return failed(*finishing->failure);
    }
    return finishing->done ? outcome : cancelled;
}

}  // namespace krv::server
