#include <algorithm>
#include <array>
#include <cmath>

#include <MediaServer/Media/Container/StreamSelection.h>
#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Video/FrameReader.h>
#include <MediaServer/Media/Video/Poster.h>
#include <MediaServer/Media/Video/StillPicture.h>

extern "C" {
#include <libswscale/swscale.h>
}

namespace krv::media {
namespace {

/// A grey value up to this counts as nearly black. It is high enough for noise in a black frame.
constexpr int kNearlyBlack = 32;
constexpr double kVisiblePart = 0.02;
constexpr double kUniform = 4;

constexpr double kFirstPart = 0.1;
/// Up to this time every frame is examined, then key frames only, because a tenth of a long movie is long, too.
constexpr std::int64_t kEveryFrameUntil = 10 * static_cast<std::int64_t>(AV_TIME_BASE);
constexpr int kMostFrames = 300;
constexpr int kMostKeyFrames = 300;
constexpr int kSpread = 20;

/// No screen that shows posters is larger.
constexpr double kLargestSide = 3840;

class PosterSearch {
public:
    PosterSearch(FrameReader& reader, Progress& progress)
        : reader_(reader)
        , progress_(progress) {}

    FramePtr find() {
        const std::int64_t start = reader_.source().start();
        const std::int64_t length = reader_.duration();
        const auto firstPart = start + static_cast<std::int64_t>(kFirstPart * static_cast<double>(length));
        reader_.seekTo(start);
        if (among(std::min(firstPart, start + kEveryFrameUntil), kMostFrames)) {
            return std::move(best_);
        }
        reader_.onlyKeyFrames(true);
        reader_.seekTo(start + kEveryFrameUntil);
        if (firstPart > start + kEveryFrameUntil && among(firstPart, kMostKeyFrames)) {
            return std::move(best_);
        }
        reader_.onlyKeyFrames(false);
        for (int i = 0; i < kSpread; ++i) {
            if (consider(reader_.shownAt(start + length * (2 * i + 1) / (2 * kSpread)))) {
                return std::move(best_);
            }
        }
        // Something may be visible briefly between these.
        reader_.onlyKeyFrames(true);
        for (int i = 0; i < kMostKeyFrames; ++i) {
            reader_.seekTo(start + length * i / kMostKeyFrames);
            if (consider(reader_.next())) {
                break;
            }
        }
        return std::move(best_);
    }

private:
    /// Examines the frames from the current position to a time, but at most this many. Returns whether one of them is
    /// worth showing, which is then best_.
    bool among(std::int64_t end, int most) {
        for (int i = 0; i < most; ++i) {
            FramePtr frame = reader_.next();
            if (!frame || (frame->pts > end && i > 0)) {
                return false;
            }
            if (consider(std::move(frame))) {
                return true;
            }
        }
        return false;
    }

    bool consider(FramePtr frame) {
        progress_.alive();
        if (!frame) {
            return false;
        }
        const FrameStatistics statistics = statisticsOf(*frame);
        if (statistics.worthShowing()) {
            best_ = std::move(frame);
            return true;
        }
        if (!best_ || statistics.brightness > brightness_) {
            best_ = std::move(frame);
            brightness_ = statistics.brightness;
        }
        return false;
    }

    FrameReader& reader_;
    Progress& progress_;
    FramePtr best_;
    double brightness_ = 0;
};

/// Returns the cover itself if it is a JPEG that can be decoded and not too large, otherwise the cover converted to
/// JPEG.
std::vector<std::uint8_t> coverOf(const Source& source) {
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        const AVStream& stream = source.stream(i);
        if (!isCover(stream) || stream.attached_pic.size <= 0 || !avcodec_find_decoder(stream.codecpar->codec_id)) {
            continue;
        }
        Decoder decoder(stream, 1);
        FramePtr picture;
        const auto keep = [&picture](FramePtr frame) { picture = std::move(frame); };
        decoder.push(stream.attached_pic, keep);
        decoder.finish(keep);
        if (!picture) {
            continue;
        }
        if (stream.codecpar->codec_id == AV_CODEC_ID_MJPEG &&
            static_cast<std::size_t>(stream.attached_pic.size) <= kLargestCover) {
            return {stream.attached_pic.data, stream.attached_pic.data + stream.attached_pic.size};
        }
        return encodeJPEG(stream, std::move(picture), kLargestSide, kLargestSide);
    }
    return {};
}

}  // namespace

bool hasCover(const Source& source) noexcept {
    for (std::size_t i = 0; i < source.streamCount(); ++i) {
        if (isCover(source.stream(i)) && source.stream(i).attached_pic.size > 0) {
            return true;
        }
    }
    return false;
}

bool FrameStatistics::worthShowing() const noexcept {
    return visible > kVisiblePart && contrast > kUniform;
}

FrameStatistics statisticsOf(const AVFrame& frame) {
    constexpr int kWidth = 64;
    constexpr int kHeight = 36;
    std::array<std::uint8_t, static_cast<std::size_t>(kWidth) * kHeight> grey{};
    SwsContext* const scaler = sws_getContext(frame.width, frame.height, static_cast<AVPixelFormat>(frame.format),
                                              kWidth, kHeight, AV_PIX_FMT_GRAY8, SWS_AREA, nullptr, nullptr, nullptr);
    if (!scaler) {
        throw Failure({.cause = FailureCause::InternalError, .reason = "a frame's pixel format cannot be scaled"});
    }
    const bool full = frame.color_range == AVCOL_RANGE_JPEG;
    const int* const coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    sws_setColorspaceDetails(scaler, coefficients, full ? 1 : 0, coefficients, 1, 0, 1 << 16, 1 << 16);
    std::uint8_t* const planes[] = {grey.data()};
    const int strides[] = {kWidth};
    sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, planes, strides);
    sws_freeContext(scaler);

    const auto count = static_cast<double>(grey.size());
    double sum = 0;
    double squares = 0;
    double visible = 0;
    for (const int value : grey) {
        sum += value;
        squares += static_cast<double>(value) * value;
        visible += value > kNearlyBlack ? 1 : 0;
    }
    const double mean = sum / count;
    return {mean, std::sqrt(std::max(0.0, squares / count - mean * mean)), visible / count};
}

std::vector<std::uint8_t> makePoster(Source& source, Progress& progress) {
    if (auto cover = coverOf(source); !cover.empty()) {
        return cover;
    }
    if (!mainVideoStream(source)) {
        return {};
    }
    FrameReader reader(source);
    FramePtr frame = PosterSearch(reader, progress).find();
    return frame ? encodeJPEG(reader.stream(), std::move(frame), kLargestSide, kLargestSide)
                 : std::vector<std::uint8_t>{};
}

}  // namespace krv::media
