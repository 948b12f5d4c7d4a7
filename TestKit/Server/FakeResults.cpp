#include "FakeResults.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace krv::test_kit {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kUsualThumbnails = 12;
constexpr double kSeconds = 60;
constexpr std::int64_t kTimescale = 600;

void write(const fs::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary);
    out << contents;
    out.close();
    if (out.fail()) {
        throw std::runtime_error(fmt::format("{} cannot be written", path.string()));
    }
}

void writeMovie(KRVOperationBase& record, const KRVOperationBase& request, const std::optional<std::string>& contents) {
    if (contents) {
        write(request.encodingDestinationFilename().value_or(""), *contents);
    }
    record.result()->set(kResultDroppedTracks, Array());
}

void writeThumbnails(KRVOperationBase& record, const KRVOperationBase& request,
                     const std::optional<std::string>& contents) {
    const fs::path folder = request.encodingDestinationFilename().value_or("");
    const Value asked = (*request.arguments())[kArgumentThumbnailCount];
    const std::int64_t count = asked.isNull() ? kUsualThumbnails : asked.integerValue();
    if (contents) {
        fs::create_directories(folder);
    }
    Array thumbnails;
    for (std::int64_t i = 0; i < count; ++i) {
        const fs::path path = folder / fmt::format("thumbnail-{:04}.jpg", i + 1);
        if (contents) {
            write(path, *contents);
        }
        const double time = (static_cast<double>(i) + 0.5) * kSeconds / static_cast<double>(count);
        thumbnails.emplace_back(Dictionary{{kResultThumbnailPath, path.string()}, {kResultThumbnailTime, time}});
    }
    record.result()->set(kResultThumbnails, std::move(thumbnails));
}

void describe(KRVOperationBase& record, const KRVOperationBase& request) {
    const std::string source = request.encodingSourceFilename().value_or("");
    std::error_code failure;
    const auto size = fs::file_size(source, failure);
    record.setMetadata(std::make_shared<const Dictionary>(
        Dictionary{{kMediaMetadataCodec, "H.264, AAC"},
                   {kMediaMetadataDuration, kSeconds},
                   {kMediaMetadataDimensions, Size{1920, 1080}},
                   {kMediaMetadataAudio, "AAC, 48000 Hz, stereo"},
                   {kMediaMetadataSize, failure ? std::int64_t{0} : static_cast<std::int64_t>(size)},
                   {kMediaMetadataPath, source},
                   {kMediaMetadataFrameRate, 25.0}}));
}

}  // namespace

void fillRecord(KRVOperationBase& record, const KRVOperationBase& request, const std::optional<std::string>& contents) {
    record.setResult(std::make_shared<Dictionary>());  // that of a new record cannot be changed
    switch (request.operationType()) {
    case OpCreateThumbnails:
        writeThumbnails(record, request, contents);
        break;
    case OpProvideMetadata:
        describe(record, request);
        break;
    case OpGetInterestingTimes:
        record.result()->set(kResultInterestingTimes,
                             Dictionary{{kResultInterestingTimeValues, Array{std::int64_t{0}, kTimescale}},
                                        {kResultInterestingTimeTimescale, kTimescale}});
        break;
    default:
        writeMovie(record, request, contents);
        break;
    }
}

}  // namespace krv::test_kit
