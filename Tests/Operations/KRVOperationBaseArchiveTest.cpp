// The bytes of a record's archive, where another reader would notice the difference.
#include <algorithm>
#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/KeyedArchiver.h>
#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

#include "OutOfMemory.h"

namespace krv {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

std::string textOf(const Data& data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

/// Returns the marker and the length of a text in a property list.
std::string marked(const std::string& text) {
    return text.size() < 15 ? std::string(1, static_cast<char>(0x50 | text.size())) + text
                            : std::string("\x5F\x10", 2) + static_cast<char>(text.size()) + text;
}

/// Returns the keys that an archive has, in the order in which it stores them.
std::vector<std::string> inStoredOrder(const Archivable& object, std::vector<std::string> keys) {
    const std::string archive = textOf(KeyedArchiver::archivedData(object));
    std::erase_if(keys, [&](const std::string& key) { return archive.find(marked(key)) == std::string::npos; });
    std::sort(keys.begin(), keys.end(), [&](const std::string& a, const std::string& b) {
        return archive.find(marked(a)) < archive.find(marked(b));
    });
    return keys;
}

TEST(RecordArchive, StoresItsFourteenValuesInTheirOrder) {
    const std::vector<std::string> keys{"error",
                                        "uniqueID",
                                        "opType",
                                        "cancelled",
                                        "completed",
                                        "progress",
                                        "isClientRegistered",
                                        "testInfo.shouldError",
                                        "testInfo.shouldComplete",
                                        "testInfo.shouldThrow",
                                        "testInfo.shouldCrash",
                                        "testInfo.timeToLive",
                                        "result",
                                        "arguments"};
    std::vector<std::string> shuffled(keys.rbegin(), keys.rend());
    EXPECT_THAT(inStoredOrder(KRVOperationBase(), shuffled), ElementsAreArray(keys));
    KRVOperationBase record;
    record.setError(Error::make("D", 1, {}));
    record.setUniqueID("u");
    EXPECT_THAT(inStoredOrder(record, shuffled), ElementsAreArray(keys));
}

TEST(RecordArchive, StoresTheValuesOfParametersInTheirOrder) {
    const std::vector<std::string> shuffled{"fps", "codec", "settingsBlob", "quality"};
    const auto blob = std::make_shared<const Data>(Data(3, std::byte{7}));
    EXPECT_THAT(inStoredOrder(AudioEncodingParameters(blob), shuffled),
                ElementsAre("quality", "codec", "settingsBlob"));
    EXPECT_THAT(inStoredOrder(VideoEncodingParameters(blob), shuffled),
                ElementsAre("quality", "codec", "settingsBlob", "fps"));
}

TEST(RecordArchive, StoresAHighCodecAsANegativeNumber) {
    VideoEncodingParameters video(std::shared_ptr<const Data>{});
    video.setCodec(0xFFFFFFFF);
    const std::string archive = textOf(KeyedArchiver::archivedData(video));
    EXPECT_THAT(archive, HasSubstr("\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"));
    EXPECT_THAT(archive, Not(HasSubstr("\x12\xFF\xFF\xFF\xFF")));
}

TEST(RecordArchive, FlagsAndFieldsAreNotMixedUp) {
    const auto through = [](KRVOperationBase& record) {
        return KRVOperationBase::operationFromData(std::make_shared<const Data>(record.convertToData()));
    };
    KRVOperationBase cancelled;
    cancelled.setCancelled(true);
    EXPECT_TRUE(through(cancelled)->cancelled());
    EXPECT_FALSE(through(cancelled)->completed());
    KRVOperationBase registered;
    registered.clientIsRegisteredWithServer();
    registered.setProgress(0.25F);
    registered.setError(Error::make("D", 5, {}));
    EXPECT_TRUE(through(registered)->isClientRegistered());
    EXPECT_EQ(through(registered)->progress(), 0.25F);
    EXPECT_EQ(through(registered)->error()->code(), 5);
    EXPECT_FALSE(through(registered)->cancelled());
    for (int flag = 0; flag < 4; ++flag) {
        KRVOperationBase record;
        const auto only = [flag](int which) { return static_cast<std::int8_t>(flag == which ? 1 : 0); };
        *record.testInfo() = {only(0), only(1), only(2), only(3), -7};
        EXPECT_EQ(*through(record)->testInfo(), *record.testInfo()) << flag;
    }
    KRVOperationBase sent;
    sent.setRegInfoPID(4711);
    sent.setResult(std::make_shared<Dictionary>(Dictionary{{"r", 1}}));
    EXPECT_EQ(*through(sent)->arguments(), (Dictionary{{"pidRegInfoPID", 4711}}));
    EXPECT_EQ(*through(sent)->result(), (Dictionary{{"r", 1}}));
}

TEST(RecordArchive, BytesThatAreNoneGiveNoRecord) {
    EXPECT_EQ(KRVOperationBase::operationFromData(nullptr), nullptr);
    EXPECT_EQ(KRVOperationBase::operationFromData(std::make_shared<const Data>()), nullptr);
    EXPECT_EQ(KRVOperationBase::operationFromData(std::make_shared<const Data>(Data(100, std::byte{1}))), nullptr);
    EXPECT_EQ(KRVOperationBase::operationFromData(
                  std::make_shared<const Data>(KeyedArchiver::archivedData(Value("a string")))),
              nullptr);
}

TEST(RecordArchive, OnlyTheExceptionOfMalformedBytesIsSwallowed) {
    const auto data = std::make_shared<const Data>(KRVOperationBase::provideMetadataFor("/s")->convertToData());
    bool raised = false;
    {
        const test::OutOfMemory none;
        try {
            (void)KRVOperationBase::operationFromData(data);
        } catch (const std::bad_alloc&) {
            raised = true;
        }
    }
    EXPECT_TRUE(raised);
    EXPECT_TRUE(KRVOperationBase::operationFromData(data));
}

}  // namespace
}  // namespace krv
