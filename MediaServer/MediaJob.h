#pragma once

#include <memory>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include "AtomicOutput.h"
#include "WorkerChannel.h"

namespace krv::server {

/// The files of one media operation, opened here because a worker can open none.
struct MediaJob {
    KRVOperationBase::Ref request;
    std::vector<Descriptor> sources;
    std::unique_ptr<AtomicOutput> output;

    /// What can be said of an encode request without touching a file: arguments that are missing, of the wrong kind, or
    /// name no file, and encoding types that do not exist. Null when all is well.
    [[nodiscard]] static std::shared_ptr<const Error> check(const KRVOperationBase& request);

    /// Opens the files. Null with the error when one of them cannot be used.
    [[nodiscard]] static std::unique_ptr<MediaJob> open(const KRVOperationBase::Ref& request,
                                                        std::shared_ptr<const Error>& error);
};

}  // namespace krv::server
