// Movies whose files were cut off: every operation uses them as far as they go, and says where they end.
#include <filesystem>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "MediaTestKit.h"
#include "Numbers.h"
#include <MediaServer/Media/InterestingTimes.h>
#include <MediaServer/Media/Merge/Merge.h>
#include <MediaServer/Media/MovieInfo.h>
#include <MediaServer/Media/StereoMix.h>
#include <MediaServer/Media/Thumbnails.h>

namespace krv::media {
namespace {

using namespace test;

/// Files of a movie of 2 s, in one container, whole and with a third of their bytes missing.
class Truncated : public testing::TestWithParam<const char*> {
protected:
    const OutputPath whole = convert({.source = testMedia("plain.mov"), .extension = GetParam(), .flatten = true});
    const OutputPath cut = shortened(whole);
    const OutputPath output{"mov"};
    RecordingSink sink;

    static OutputPath shortened(const OutputPath& movie) {
        OutputPath path(GetParam());
        const std::string bytes = readFile(movie.path());
        writeFile(path.path(), bytes.substr(0, bytes.size() * 2 / 3));
        return path;
    }
    static void expectCut(const std::optional<double>& at) {
        ASSERT_TRUE(at);
        EXPECT_GT(*at, 0.5);
        EXPECT_LT(*at, 1.9);
    }
};

TEST_P(Truncated, ConversionSaysWhereTheSourceEnds) {
    for (const std::int32_t type : {0, 1}) {
        for (const OutputPath* const from : {&whole, &cut}) {
            const Descriptor in = openToRead(from->path());
            const Descriptor out(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
            EncodeRequest request;
            request.source = in.number();
            request.destination = out.number();
            request.sourcePath = from->path();
            request.destinationPath = output.path();
            request.encodingType = type;
            const MovieReport report = encode(request, sink);
            ASSERT_EQ(report.truncatedAt.size(), 1U);
            if (from == &whole) {
                EXPECT_FALSE(report.truncatedAt[0]);
            } else {
                expectCut(report.truncatedAt[0]);
                EXPECT_NEAR(*report.truncatedAt[0], Probe(output).duration(), 0.25);
            }
        }
    }
}

TEST_P(Truncated, StereoMixSaysWhereTheSourceEnds) {
    const Descriptor in = openToRead(cut.path());
    const Descriptor out(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    const MovieReport report = mixToStereo({in.number(), out.number(), cut.path(), output.path()}, sink);
    ASSERT_EQ(report.truncatedAt.size(), 1U);
    expectCut(report.truncatedAt[0]);
}

TEST_P(Truncated, MergeSaysItOfEachSource) {
    const Descriptor first = openToRead(whole.path());
    const Descriptor second = openToRead(cut.path());
    const Descriptor out(::open(output.path().c_str(), O_RDWR | O_CLOEXEC));
    MergeRequest request;
    request.sources = {{first.number(), whole.path()}, {second.number(), cut.path()}};
    request.destination = out.number();
    request.destinationPath = output.path();
    const MovieReport report = merge(request, sink);
    ASSERT_EQ(report.truncatedAt.size(), 2U);
    EXPECT_FALSE(report.truncatedAt[0]);
    expectCut(report.truncatedAt[1]);
    EXPECT_NEAR(Probe(output).duration(), 2.0 + *report.truncatedAt[1], 0.25);
}

TEST_P(Truncated, WhatOnlyLooksAtAMovieSaysItToo) {
    const Descriptor in = openToRead(cut.path());
    expectCut(movieInfo({.source = in.number(), .sourcePath = cut.path()}, sink).truncatedAt);
    expectCut(interestingTimes({.source = in.number(), .sourcePath = cut.path(), .track = {}}, sink).truncatedAt);
    const OutputPath pictures("jpg");
    const Descriptor out(::open(pictures.path().c_str(), O_RDWR | O_CLOEXEC));
    expectCut(
        makeThumbnails({.source = in.number(), .sourcePath = cut.path(), .destination = out.number(), .count = 1}, sink)
            .truncatedAt);
    const Descriptor intact = openToRead(whole.path());
    EXPECT_FALSE(movieInfo({.source = intact.number(), .sourcePath = whole.path()}, sink).truncatedAt);
}

TEST(TruncatedSource, NoWholeMovieCountsAsOne) {
    int described = 0;
    for (const auto& file :
         std::filesystem::directory_iterator(std::filesystem::path(corpus("complete")).parent_path())) {
        const std::string path = file.path().string();
        RecordingSink sink;
        const Descriptor in = openToRead(path);
        try {
            const MovieInfo info = movieInfo({.source = in.number(), .sourcePath = path}, sink);
            EXPECT_EQ(info.truncatedAt.has_value(), path == corpus("truncated.mkv")) << path;
            ++described;
        } catch (const Failure&) {
            continue;  // not a movie
        }
    }
    EXPECT_GT(described, 40);
}

INSTANTIATE_TEST_SUITE_P(Containers, Truncated, testing::Values("mov", "mp4", "mkv"),
                         [](const auto& parameter) { return std::string(parameter.param); });

}  // namespace
}  // namespace krv::media
