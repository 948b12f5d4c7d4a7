#include <memory>
#include <string>

#include "Commands.h"
#include "FileOperation.h"
#include "OutputNames.h"
#include "Paths.h"

namespace krvqt {
namespace {

struct MuxOptions {
    Naming naming;
};

ExitStatus mux(const MuxOptions& options, const CommonOptions& common) {
    const FileToWrite file = options.naming.oneFile();
    if (file.sources.size() > 1) {
        return usage("mux takes one movie; 'krvqt merge' joins several");
    }
    checkContainer(file.destination);
    const FileOperation operation{.operation = "mux", .sources = file.sources, .destination = file.destination};
    const auto start = [&](const krv::Media& media, krv::ProgressCallback onProgress, krv::JobControl control) {
        return media.mixToStereo({.source = operation.sources.front(),
                                  .destination = operation.destination,
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
    command.add_option("names", options->naming.names, "the movie to read and the file to write")
        ->required()
        ->type_name("SOURCE DESTINATION|SOURCE -o DESTINATION");
    addOutput(command, options->naming);
}

}  // namespace krvqt
