#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Numbers.h"
#include "OutputNames.h"
#include "Paths.h"
#include "TextValues.h"

namespace krvqt {
namespace {

constexpr int kMostThumbnails = 9999;

struct ThumbnailsOptions {
    std::string movie;
    std::string folder;
    std::optional<std::string> size;
    std::optional<int> count;
    bool force = false;
};

/// Returns whether the folder holds thumbnails of an earlier run.
bool holdsThumbnails(const std::string& folder) {
    std::error_code failure;
    return std::filesystem::exists(std::filesystem::path(folder) / "thumbnail-0001.jpg", failure);
}

ExitStatus makeThumbnails(const ThumbnailsOptions& options, const CommonOptions& common) {
    const auto size = sizeFrom(options.size.value_or("0x0"));
    if (!size) {
        return usage("--size takes a width and a height in pixels, such as 640x360 or 0x200");
    }
    checkSource(options.movie);
    const FileOperation operation{.operation = "thumbnails",
                                  .sources = {absolutePath(options.movie)},
                                  .destination = absolutePath(options.folder)};
    std::error_code failure;
    if (const auto status = std::filesystem::status(operation.destination, failure);
        std::filesystem::exists(status) && !std::filesystem::is_directory(status)) {
        return usage(fmt::format("{} is not a folder", operation.destination));
    }
    if (!options.force && holdsThumbnails(operation.destination)) {
        return usage(fmt::format("{} already contains thumbnails; use --force to replace them", operation.destination));
    }
    const auto start = [&](const krv::Media& media, krv::ProgressCallback onProgress, krv::JobControl control) {
        krv::ThumbnailOptions wanted{.source = options.movie,
                                     .folder = options.folder,
                                     .width = size->width,
                                     .height = size->height,
                                     .onProgress = std::move(onProgress),
                                     .control = std::move(control)};
        wanted.count = options.count.value_or(wanted.count);
        return media.thumbnails(std::move(wanted));
    };
    const FileReport report(operation, common);
    const auto made = runWithProgress(start, common);
    if (!made) {
        return report.failed(made.error());
    }
    const auto describe = [&](nlohmann::json& json) {
        json["thumbnails"] = nlohmann::json::array();
        for (const krv::Thumbnail& thumbnail : made->thumbnails) {
            json["thumbnails"].push_back({{"path", thumbnail.path.string()}, {"time", thumbnail.time.count()}});
        }
    };
    return report.done(describe, [&] {
        for (const krv::Thumbnail& thumbnail : made->thumbnails) {
            printPath(thumbnail.path.string());
        }
    });
}

}  // namespace

void addThumbnails(CommandLine& line) {
    const auto options = std::make_shared<ThumbnailsOptions>();
    CLI::App& command = line.add("thumbnails", "make pictures spread evenly over a movie",
                                 [options](const CommonOptions& common) { return makeThumbnails(*options, common); });
    command.add_option("movie", options->movie, "the movie to read")->required()->type_name("MOVIE");
    command.add_option("folder", options->folder, "the folder for thumbnail-0001.jpg and so on; created if missing")
        ->required()
        ->type_name("FOLDER");
    command.add_option("--size", options->size, "largest size in pixels; a side of 0 is unlimited")->type_name("WxH");
    addNumber(command, "--count", options->count, {.least = 1, .most = kMostThumbnails, .whole = true},
              "number of thumbnails (12)");
    addForce(command, options->force);
}

}  // namespace krvqt
