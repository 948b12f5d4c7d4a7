// Transparency is kept, or it is listed among what was dropped, and no tag promises what is not there.
#include <string>
#include <vector>

#include <fcntl.h>

#include <gmock/gmock.h>

#include "MediaTestKit.h"
#include "Merge/MergeTestKit.h"

namespace krv::media::test {
namespace {

using testing::Contains;
using testing::IsEmpty;

const std::string kGone = "the encoder does not support transparency";

/// A movie whose left half is transparent and whose right half is opaque. If opaque is set, all of it is.
OutputPath halfTransparent(const std::string& extension, std::vector<std::string> encoder, bool opaque = false) {
    OutputPath movie(extension);
    std::vector<std::string> arguments{
        KRV_FFMPEG, "-v",
        "error",    "-y",
        "-f",       "lavfi",
        "-i",       "color=red:size=160x120:rate=10:duration=1,format=yuva444p",
        "-vf",      opaque ? "null" : "geq=lum='p(X,Y)':cb='p(X,Y)':cr='p(X,Y)':a='255*gte(X,80)'"};
    arguments.insert(arguments.end(), encoder.begin(), encoder.end());
    arguments.push_back(movie.path());
    run(arguments);
    return movie;
}

OutputPath transparentVP9() {
    return halfTransparent("webm", {"-c:v", "libvpx-vp9", "-pix_fmt", "yuva420p", "-deadline", "realtime"});
}
OutputPath transparentVP8() {
    return halfTransparent("webm", {"-c:v", "libvpx", "-pix_fmt", "yuva420p", "-auto-alt-ref", "0"});
}
OutputPath transparentProRes() {
    return halfTransparent("mov", {"-c:v", "prores_ks", "-profile:v", "4", "-pix_fmt", "yuva444p10le"});
}
OutputPath transparentAnimation() {
    return halfTransparent("mov", {"-c:v", "qtrle", "-pix_fmt", "argb"});
}

/// How opaque the middle of the left and of the right half is in the last frame, 0 to 255.
struct Opacity {
    int left;
    int right;
};

Opacity opacityOf(const std::string& movie) {
    std::vector<std::string> arguments{KRV_FFMPEG, "-v", "error"};
    const std::string codec = text(Probe(movie).video(), "codec_name");
    if (codec == "vp8" || codec == "vp9") {  // FFmpeg's own decoders ignore their transparency
        arguments.insert(arguments.end(), {"-c:v", codec == "vp8" ? "libvpx" : "libvpx-vp9"});
    }
    arguments.insert(arguments.end(), {"-i", movie, "-vf", "format=rgba,alphaextract,format=gray,scale=160:120", "-f",
                                       "rawvideo", "-pix_fmt", "gray", "-"});
    const std::string frames = run(arguments);
    if (frames.size() < 160 * 120) {
        throw std::runtime_error("no frames in " + movie);
    }
    const std::size_t row = frames.size() - 160 * 60;
    return {static_cast<unsigned char>(frames[row + 40]), static_cast<unsigned char>(frames[row + 120])};
}

void expectHalfTransparent(const std::string& movie) {
    const auto [left, right] = opacityOf(movie);
    EXPECT_LT(left, 10);
    EXPECT_GT(right, 245);
}

std::vector<std::string> lossesIn(const MovieReport& report) {
    std::vector<std::string> lines;
    for (const DroppedTrack& each : report.droppedTracks) {
        lines.push_back(std::to_string(each.source) + " " + each.kind + ": " + each.reason);
    }
    return lines;
}

Conversion toProRes4444(const OutputPath& source) {
    return {.source = source.path(), .extension = "mov", .type = 3, .video = VideoRequest{fourCC("ap4h"), 0, 0, ""}};
}

TEST(Transparency, IsKeptInProRes4444) {
    for (const auto make : {transparentVP9, transparentVP8, transparentProRes, transparentAnimation}) {
        const OutputPath source = make();
        SCOPED_TRACE(text(Probe(source).video(), "codec_name"));
        expectHalfTransparent(source.path());
        expectHalfTransparent(convert(toProRes4444(source)).path());
        EXPECT_THAT(lossesIn(reportOf(toProRes4444(source))), IsEmpty());
    }
}

TEST(Transparency, IsKeptInGIF) {
    for (const auto make : {transparentVP9, transparentAnimation}) {
        const OutputPath source = make();
        SCOPED_TRACE(text(Probe(source).video(), "codec_name"));
        const Conversion animation{.source = source.path(), .extension = "gif", .type = 0};
        expectHalfTransparent(convert(animation).path());
        EXPECT_THAT(lossesIn(reportOf(animation)), IsEmpty());
    }
}

// All GIFs are decoded with an alpha channel.
TEST(Transparency, OfAGIFIsListedOnlyIfItShows) {
    const OutputPath opaque("gif");
    run({KRV_FFMPEG, "-v", "error", "-y", "-i", testMedia("silent.mp4"), "-t", "1", opaque.path()});
    EXPECT_THAT(lossesIn(reportOf({.source = opaque.path(), .extension = "mp4", .type = 1})), IsEmpty());
    const Conversion strict{.source = opaque.path(), .type = 1, .video = VideoRequest{.settings = "strict=1"}};
    EXPECT_FALSE(failureOf(strict));
    const OutputPath transparent = convert({.source = transparentAnimation().path(), .extension = "gif", .type = 0});
    EXPECT_THAT(lossesIn(reportOf({.source = transparent.path(), .extension = "mp4", .type = 1})),
                testing::ElementsAre("0 alpha: " + kGone));
    expectHalfTransparent(convert(toProRes4444(transparent)).path());
}

TEST(Transparency, IsKeptInCopies) {
    const OutputPath source = transparentVP9();
    for (const char* const extension : {"webm", "mkv"}) {
        expectHalfTransparent(convert({.source = source.path(), .extension = extension, .type = 0}).path());
        expectHalfTransparent(join({source.path(), source.path()}, extension).path());
    }
}

TEST(Transparency, IsListedWhereItIsLost) {
    for (const auto make : {transparentVP9, transparentVP8, transparentProRes, transparentAnimation}) {
        const OutputPath source = make();
        SCOPED_TRACE(text(Probe(source).video(), "codec_name"));
        for (const auto& [extension, type] : {std::pair("mp4", 1), std::pair("webm", 5), std::pair("mov", 4)}) {
            EXPECT_THAT(lossesIn(reportOf({.source = source.path(), .extension = extension, .type = type})),
                        Contains("0 alpha: " + kGone))
                << extension;
        }
    }
}

struct Joined {
    OutputPath output;
    std::vector<std::string> losses;
};

Joined joined(const std::vector<std::string>& sources, const std::string& extension) {
    Joined result{OutputPath(extension), {}};
    std::vector<Descriptor> open;
    MergeRequest request;
    for (const std::string& source : sources) {
        open.push_back(openToRead(source));
        request.sources.push_back({open.back().number(), source});
    }
    const Descriptor destination(::open(result.output.path().c_str(), O_RDWR | O_CLOEXEC));
    request.destination = destination.number();
    request.destinationPath = result.output.path();
    RecordingSink sink;
    result.losses = lossesIn(merge(request, sink));
    return result;
}

TEST(Transparency, OfEverySourceIsListedWhereAMergeLosesIt) {
    const OutputPath source = transparentVP9();
    const auto encoded = joined({source.path(), testMedia("silent.mp4"), source.path()}, "webm");
    EXPECT_THAT(encoded.losses, testing::ElementsAre("0 alpha: " + kGone, "2 alpha: " + kGone));
    EXPECT_EQ(tagOf(Probe(encoded.output).video(), "alpha_mode"), "");
    const auto copied = joined({source.path(), source.path()}, "mp4");
    const std::string unheld = "mp4 files cannot hold the transparency of this codec";
    EXPECT_THAT(copied.losses, testing::ElementsAre("0 alpha: " + unheld, "1 alpha: " + unheld));
}

// A decoder cannot begin or end to be transparent in the middle.
TEST(Transparency, IsNotCopiedBesideVideoWithout) {
    const OutputPath source = transparentVP9();
    const OutputPath opaque =
        halfTransparent("webm", {"-c:v", "libvpx-vp9", "-pix_fmt", "yuv420p", "-deadline", "realtime"}, true);
    for (const auto& sources : {std::vector{source.path(), opaque.path()}, std::vector{opaque.path(), source.path()}}) {
        const auto [output, losses] = joined(sources, "webm");
        const std::size_t number = sources.front() == source.path() ? 0 : 1;
        EXPECT_THAT(losses, testing::ElementsAre(std::to_string(number) + " alpha: " + kGone));
        EXPECT_EQ(tagOf(Probe(output).video(), "alpha_mode"), "");
    }
}

TEST(Transparency, OfProRes4444IsKeptInAMerge) {
    const OutputPath source = transparentProRes();
    const auto [output, losses] = joined({testMedia("silent.mp4"), source.path()}, "mov");
    EXPECT_THAT(losses, testing::ElementsAre("1 alpha: " + kGone));  // the first source is H.264
    const auto kept = joined({source.path(), transparentAnimation().path()}, "mov");
    EXPECT_THAT(kept.losses, IsEmpty());
    expectHalfTransparent(kept.output.path());
}

}  // namespace
}  // namespace krv::media::test
