// Every kind of media work in a real worker, so with its sandbox.
#include <array>
#include <string>

#include "ServerFixture.h"

namespace krv::server {
namespace {

class ServerSandbox : public Server {
protected:
    void SetUp() override { start(); }

    /// Performs an operation and returns its record; its error is empty if it has completed.
    R::Ref perform(const R::Ref& request) const {
        const auto id = ask(request)->uniqueID().value_or("");
        R::Ref state;
        waitUntil([&] {
            state = ask(R::progressAndCompletionOperation(id));
            return state->completed() || state->cancelled() || state->error();
        });
        return ask(R::returnResultForOperation(id));
    }
    static std::string problem(const R::Ref& record) {
        return record->error()
                   ? record->error()->localizedDescription() + " (" + record->error()->localizedFailureReason() + ")"
               : record->completed() ? std::string()
                                     : "not completed";
    }
    static std::string source(const char* name) { return std::string(KRV_TEST_MEDIA) + "/" + name; }
};

TEST_F(ServerSandbox, EncodesEveryTypeIntoItsContainers) {
    struct Case {
        int type;
        const char* extension;
    };
    for (const Case& each : {Case{0, "mov"},
                             {0, "mkv"},
                             {1, "mp4"},
                             {2, "mov"},
                             {2, "mkv"},
                             {3, "m4v"},
                             {3, "ogg"},
                             {4, "mov"},
                             {5, "webm"},
                             {6, "mp4"},
                             {6, "webm"},
                             {7, "m4a"},
                             {7, "mka"},
                             {7, "wav"},
                             {7, "mp3"},
                             {7, "flac"}}) {
        const std::string name = "out." + std::to_string(each.type) + "." + each.extension;
        const auto request = R::encodeVideoOperation(movie(), out(name.c_str()));
        request->arguments()->set(kArgumentEncodingType, each.type);
        EXPECT_EQ(problem(perform(request)), "") << name;
    }
}

TEST_F(ServerSandbox, FlattensAndReadsEveryKindOfSource) {
    for (const char* const name : {"everything.mkv", "chapters.mp4", "camera.mov", "subtitles.mkv", "small.ts"}) {
        const auto request = R::encodeVideoOperation(source(name), out("flat.mov"));
        request->arguments()->set(kArgumentEncodingFlattenOnly, true);
        EXPECT_EQ(problem(perform(request)), "") << name;
    }
    for (const char* const name : {"hdr.mp4", "interlaced.mpg", "theora.webm", "old.avi", "flash.webm", "odd.mkv",
                                   "subtitles.mkv", "surround.mov", "variable.mkv"}) {
        const auto request = R::encodeVideoOperation(source(name), out("out.mp4"));
        request->arguments()->set(kArgumentEncodingType, static_cast<int>(VideoConversion::H264));
        EXPECT_EQ(problem(perform(request)), "") << name;
    }
}

TEST_F(ServerSandbox, DrawsTextIntoVideoWithoutOpeningAFont) {
    const auto encode = [this](const std::string& settings, const char* name) {
        const auto* const bytes = reinterpret_cast<const std::byte*>(settings.data());
        const auto video = VideoEncodingParameters::encodingParametersWithData(
            std::make_shared<const Data>(bytes, bytes + settings.size()));
        EXPECT_EQ(problem(perform(R::encodeVideoOperation(source("subtitles.mkv"), out(name), nullptr, video))), "");
        return fs::file_size(out(name));
    };
    // The frames are the same but for the text.
    const auto plain = encode("subtitleTracks=1", "plain.mkv"), burnt = encode("burnInSubtitleTrack=1", "burnt.mkv");
    EXPECT_GT(burnt, plain + plain / 100);
}

TEST_F(ServerSandbox, DoesEveryOtherKindOfWork) {
    EXPECT_EQ(problem(perform(R::createThumbnailsForVideo(movie(), out("thumbnails"), {100, 0}))), "");
    for (const char* const name : {"plain.mov", "hdr.mp4", "cover.m4a", "everything.mkv"}) {
        EXPECT_EQ(problem(perform(R::provideMetadataFor(source(name)))), "") << name;
        EXPECT_EQ(problem(perform(R::getInterestingTimesOperation(source(name), false, 0))), "") << name;
    }
    EXPECT_EQ(problem(perform(R::muxAudioTo2chOperation(source("surround.mov"), out("stereo.mov")))), "");
    EXPECT_EQ(problem(perform(R::mergeSourcesOperation(Array{movie(), movie()}, out("same.mov"), false))), "");
    EXPECT_EQ(problem(perform(R::mergeSourcesOperation(Array{movie(), source("odd.mkv")}, out("other.mov"), true))),
              "");
}

}  // namespace
}  // namespace krv::server
