// Stereo mixes and merges with the real server and the client.
#include <gmock/gmock.h>

#include "ObservedWork.h"
#include "ServerFixture.h"

namespace krv::server {
namespace {

class Joining : public Server {
protected:
    static std::string media(const char* name) { return std::string(KRV_TEST_MEDIA) + '/' + name; }
    std::shared_ptr<const Error> merge(const Array& sources, const std::string& destination, bool shortest = false) {
        std::shared_ptr<const Error> error;
        (void)client->mergeSources(Value(sources), destination, shortest, observer, &error);
        return error;
    }
    double seconds(const std::string& movie) {
        std::shared_ptr<const Error> error;
        const auto info = client->getMetadataFor(movie, &error);
        return info ? (*info)[kMediaMetadataDuration].doubleValue() : 0;
    }
    std::string audio(const std::string& movie) {
        std::shared_ptr<const Error> error;
        const auto info = client->getMetadataFor(movie, &error);
        return info ? (*info)[kMediaMetadataAudio].stringValue() : std::string();
    }
};

TEST_F(Joining, SurroundAudioBecomesStereo) {
    start();
    std::shared_ptr<const Error> error;
    client->muxMovie(media("surround.mov"), out("out.mov"), observer, &error);
    EXPECT_FALSE(error);
    EXPECT_EQ(audio(out("out.mov")), "AAC, 48000 Hz, stereo");
    EXPECT_NEAR(seconds(out("out.mov")), 2, 0.1);
    EXPECT_EQ(filesInOut(), 1U);
}

TEST_F(Joining, AMovieWithoutAudioCannotBeMixedDown) {
    start();
    std::shared_ptr<const Error> error;
    client->muxMovie(media("silent.mp4"), out("out.mp4"), observer, &error);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 4);
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Joining, MoviesAreJoinedInOrder) {
    start();
    stopUntilObserved(*observer, [this] { return workers(); });
    EXPECT_FALSE(merge({media("plain.mov"), media("chapters.mp4"), media("plain.mov")}, out()));
    EXPECT_NEAR(seconds(out()), 6, 0.15);
    EXPECT_FALSE(observer->seen.empty());
    EXPECT_TRUE(std::is_sorted(observer->seen.begin(), observer->seen.end()));
}

TEST_F(Joining, OneMovieIsEnough) {
    start();
    EXPECT_FALSE(merge({media("plain.mov")}, out()));
    EXPECT_NEAR(seconds(out()), 2, 0.1);
}

TEST_F(Joining, ABadMovieFailsEverythingAndIsNamed) {
    start();
    const auto broken = merge({media("plain.mov"), media("text.mp4"), media("plain.mov")}, out());
    ASSERT_TRUE(broken);
    EXPECT_EQ(broken->code(), 4);
    EXPECT_EQ((*broken->userInfo())["KRVFilePath"].stringValue(), media("text.mp4"));
    const auto missing = merge({media("plain.mov"), "/does/not/exist.mov"}, out());
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->code(), 3);
    EXPECT_EQ(missing->localizedDescription(), "Cannot merge exist.mov: the file does not exist.");
    EXPECT_EQ((*missing->userInfo())[kErrorFilePath].stringValue(), "/does/not/exist.mov");
    EXPECT_EQ((*missing->userInfo())[kErrorNumber], Value(ENOENT));
    EXPECT_EQ(filesInOut(), 0U);
}

TEST_F(Joining, AnEmptyListIsErrorNine) {
    start();
    const auto error = merge({}, out());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 9);
    EXPECT_THAT(error->localizedFailureReason(), testing::HasSubstr("videoMergeSources"));
}

TEST_F(Joining, TheDestinationMustNotBeASource) {
    start();
    fs::copy_file(media("plain.mov"), out());
    const auto error = merge({media("chapters.mp4"), out()}, out());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 10);
    EXPECT_EQ(fs::file_size(out()), fs::file_size(media("plain.mov")));
}

TEST_F(Joining, HundredsOfMoviesCanBeJoined) {
    // More descriptors than the kernel passes in one message.
    constexpr std::size_t kMovies = 300;
    start();
    EXPECT_FALSE(merge(Array(kMovies, Value(media("still.mov"))), out("out.mov")));
    EXPECT_NEAR(seconds(out("out.mov")), 0.04 * kMovies, 0.5);
}

}  // namespace
}  // namespace krv::server
