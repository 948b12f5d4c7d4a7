#include <MediaServer/Media/Video/FrameRate.h>

namespace krv::media {
namespace {

constexpr AVRational kAssumedRate{25, 1};
constexpr double kHighestPlausibleRate = 1000;

}  // namespace

AVRational frameRate(const Source& source, const AVStream& stream) {
    auto& guessed = const_cast<AVStream&>(stream);  // the function only reads it
    const AVRational rate = av_guess_frame_rate(&source.format(), &guessed, nullptr);
    if (rate.num <= 0 || rate.den <= 0 || av_q2d(rate) > kHighestPlausibleRate) {
        return kAssumedRate;
    }
    return rate;
}

}  // namespace krv::media
