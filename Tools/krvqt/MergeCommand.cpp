#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "FileOperation.h"
#include "Numbers.h"
#include "OutputNames.h"
#include "Paths.h"
#include "TextValues.h"

namespace krvqt {
namespace {

struct MergeOptions {
    Naming naming;
    bool shortest = false;
    std::optional<std::string> size;
    std::optional<double> fps;
};

ExitStatus merge(const MergeOptions& options, const CommonOptions& common) {
    const FileToWrite file = options.naming.oneFile();
    checkContainer(file.destination);
    const FileOperation operation{.operation = "merge", .sources = file.sources, .destination = file.destination};
    const auto size = sizeFrom(options.size.value_or("0x0"));
    if (!size) {
        return usage("--size takes a width and a height in pixels, such as 640x360");
    }
    const auto start = [&](const krv::Media& media, krv::ProgressCallback onProgress, krv::JobControl control) {
        return media.merge({.sources = {operation.sources.begin(), operation.sources.end()},
                            .destination = operation.destination,
                            .useShortestTrack = options.shortest,
                            .fps = options.fps.value_or(0),
                            .width = size->width,
                            .height = size->height,
                            .onProgress = std::move(onProgress),
                            .control = std::move(control)});
    };
    return writeMovie(operation, start, common);
}

}  // namespace

void addMerge(CommandLine& line) {
    const auto options = std::make_shared<MergeOptions>();
    options->naming.takesMany = true;
    CLI::App& command = line.add("merge", "join movies one after another",
                                 [options](const CommonOptions& common) { return merge(*options, common); });
    command.add_option("names", options->naming.names, "the movies to read, in order, and the file to write")
        ->required()
        ->type_name("SOURCE... DESTINATION|SOURCE... -o DESTINATION");
    addOutput(command, options->naming);
    command.add_flag("--shortest", options->shortest, "end each movie with its shortest track, not its longest");
    command.add_option("--size", options->size, "size in pixels, instead of that of the first movie")->type_name("WxH");
    addNumber(command, "--fps", options->fps, kFrameRates, "frames per second, instead of those of the first movie");
}

}  // namespace krvqt
