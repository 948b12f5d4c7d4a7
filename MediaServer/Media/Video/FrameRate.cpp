#include <cmath>

#include <MediaServer/Media/Video/FrameRate.h>

namespace krv::media {
namespace {

constexpr AVRational kAssumedRate{25, 1};
constexpr double kHighestPlausibleRate = 1000;

/// A stream whose times fit only a higher rate than this has jittering times, not that many frames.
constexpr double kHighestUsualRate = 60;

}  // namespace

std::optional<double> averageRate(const AVStream& stream) {
    for (const AVRational rate : {stream.avg_frame_rate, stream.r_frame_rate}) {
        if (rate.num > 0 && rate.den > 0 && av_q2d(rate) <= kHighestPlausibleRate) {
            return av_q2d(rate);
        }
    }
    return std::nullopt;
}

AVRational frameRate(const Source& source, const AVStream& stream) {
    auto& guessed = const_cast<AVStream&>(stream);  // the function only reads it
    const AVRational rate = av_guess_frame_rate(&source.format(), &guessed, nullptr);
    if (rate.num <= 0 || rate.den <= 0 || av_q2d(rate) > kHighestPlausibleRate) {
        return kAssumedRate;
    }
    return rate;
}

AVRational constantFrameRate(const Source& source, const AVStream& stream) {
    const AVRational usual = frameRate(source, stream);
    const AVRational fitting = stream.r_frame_rate;
    const bool plausible = fitting.num > 0 && fitting.den > 0 && av_q2d(fitting) <= kHighestUsualRate;
    return plausible && av_cmp_q(fitting, usual) > 0 ? fitting : usual;
}

AVRational rationalRate(double fps) {
    const double whole = std::round(fps * 1.001);
    if (std::abs(whole * 1000 / 1001 - fps) < 0.002 && std::abs(fps - std::round(fps)) > 0.002) {
        return {static_cast<int>(whole) * 1000, 1001};
    }
    return av_d2q(fps, 100000);
}

}  // namespace krv::media
