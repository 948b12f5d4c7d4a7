#include "Commands.h"
#include "FileOperation.h"
#include "Paths.h"

namespace krvqt {

ExitStatus mux(const MuxOptions& options, const CommonOptions& common) {
    const FileOperation operation{.operation = "mux",
                                  .sources = {absolutePath(options.source)},
                                  .destination = absolutePath(options.destination)};
    if (const ExitStatus status = checkDestination(operation.destination, options.force); status != kDone) {
        return status;
    }
    const auto start = [&](const krv::Media& media, krv::ProgressCallback onProgress, krv::JobControl control) {
        return media.mixToStereo({.source = options.source,
                                  .destination = options.destination,
                                  .onProgress = std::move(onProgress),
                                  .control = std::move(control)});
    };
    return writeMovie(operation, start, common);
}

}  // namespace krvqt
