#include <ctime>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <MediaServer/Operations/DescriptionCache.h>

namespace krv::server {
namespace {

FileState stateWithSize(off_t size, std::time_t modified = 1000) {
    struct stat status {};
    status.st_size = size;
    status.st_mtim.tv_sec = modified;
    return FileState(status);
}

KRVOperationBase::Ref recordWithCodec(const std::string& codec) {
    auto record = std::make_shared<KRVOperationBase>();
    record->setOperationType(OpReturnResult);
    record->setMetadata(std::make_shared<const Dictionary>(Dictionary{{kMediaMetadataCodec, codec}}));
    return record;
}

std::string codecOf(const KRVOperationBase::Ref& record) {
    return record ? (*record->metadata())[kMediaMetadataCodec].stringValue() : "unknown";
}

TEST(DescriptionCacheTest, ReturnsWhatItHasBeenGiven) {
    DescriptionCache cache;
    const auto record = recordWithCodec("H.264");
    record->setResult(std::make_shared<Dictionary>(Dictionary{{kResultSourceTruncatedAt, 1.5}}));
    cache.add("/a", stateWithSize(1), *record);
    const auto found = cache.find("/a", stateWithSize(1));
    EXPECT_EQ(codecOf(found), "H.264");
    ASSERT_TRUE(found->result());
    EXPECT_EQ((*found->result())[kResultSourceTruncatedAt].doubleValue(), 1.5);
    EXPECT_TRUE(found->completed());
}

TEST(DescriptionCacheTest, RemembersTracksTagsAndChapters) {
    DescriptionCache cache;
    const auto record = recordWithCodec("H.264");
    const auto dictionary = [](Dictionary entries) { return Value(std::make_shared<Dictionary>(std::move(entries))); };
    const Dictionary result{
        {kResultMovieTracks, Array{dictionary({{kResultMovieTrackIndex, 0}, {kResultMovieTrackKind, "video"}})}},
        {kResultMovieTags, dictionary({{"title", "A title"}})},
        {kResultMovieChapters, Array{dictionary({{kResultMovieChapterStart, 0.0}})}}};
    record->setResult(std::make_shared<Dictionary>(result));
    cache.add("/a", stateWithSize(1), *record);
    const auto found = cache.find("/a", stateWithSize(1));
    ASSERT_TRUE(found && found->result());
    EXPECT_EQ(*found->result(), result);
}

TEST(DescriptionCacheTest, ReturnsACopyThatMayBeChanged) {
    DescriptionCache cache;
    const auto record = recordWithCodec("H.264");
    record->setResult(std::make_shared<Dictionary>(Dictionary{{kResultSourceTruncatedAt, 1.5}}));
    cache.add("/a", stateWithSize(1), *record);
    cache.find("/a", stateWithSize(1))->result()->set(kResultSourceTruncatedAt, 2.5);
    const auto found = cache.find("/a", stateWithSize(1));
    EXPECT_EQ((*found->result())[kResultSourceTruncatedAt].doubleValue(), 1.5);
}

TEST(DescriptionCacheTest, DoesNotKnowAFileThatHasChangedOrHasAnotherName) {
    DescriptionCache cache;
    cache.add("/a", stateWithSize(1), *recordWithCodec("H.264"));
    EXPECT_EQ(cache.find("/a", stateWithSize(2)), nullptr);
    EXPECT_EQ(cache.find("/b", stateWithSize(1)), nullptr);
}

TEST(DescriptionCacheTest, ReplacesTheDescriptionOfAFileThatHasChanged) {
    DescriptionCache cache;
    cache.add("/a", stateWithSize(1), *recordWithCodec("H.264"));
    cache.add("/a", stateWithSize(2), *recordWithCodec("HEVC"));
    EXPECT_EQ(cache.find("/a", stateWithSize(1)), nullptr);
    EXPECT_EQ(codecOf(cache.find("/a", stateWithSize(2))), "HEVC");
}

TEST(DescriptionCacheTest, DoesNotRememberAFileThatHasJustChanged) {
    DescriptionCache cache;
    const FileState fresh = stateWithSize(1, std::time(nullptr));
    cache.add("/a", fresh, *recordWithCodec("H.264"));
    EXPECT_EQ(cache.find("/a", fresh), nullptr);
}

TEST(DescriptionCacheTest, ForgetsWhatHasNotBeenAskedForTheLongest) {
    const std::size_t each = recordWithCodec("H.264")->convertToData().size() + 2;
    DescriptionCache cache(2 * each);
    cache.add("/a", stateWithSize(1), *recordWithCodec("H.264"));
    cache.add("/b", stateWithSize(1), *recordWithCodec("H.264"));
    EXPECT_NE(cache.find("/a", stateWithSize(1)), nullptr);
    cache.add("/c", stateWithSize(1), *recordWithCodec("H.264"));
    EXPECT_NE(cache.find("/a", stateWithSize(1)), nullptr);
    EXPECT_EQ(cache.find("/b", stateWithSize(1)), nullptr);
    EXPECT_NE(cache.find("/c", stateWithSize(1)), nullptr);
}

TEST(DescriptionCacheTest, DoesNotRememberADescriptionThatIsLargerThanItMayGrow) {
    DescriptionCache cache(100);
    cache.add("/a", stateWithSize(1), *recordWithCodec(std::string(1000, 'x')));
    EXPECT_EQ(cache.find("/a", stateWithSize(1)), nullptr);
}

}  // namespace
}  // namespace krv::server
