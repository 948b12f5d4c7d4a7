#include <array>
#include <new>

#include <fmt/format.h>

#include <MediaServer/Media/Foundation/Failure.h>

extern "C" {
#include <libavutil/error.h>
}

#include <MediaServer/Media/Foundation/FFmpegLog.h>

namespace krv::media {
namespace {

std::string sentence(FailureCode code, const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    switch (code) {
    case FailureCode::UnusableSource:
        return fmt::format("“{}” could not be read as a movie.", name);
    case FailureCode::UnwritableDestination:
        return fmt::format("“{}” could not be written.", name);
    case FailureCode::Unsupported:
        return fmt::format("“{}” could not be made because something that was asked for is not supported.", name);
    case FailureCode::BadArgument:
        return fmt::format("“{}” could not be made because the request is not valid.", name);
    case FailureCode::Internal:
        break;
    }
    return fmt::format("“{}” could not be converted because of an unexpected problem.", name);
}

}  // namespace

Failure::Failure(FailureCode code, std::string reason)
    : code_(code)
    , reason_(std::move(reason))
    , text_(reason_) {}

void Failure::about(const std::string& source, const std::string& destination) {
    const bool meansSource = code_ == FailureCode::UnusableSource || code_ == FailureCode::Internal;
    path_ = meansSource ? source : destination;
    description_ = sentence(code_, path_);
    text_ = description_ + " " + reason_;
}

std::string errorText(int averror) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(averror, text.data(), text.size());
    return text.data();
}

void fail(FailureCode code, int averror, const std::string& attempt) {
    if (averror == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    const std::string line = FFmpegLog::instance().lastMeaningfulLine();
    throw Failure(code, fmt::format("{}: {}", attempt, line.empty() ? errorText(averror) : line));
}

}  // namespace krv::media
