#include <filesystem>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "FileOperation.h"
#include "OwnRecord.h"
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
    std::string movie = options.movie;
    std::string folder = options.folder;
    if (const ExitStatus status = makeAbsolute({&movie, &folder}); status != kDone) {
        return status;
    }
    const auto size = options.size ? sizeFrom(*options.size) : krv::Size{};
    if (!size) {
        return usage("--size takes a width and a height in pixels, such as 640x360 or 0x200");
    }
    if (options.count && *options.count < 1) {
        return usage("--count takes the number of thumbnails, at least 1");
    }
    if (!options.force && holdsThumbnails(folder)) {
        return usage(fmt::format("{} already contains thumbnails; use --force to replace them", folder));
    }
    // The client's call returns neither the server's error nor the list of thumbnails.
    std::shared_ptr<const krv::Array> thumbnails;
    const auto call = [&](const ServerAccess& access, const auto& progress, krv::ErrorOut error) {
        const auto record = krv::KRVOperationBase::createThumbnailsForVideo(movie, folder, *size);
        if (options.count) {
            record->arguments()->set(krv::kArgumentThumbnailCount, *options.count);
        }
        const auto finished = runRecord(access, record, progress, error);
        const auto result = finished ? finished->result() : nullptr;
        thumbnails = result ? (*result)[krv::kResultThumbnails].array() : nullptr;
        return finished;
    };
    const auto each = [&](const auto& use) {
        for (std::size_t i = 0; thumbnails && i < thumbnails->size(); ++i) {
            if (const auto thumbnail = (*thumbnails)[i].dictionary()) {
                use((*thumbnail)[krv::kResultThumbnailPath].stringValue(),
                    (*thumbnail)[krv::kResultThumbnailTime].doubleValue());
            }
        }
    };
    const auto describe = [&](nlohmann::json& json) {
        json["thumbnails"] = nlohmann::json::array();
        each([&](const std::string& path, double time) {
            json["thumbnails"].push_back({{"path", path}, {"time", time}});
        });
    };
    const auto print = [&] { each([](const std::string& path, double) { fmt::print("{}\n", path); }); };
    return makeFile(
        {.operation = "thumbnails", .sources = {movie}, .destination = folder, .describe = describe, .print = print},
        call, common);
}

}  // namespace krvqt
