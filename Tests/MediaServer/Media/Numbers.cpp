#include "Numbers.h"

#include <array>
#include <cmath>
#include <stdexcept>

#include <fcntl.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "MediaTestKit.h"
#include <MediaServer/Media/MovieInfo.h>
#include <MediaServer/Media/Thumbnails.h>

namespace krv::media::test {
namespace {

constexpr int kBits = 16;
/// Above the mean of bright and dark, so that in interlaced frames only bits that are set in both fields count.
constexpr int kBright = 150;

struct Lab {
    double lightness = 0;
    double a = 0;
    double b = 0;
};

/// Converts sRGB with its white point to CIE 1976 L*a*b*.
Lab labOf(int red, int green, int blue) {
    const auto linear = [](int value) {
        const double v = value / 255.0;
        return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    const double r = linear(red), g = linear(green), b = linear(blue);
    const auto curve = [](double t) { return t > 0.008856 ? std::cbrt(t) : 7.787 * t + 16.0 / 116; };
    const double x = curve((0.4124 * r + 0.3576 * g + 0.1805 * b) / 0.9505);
    const double y = curve(0.2126 * r + 0.7152 * g + 0.0722 * b);
    const double z = curve((0.0193 * r + 0.1192 * g + 0.9505 * b) / 1.089);
    return {116 * y - 16, 500 * (x - y), 200 * (y - z)};
}

}  // namespace

std::string corpus(const std::string& name) {
    return std::string(KRV_CORPUS) + "/" + name;
}

std::vector<int> frameNumbers(const std::string& path, const std::string& filter) {
    const std::string chain = filter + fmt::format(",crop=iw*0.8:ih/15:0:0,scale={}:1:flags=area,format=gray", kBits);
    const std::string bytes = run({KRV_FFMPEG, "-v", "quiet", "-noautorotate", "-i", path, "-map", "0:v:0", "-vf",
                                   chain, "-vsync", "passthrough", "-f", "rawvideo", "-"});
    std::vector<int> numbers;
    for (std::size_t start = 0; start + kBits <= bytes.size(); start += kBits) {
        int number = 0;
        for (std::size_t bit = 0; bit < kBits; ++bit) {
            number |= static_cast<unsigned char>(bytes[start + bit]) > kBright ? 1 << bit : 0;
        }
        numbers.push_back(number);
    }
    return numbers;
}

std::vector<int> numbersFrom(int first, int last, int step) {
    std::vector<int> numbers;
    for (int number = first; number <= last; number += step) {
        numbers.push_back(number);
    }
    return numbers;
}

std::vector<int> shownColours(const std::string& path, int frame) {
    const std::string bytes =
        run({KRV_FFMPEG, "-v", "quiet", "-i", path, "-map", "0:v:0", "-frames:v", "1", "-vf",
             fmt::format("select=gte(n\\,{}),", frame) + "format=rgb24,scale=16:12:flags=area", "-f", "rawvideo", "-"});
    std::vector<int> values;
    for (const char byte : bytes) {
        values.push_back(static_cast<unsigned char>(byte));
    }
    if (values.size() != 16 * 12 * 3) {
        throw std::runtime_error("no frame");
    }
    return values;
}

ColourDifference colourDifference(const std::vector<int>& a, const std::vector<int>& b) {
    ColourDifference result;
    for (std::size_t i = 0; i + 2 < a.size(); i += 3) {
        const Lab one = labOf(a[i], a[i + 1], a[i + 2]);
        const Lab two = labOf(b.at(i), b.at(i + 1), b.at(i + 2));
        const double distance = std::hypot(one.lightness - two.lightness, one.a - two.a, one.b - two.b);
        result.mean += distance / (static_cast<double>(a.size()) / 3);
        result.largest = std::max(result.largest, distance);
    }
    return result;
}

std::vector<NumberedThumbnail> numberedThumbnails(const std::string& movie, int count) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie);
    OutputPath all("mjpeg");
    const Descriptor destination(open(all.path().c_str(), O_RDWR | O_CLOEXEC));
    ThumbnailRequest request;
    request.source = source.number();
    request.sourcePath = movie;
    request.destination = destination.number();
    request.count = count;
    const auto made = makeThumbnails(request, sink).pictures;
    const std::string bytes = readFile(all.path());
    std::vector<NumberedThumbnail> result;
    for (const Thumbnail& one : made) {
        OutputPath file("jpg");
        writeFile(file.path(),
                  bytes.substr(static_cast<std::size_t>(one.offset), static_cast<std::size_t>(one.length)));
        result.push_back({frameNumbers(file.path()).at(0), one.time});
    }
    return result;
}

void expectDescription(const std::string& movie, double duration, double tolerance, int posterNumber) {
    RecordingSink sink;
    const Descriptor source = openToRead(movie);
    const MovieInfo info = movieInfo({.source = source.number(), .sourcePath = movie}, sink);
    EXPECT_NEAR(info.duration.value_or(0), duration, tolerance);
    OutputPath poster("jpg");
    writeFile(poster.path(), std::string(info.poster.begin(), info.poster.end()));
    EXPECT_EQ(frameNumbers(poster.path()), std::vector{posterNumber});
}

}  // namespace krv::media::test
