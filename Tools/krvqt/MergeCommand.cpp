#include "Commands.h"
#include "FileOperation.h"
#include "OwnRecord.h"
#include "Paths.h"
#include "TextValues.h"

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
    const auto size = options.size ? sizeFrom(*options.size) : std::nullopt;
    if (options.size && !size) {
        return usage("--size takes a width and a height in pixels, such as 640x360");
    }
    // The shared client has no merge call.
    const auto call = [&](const ServerAccess& access, const auto& progress, krv::ErrorOut error) {
        const krv::Array list(sources.begin(), sources.end());
        const auto record =
            krv::KRVOperationBase::mergeSourcesOperation(krv::Value(list), destination, options.shortest);
        if (size) {
            record->arguments()->set(krv::kArgumentMergeSize, *size);
        }
        if (options.fps) {
            record->arguments()->set(krv::kArgumentMergeFrameRate, *options.fps);
        }
        return runRecord(access, record, progress, error);
    };
    return makeFile({.operation = "merge", .sources = sources, .destination = destination}, call, common);
}

}  // namespace krvqt
