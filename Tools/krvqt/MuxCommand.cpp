#include "Commands.h"
#include "FileOperation.h"
#include "OwnRecord.h"
#include "Paths.h"

namespace krvqt {

ExitStatus mux(const MuxOptions& options, const CommonOptions& common) {
    std::string source = options.source;
    std::string destination = options.destination;
    if (const ExitStatus status = makeAbsolute({&source, &destination}); status != kDone) {
        return status;
    }
    if (const ExitStatus status = checkDestination(destination, options.force); status != kDone) {
        return status;
    }
    // The client's call does not return the result.
    const auto call = [&](const ServerAccess& access, const auto& progress, krv::ErrorOut error) {
        return runRecord(access, krv::KRVOperationBase::muxAudioTo2chOperation(source, destination), progress, error);
    };
    return makeFile({.operation = "mux", .sources = {source}, .destination = destination}, call, common);
}

}  // namespace krvqt
