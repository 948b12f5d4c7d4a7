#include "Commands.h"
#include "FileOperation.h"
#include "OwnRecord.h"
#include "Paths.h"

namespace krvqt {

ExitStatus merge(const MergeOptions& options, const CommonOptions& common) {
    if (options.files.size() < 2) {
        return usage("merge takes at least one movie, followed by the file to write");
    }
    std::vector<std::string> sources = options.files;
    for (std::string& file : sources) {
        if (const ExitStatus status = makeAbsolute({&file}); status != kDone) {
            return status;
        }
    }
    const std::string destination = std::move(sources.back());
    sources.pop_back();
    if (const ExitStatus status = checkDestination(destination, options.force); status != kDone) {
        return status;
    }
    // The shared client has no merge call.
    const auto call = [&](const ServerAccess& access, const auto& progress, krv::ErrorOut error) {
        const krv::Array list(sources.begin(), sources.end());
        (void)runRecord(access,
                        krv::KRVOperationBase::mergeSourcesOperation(krv::Value(list), destination, options.shortest),
                        progress, error);
    };
    return makeFile({.operation = "merge", .sources = sources, .destination = destination}, call, common);
}

}  // namespace krvqt
