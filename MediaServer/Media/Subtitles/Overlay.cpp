#include <algorithm>
#include <array>
#include <cmath>

#include <MediaServer/Media/Foundation/Failure.h>
#include <MediaServer/Media/Subtitles/Overlay.h>

namespace krv::media {
namespace {

constexpr unsigned kWhole = 65535;  // of a value or an opacity

struct Colour {
    double red;
    double green;
    double blue;
};

/// The brightness of white in a subtitle, as that of paper in a movie with high dynamic range, and the largest one
/// there.
constexpr double kPaperWhite = 203, kBrightest = 10000;

/// Returns the signal of SMPTE ST 2084 for a value of a display with gamma 2.2 on which paper white is 1.
double perceptual(double value) {
    constexpr double m1 = 2610.0 / 16384, m2 = 2523.0 / 32, c1 = 3424.0 / 4096, c2 = 2413.0 / 128, c3 = 2392.0 / 128;
    const double light = std::pow(std::pow(value, 2.2) * kPaperWhite / kBrightest, m1);
    return std::pow((c1 + c2 * light) / (1 + c3 * light), m2);
}

/// In HLG, paper white is three quarters of the signal.
constexpr double kPaperWhiteInHLG = 0.75;

Colour inSignal(const Colour& colour, AVColorTransferCharacteristic transfer) {
    const auto convert = [transfer](double value) {
        return transfer == AVCOL_TRC_SMPTE2084      ? perceptual(value)
               : transfer == AVCOL_TRC_ARIB_STD_B67 ? value * kPaperWhiteInHLG
                                                    : value;
    };
    return {convert(colour.red), convert(colour.green), convert(colour.blue)};
}

/// The share of red and of blue in the brightness.
struct Shares {
    double red;
    double blue;
};

Shares sharesOf(AVColorSpace space) {
    switch (space) {
    case AVCOL_SPC_BT709:
        return {0.2126, 0.0722};
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
        return {0.2627, 0.0593};
    case AVCOL_SPC_FCC:
        return {0.30, 0.11};
    case AVCOL_SPC_SMPTE240M:
        return {0.212, 0.087};
    default:
        return {0.299, 0.114};
    }
}

/// Returns a component of a colour as a part of its largest value.
double component(int number, const Colour& colour, const AVPixFmtDescriptor& format, const FrameLayout& layout) {
    const bool isAlpha = (format.flags & AV_PIX_FMT_FLAG_ALPHA) != 0 && number == format.nb_components - 1;
    if (isAlpha) {
        return 1;
    }
    if ((format.flags & AV_PIX_FMT_FLAG_RGB) != 0) {
        return number == 0 ? colour.red : number == 1 ? colour.green : colour.blue;
    }
    const Shares shares = sharesOf(layout.space);
    const double y =
        shares.red * colour.red + (1 - shares.red - shares.blue) * colour.green + shares.blue * colour.blue;
    const double chroma =
        number == 1 ? (colour.blue - y) / (2 * (1 - shares.blue)) : (colour.red - y) / (2 * (1 - shares.red));
    const int depth = format.comp[number].depth;
    const double largest = (1 << depth) - 1, half = 1 << (depth - 1), eighth = 1 << (depth - 8);
    const bool full = layout.range == AVCOL_RANGE_JPEG;
    if (number == 0) {
        return full ? y : (16 + 219 * y) * eighth / largest;
    }
    return std::clamp((half + chroma * (full ? largest : 224 * eighth)) / largest, 0.0, 1.0);
}

bool isDrawable(const AVPixFmtDescriptor* format) {
    constexpr std::uint64_t kOther = AV_PIX_FMT_FLAG_BE | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM |
                                     AV_PIX_FMT_FLAG_HWACCEL | AV_PIX_FMT_FLAG_FLOAT | AV_PIX_FMT_FLAG_BAYER;
    if (!format || (format->flags & kOther) != 0) {
        return false;
    }
    return std::all_of(format->comp, format->comp + format->nb_components, [](const AVComponentDescriptor& one) {
        return (one.depth == 8 && one.shift == 0) || (one.depth > 8 && (one.shift == 0 || one.depth + one.shift == 16));
    });
}

/// Returns the paint over a pixel of the stored frame.
Paint paintOver(const FrameLayout::Point& stored, const OverlayImage& image, const FrameLayout& layout) {
    const auto [x, y] = layout.upright(stored);
    const Box& box = image.box();
    const bool inside = x >= box.x && y >= box.y && x < box.x + box.width && y < box.y + box.height;
    return inside ? image.at(x, y) : Paint{};
}

}  // namespace

void Overlay::requireDrawable(AVPixelFormat pixels) {
    if (!isDrawable(av_pix_fmt_desc_get(pixels))) {
        const char* const name = av_get_pix_fmt_name(pixels);
        throw Failure({.cause = FailureCause::SettingDoesNotApply,
                       .subject = "burnInSubtitleTrack",
                       .detail = name ? name : "unknown pixels"});
    }
}

Overlay::Overlay(const OverlayImage& image, const FrameLayout& layout)
    : format_(av_pix_fmt_desc_get(layout.pixels)) {
    requireDrawable(layout.pixels);
    if (!image.box().empty()) {
        for (int i = 0; i < format_->nb_components; ++i) {
            planes_.push_back(makePlane(i, image, layout));
        }
    }
}

Overlay::Plane Overlay::makePlane(int number, const OverlayImage& image, const FrameLayout& layout) const {
    const bool isChroma = (format_->flags & AV_PIX_FMT_FLAG_RGB) == 0 && (number == 1 || number == 2);
    const int right = isChroma ? format_->log2_chroma_w : 0, down = isChroma ? format_->log2_chroma_h : 0;
    const Box box = layout.stored(image.box());
    const int x = box.x >> right, y = box.y >> down;
    Plane plane{number,
                {x, y, AV_CEIL_RSHIFT(box.x + box.width, right) - x, AV_CEIL_RSHIFT(box.y + box.height, down) - y},
                {},
                {}};
    const double pixels = 1 << (right + down);
    const auto samples = static_cast<std::size_t>(plane.box.width) * static_cast<std::size_t>(plane.box.height);
    plane.value.reserve(samples);
    plane.alpha.reserve(samples);
    Paint last{};
    double lastValue = 0;
    for (int row = 0; row < plane.box.height; ++row) {
        for (int column = 0; column < plane.box.width; ++column) {
            double value = 0, alpha = 0;
            for (int i = 0; i < 1 << (right + down); ++i) {
                const int across = i & ((1 << right) - 1), below = i >> right;
                const Paint paint =
                    paintOver({((x + column) << right) + across, ((y + row) << down) + below}, image, layout);
                if (paint.alpha == 0) {
                    continue;
                }
                if (!(paint == last)) {
                    const double full = paint.alpha;
                    lastValue = component(
                        number, inSignal({paint.red / full, paint.green / full, paint.blue / full}, layout.transfer),
                        *format_, layout);
                    last = paint;
                }
                value += lastValue * paint.alpha / 255;
                alpha += paint.alpha / 255.0;
            }
            plane.value.push_back(static_cast<std::uint16_t>(std::lround(value / pixels * kWhole)));
            plane.alpha.push_back(static_cast<std::uint16_t>(std::lround(alpha / pixels * kWhole)));
        }
    }
    return plane;
}

template <typename Sample>
void Overlay::draw(const Plane& plane, AVFrame& frame) const {
    const AVComponentDescriptor& where = format_->comp[plane.component];
    const std::uint64_t largest = (std::uint64_t{1} << where.depth) - 1;
    std::size_t i = 0;
    for (int row = 0; row < plane.box.height; ++row) {
        std::uint8_t* at =
            frame.data[where.plane] + static_cast<std::ptrdiff_t>(plane.box.y + row) * frame.linesize[where.plane];
        at += static_cast<std::ptrdiff_t>(plane.box.x) * where.step + where.offset;
        for (int column = 0; column < plane.box.width; ++column, ++i, at += where.step) {
            if (plane.alpha[i] == 0) {
                continue;
            }
            auto& sample = *reinterpret_cast<Sample*>(at);
            const std::uint64_t under = static_cast<std::uint64_t>(sample) >> where.shift;
            const std::uint64_t mixed =
                (under * (kWhole - plane.alpha[i]) + plane.value[i] * largest + kWhole / 2) / kWhole;
            sample = static_cast<Sample>(mixed << where.shift);
        }
    }
}

void Overlay::draw(AVFrame& frame) const {
    for (const Plane& plane : planes_) {
        if (format_->comp[plane.component].depth > 8) {
            draw<std::uint16_t>(plane, frame);
        } else {
            draw<std::uint8_t>(plane, frame);
        }
    }
}

}  // namespace krv::media
