#include <memory>
#include <string>

#include "Commands.h"
#include "FileOperation.h"
#include "Paths.h"

namespace krvqt {
namespace {

struct MuxOptions {
    std::string source;
    std::string destination;
    bool force = false;
};

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

}  // namespace

void addMux(CommandLine& line) {
    const auto options = std::make_shared<MuxOptions>();
    CLI::App& command = line.add("mux", "copy a movie with its audio mixed down to stereo",
                                 [options](const CommonOptions& common) { return mux(*options, common); });
    command.add_option("source", options->source, "the movie to read")->required()->type_name("SOURCE");
    command.add_option("destination", options->destination, "the file to write")->required()->type_name("DESTINATION");
    addForce(command, options->force);
}

}  // namespace krvqt
