#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include <fmt/format.h>

#include <MediaServer/Media/Foundation/Failure.h>

extern "C" {
#include <libavutil/error.h>
}

#include <MediaServer/Media/Foundation/FFmpegLog.h>

namespace krv::media {
namespace {

std::string errorText(int averror) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(averror, text.data(), text.size());
    return text.data();
}

}  // namespace

Failure::Failure(server::Failure failure)
    : server::Failure(std::move(failure))
    , text_(fmt::format("cause {}, subject \"{}\", detail \"{}\", reason \"{}\", errno {}", static_cast<int>(cause),
                        subject, detail, reason, errorNumber)) {}

void fail(FailureCause cause, int averror, std::string_view attempt, std::string subject) {
    if (averror == AVERROR(ENOMEM)) {
        throw std::bad_alloc();
    }
    const std::string line = FFmpegLog::instance().lastMeaningfulLine();
    throw Failure({.cause = cause,
                   .subject = std::move(subject),
                   .reason = fmt::format("{}: {}", attempt, line.empty() ? errorText(averror) : line)});
}

}  // namespace krv::media
