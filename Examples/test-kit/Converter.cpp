#include "Converter.h"

#include <utility>

Conversion convert(const std::filesystem::path& source, const std::filesystem::path& destination,
                   krv::ProgressCallback onProgress, krv::Seconds patience) {
    const krv::Media media;
    krv::ConvertOptions options;
    options.source = source;
    options.destination = destination;
    options.onProgress = std::move(onProgress);
    options.control.stallTimeout = patience;
    const auto result = media.convert(std::move(options)).wait();
    if (result) {
        return {};
    }
    const krv::Failure& failure = result.error();
    if (failure.kind() == krv::Failure::Kind::Stalled) {
        return {Conversion::Outcome::Stalled, "The conversion does not advance."};
    }
    if (failure.isTemporary()) {
        return {Conversion::Outcome::TryAgainLater, "Converting does not work at the moment. Try again later."};
    }
    return {Conversion::Outcome::Failed, failure.message()};
}
