#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "FileOperation.h"
#include "Paths.h"
#include "TextValues.h"

namespace krvqt {
namespace {

struct MergeOptions {
    /// The last one is the destination.
    std::vector<std::string> files;
    bool shortest = false;
    std::optional<std::string> size;
    std::optional<double> fps;
    bool force = false;
};

ExitStatus merge(const MergeOptions& options, const CommonOptions& common) {
    constexpr std::size_t kFewest = 2;
    if (options.files.size() < kFewest) {
        return usage("merge takes at least one movie and the file to write");
    }
    FileOperation operation{.operation = "merge", .sources = {}, .destination = absolutePath(options.files.back())};
    for (const std::string& file : options.files) {
        operation.sources.push_back(absolutePath(file));
    }
    operation.sources.pop_back();
    if (const ExitStatus status = checkDestination(operation.destination, options.force); status != kDone) {
        return status;
    }
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
    CLI::App& command = line.add("merge", "join movies one after another",
                                 [options](const CommonOptions& common) { return merge(*options, common); });
    command.add_option("files", options->files, "the movies to read, in order, then the file to write")
        ->required()
        ->type_name("SOURCE... DESTINATION");
    command.add_flag("--shortest", options->shortest, "end each movie with its shortest track, not its longest");
    command.add_option("--size", options->size, "size in pixels, instead of that of the first movie")->type_name("WxH");
    command.add_option("--fps", options->fps, "frames per second, instead of those of the first movie")->type_name("F");
    addForce(command, options->force);
}

}  // namespace krvqt
