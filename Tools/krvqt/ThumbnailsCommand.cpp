#include <filesystem>

#include <fmt/format.h>

#include "Commands.h"
#include "FileOperation.h"
#include "Paths.h"
#include "TextValues.h"

namespace krvqt {
namespace {

/// Returns whether the folder holds thumbnails of an earlier run.
bool holdsThumbnails(const std::string& folder) {
    std::error_code failure;
    return std::filesystem::exists(std::filesystem::path(folder) / "thumbnail-0001.jpg", failure);
}

}  // namespace

ExitStatus makeThumbnails(const ThumbnailsOptions& options, const CommonOptions& common) {
    const auto size = sizeFrom(options.size.value_or("0x0"));
    if (!size) {
        return usage("--size takes a width and a height in pixels, such as 640x360 or 0x200");
    }
    if (options.count.value_or(1) < 1) {
        return usage("--count takes the number of thumbnails, at least 1");
    }
    const FileOperation operation{.operation = "thumbnails",
                                  .sources = {absolutePath(options.movie)},
                                  .destination = absolutePath(options.folder)};
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

}  // namespace krvqt
