#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Operations/EncodingParameters.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

template <typename T>
std::shared_ptr<T> roundTrip(const T& parameters) {
    // Archives the parameters as a root object.
    return KRVOperationBase::objectFromData<T>(
        std::make_shared<const Data>(KeyedArchiver::archivedData(static_cast<const Archivable&>(parameters))));
}

std::shared_ptr<const Data> bytes(std::initializer_list<int> values) {
    Data data;
    for (const int v : values) {
        data.push_back(static_cast<std::byte>(v));
    }
    return std::make_shared<const Data>(std::move(data));
}

/// Returns whether the archive contains the text as a string.
bool stores(const Archivable& object, std::string_view text) {
    const Data data = KeyedArchiver::archivedData(object);
    const std::string_view all(reinterpret_cast<const char*>(data.data()), data.size());
    const std::string marked = std::string(1, static_cast<char>(0x50 | text.size())) + std::string(text);
    return all.find(marked) != std::string_view::npos;
}

TEST(EncodingParameters, FactoryCreatesTheClassItIsCalledOn) {
    const auto blob = bytes({1, 2, 3});
    const auto video = VideoEncodingParameters::encodingParametersWithData(blob);
    EXPECT_EQ(video->settingsBlob(), blob);
    EXPECT_EQ(video->codec(), 0U);
    EXPECT_EQ(video->quality(), 0.0F);
    EXPECT_EQ(video->fps(), 0.0F);
    EXPECT_EQ(video->className(), "VideoEncodingParameters");
    const auto audio = AudioEncodingParameters::encodingParametersWithData(nullptr);
    EXPECT_EQ(audio->settingsBlob(), nullptr);
    EXPECT_EQ(audio->className(), "AudioEncodingParameters");
    EXPECT_EQ(EncodingParameters::encodingParametersWithData(nullptr)->className(), "EncodingParameters");
    audio->setSettingsBlob(blob);
    EXPECT_EQ(audio->settingsBlob(), blob);
}

TEST(EncodingParameters, SurviveARoundTripWithTheHighestCodec) {
    VideoEncodingParameters video(bytes({9, 8}));
    video.setCodec(0xFFFFFFFF);
    video.setQuality(0.5F);
    video.setFps(29.97F);
    const auto back = roundTrip(video);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->codec(), 0xFFFFFFFFU);
    EXPECT_EQ(back->quality(), 0.5F);
    EXPECT_EQ(back->fps(), 29.97F);
    EXPECT_EQ(*back->settingsBlob(), *bytes({9, 8}));
}

TEST(EncodingParameters, ReadBackAsTheSameClassWithNullData) {
    AudioEncodingParameters audio(std::shared_ptr<const Data>{});
    const auto back = roundTrip(audio);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->settingsBlob(), nullptr);
    EXPECT_FALSE(roundTrip<VideoEncodingParameters>(VideoEncodingParameters(std::shared_ptr<const Data>{})) == nullptr);
    const auto asVideo = KRVOperationBase::objectFromData<VideoEncodingParameters>(
        std::make_shared<const Data>(KeyedArchiver::archivedData(audio)));
    EXPECT_EQ(asVideo, nullptr);
}

TEST(EncodingParameters, OfThePlainClassAreReadBackInARecord) {
    const auto plain = EncodingParameters::encodingParametersWithData(bytes({7}));
    plain->setCodec(0x61766331);
    plain->setQuality(0.25F);
    const auto record = KRVOperationBase::encodeVideoOperation("/a.mov", "/b.mov");
    record->arguments()->set(kArgumentEncodingVideoParameters, Value(Value::ObjectRef(plain)));

    const auto back = KRVOperationBase::operationFromData(std::make_shared<const Data>(record->convertToData()));
    ASSERT_TRUE(back);
    const auto found = std::dynamic_pointer_cast<const EncodingParameters>(
        (*back->arguments())[kArgumentEncodingVideoParameters].object());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->className(), "EncodingParameters");
    EXPECT_EQ(found->codec(), 0x61766331U);
    EXPECT_EQ(found->quality(), 0.25F);
    EXPECT_EQ(*found->settingsBlob(), *bytes({7}));
    // They are settings of neither kind of track.
    EXPECT_FALSE(back->encodingVideoParameters());
}

TEST(EncodingParameters, OnlyVideoArchivesAFrameRate) {
    const AudioEncodingParameters audio(std::shared_ptr<const Data>{});
    const VideoEncodingParameters video(std::shared_ptr<const Data>{});
    for (const std::string_view key : {"quality", "codec", "settingsBlob"}) {
        EXPECT_TRUE(stores(audio, key)) << key;
        EXPECT_TRUE(stores(video, key)) << key;
    }
    EXPECT_FALSE(stores(audio, "fps"));
    EXPECT_TRUE(stores(video, "fps"));
}

}  // namespace
}  // namespace krv
