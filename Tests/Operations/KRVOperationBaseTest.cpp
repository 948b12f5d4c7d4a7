#include <limits>

#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

using Ref = KRVOperationBase::Ref;

std::shared_ptr<const Error> someError() {
    return Error::make("KRVQuicktimeProcess", 4, {{NSLocalizedDescriptionKey, "broken"}});
}

TEST(KRVOperationBase, ANewRecordContainsOnlyTheProcessId) {
    const KRVOperationBase record;
    EXPECT_EQ(record.operationType(), 0);
    EXPECT_EQ(record.uniqueID(), std::nullopt);
    EXPECT_EQ(record.error(), nullptr);
    EXPECT_EQ(record.progress(), 0.0F);
    EXPECT_FALSE(record.completed());
    EXPECT_FALSE(record.cancelled());
    EXPECT_FALSE(record.isClientRegistered());
    EXPECT_EQ(record.progressDelegate(), nullptr);
    EXPECT_EQ(*record.testInfo(), TestOpInfo{});
    ASSERT_TRUE(record.result());
    EXPECT_TRUE(record.result()->empty());
    EXPECT_EQ(record.result()->mutability(), Dictionary::Mutability::Immutable);
    ASSERT_EQ(record.arguments()->size(), 1U);
    EXPECT_EQ(record.arguments()->mutability(), Dictionary::Mutability::Mutable);
    EXPECT_EQ(record.regInfoPID(), Value(std::int64_t{::getpid()}));
    EXPECT_EQ((*record.arguments())["pidRegInfoPID"], Value(std::int64_t{::getpid()}));
}

struct TypeCase {
    std::uint32_t value;
    Ref record;
    const char* name;
    Dictionary expected;
    std::optional<std::string> uniqueID;
};

std::vector<TypeCase> everyType() {
    const auto audio = AudioEncodingParameters::encodingParametersWithData(nullptr);
    const auto video = VideoEncodingParameters::encodingParametersWithData(nullptr);
    const Array sources{"/a", "/b"};
    using R = KRVOperationBase;
    return {
        {1, R::numberOfOperationsOperation(), "Number of operations queued", {}, {}},
        {2, R::readyToProcessRequestOperation(), "Ready to process requests", {}, {}},
        {3, R::registerWithServerOperation(), "Register with server", {}, {}},
        {4, R::unregisterFromServerOperation(), "Unregister from server", {}, {}},
        {5, R::amIRegisteredOperation(), "Is this ClientID registered with server", {}, {}},
        {6,
         R::encodeVideoOperation("/s", "/d"),
         "Encode video",
         {{"encodingSourceFilename", "/s"}, {"encodingDestinationFilename", "/d"}},
         {}},
        {6,
         R::encodeVideoOperation("/s", "/d", audio, video),
         "Encode video",
         {{"encodingSourceFilename", "/s"},
          {"encodingDestinationFilename", "/d"},
          {"encodingAudioParams", Value::ObjectRef(audio)},
          {"encodingVideoParams", Value::ObjectRef(video)},
          {"encodingType", 3},
          {"encodingFlattenOnly", false}},
         {}},
        {6,
         R::encodeVideoOperation("/s", "/d", nullptr, nullptr),
         "Encode video",
         {{"encodingSourceFilename", "/s"},
          {"encodingDestinationFilename", "/d"},
          {"encodingType", 3},
          {"encodingFlattenOnly", false}},
         {}},
        {7,
         R::createThumbnailsForVideo("/s", "/f", {160, 120}),
         "Create thumbnails",
         {{"encodingSourceFilename", "/s"},
          {"encodingDestinationFilename", "/f"},
          {"thumbnailInfoSize", Size{160, 120}}},
         {}},
        {8, R::provideMetadataFor("/s"), "Get poster frame and metadata", {{"encodingSourceFilename", "/s"}}, {}},
        {9,
         R::muxAudioTo2chOperation("/s", "/d"),
         "Mux movie audio to 2ch",
         {{"encodingSourceFilename", "/s"}, {"encodingDestinationFilename", "/d"}},
         {}},
        {10,
         R::mergeSourcesOperation(Value(sources), "/d", true),
         "Merge multiple video sources to single movie",
         {{"videoMergeSources", Value(sources)},
          {"videoMergeSourcesUseShortest", true},
          {"encodingDestinationFilename", "/d"}},
         {}},
        {11,
         R::getInterestingTimesOperation("/s", true, 2),
         "Get Interesting Times",
         {{"encodingSourceFilename", "/s"}, {"trackIndex", 2}},
         {}},
        {11,
         R::getInterestingTimesOperation("/s", false, 7),
         "Get Interesting Times",
         {{"encodingSourceFilename", "/s"}},
         {}},
        {12, R::cancelOperation("id"), "Cancel operation", {}, "id"},
        {13, R::cancelAllOperationsOperation(), "Cancel all operations", {}, {}},
        {14, R::progressAndCompletionOperation("id"), "Progress / Completion", {}, "id"},
        {15, R::returnResultForOperation("id"), "Return operation result", {}, "id"},
        {16, R::removeReturnResultForOperation("id"), "Remove return operation result", {}, "id"},
        {17, R::shutdownCommand(), "Shutdown Server", {}, {}},
        {0xDEADBEEF, R::httpServerTestingOperation(), "HTTP Server Testing", {}, {}},
    };
}

TEST(KRVOperationBase, EachFactoryStoresItsTypeItsArgumentsAndTheProcessId) {
    for (TypeCase& each : everyType()) {
        SCOPED_TRACE(each.name);
        EXPECT_EQ(static_cast<std::uint32_t>(each.record->operationType()), each.value);
        EXPECT_EQ(each.record->nameFromType(), each.name);
        EXPECT_EQ(each.record->operationName(), '"' + std::string(each.name) + '"');
        EXPECT_EQ(each.record->uniqueID(), each.uniqueID);
        each.expected.set("pidRegInfoPID", std::int64_t{::getpid()});
        EXPECT_EQ(*each.record->arguments(), each.expected);
        EXPECT_EQ(each.record->result()->size(), 0U);
    }
}

TEST(KRVOperationBase, TheTableHasEachTypeWithItsFactory) {
    const std::vector<std::pair<std::uint32_t, std::string_view>> expected{
        {1, "numberOfOperationsOperation"},
        {2, "readyToProcessRequestOperation"},
        {3, "registerWithServerOperation"},
        {4, "unregisterFromServerOperation"},
        {5, "amIRegisteredOperation"},
        {6, "encodeVideoOperation:dest:"},
        {7, "createThumbnailsForVideo:toFolder:withSize:"},
        {8, "provideMetadataFor:"},
        {9, "muxAudioTo2chOperation:dest:"},
        {10, "mergeSourcesOperation:dest:useShortestTrack:"},
        {11, "getInterestingTimesOperation:specificTrack:trackIndex:"},
        {12, "cancelOperation:"},
        {13, "cancelAllOperationsOperation"},
        {14, "progressAndCompletionOperation:"},
        {15, "returnResultForOperation:"},
        {16, "removeReturnResultForOperation:"},
        {17, "shutdownCommand"},
        {0xDEADBEEF, "httpServerTestingOperation"},
    };
    std::vector<std::pair<std::uint32_t, std::string_view>> rows;
    for (const OperationTypeInfo& row : operationTypes()) {
        rows.emplace_back(static_cast<std::uint32_t>(row.type), row.factory);
        EXPECT_EQ(operationTypeInfo(row.type), &row);
    }
    EXPECT_EQ(rows, expected);
    for (const std::int32_t none : {0, -1, 18}) {
        EXPECT_EQ(operationTypeInfo(none), nullptr) << none;
    }
}

TEST(KRVOperationBase, AnUnknownTypeIsNamedByItsUnsignedNumber) {
    KRVOperationBase record;
    EXPECT_EQ(record.nameFromType(), "Unknown operation name for type: 0");
    record.setOperationType(-1);
    EXPECT_EQ(record.nameFromType(), "Unknown operation name for type: 4294967295");
    EXPECT_EQ(record.operationStateDescription(), "");
    record.setOperationType(18);
    EXPECT_EQ(record.nameFromType(), "Unknown operation name for type: 18");
}

TEST(KRVOperationBase, TheSelfTestCompletesAfterThreeSeconds) {
    const auto record = KRVOperationBase::httpServerTestingOperation();
    EXPECT_EQ(*record->testInfo(), (TestOpInfo{0, 1, 0, 0, 3}));
    record->testInfo()->shouldThrow = 1;
    EXPECT_EQ(record->testInfo()->shouldThrow, 1);
}

TEST(KRVOperationBase, TheStateDescriptionShowsTheMainArguments) {
    using R = KRVOperationBase;
    const auto pid = std::to_string(::getpid());
    EXPECT_EQ(R::registerWithServerOperation()->operationStateDescription(), "Client PID: " + pid);
    EXPECT_EQ(R::unregisterFromServerOperation()->operationStateDescription(), "Client PID: " + pid);
    EXPECT_EQ(R::amIRegisteredOperation()->operationStateDescription(), "");
    EXPECT_EQ(R::encodeVideoOperation("/s", "/d")->operationStateDescription(), "File: /s -> /d, Type: Original");
    EXPECT_EQ(R::encodeVideoOperation("/s", "/d", nullptr, nullptr)->operationStateDescription(),
              "File: /s -> /d, Type: Custom");
    EXPECT_EQ(R::createThumbnailsForVideo("/s", "/d", {})->operationStateDescription(), "File: /s");
    EXPECT_EQ(R::provideMetadataFor("/s")->operationStateDescription(), "File: /s");
    EXPECT_EQ(R::muxAudioTo2chOperation("/s", "/d")->operationStateDescription(), "File: /s");
    EXPECT_EQ(R::getInterestingTimesOperation("/s", false, 0)->operationStateDescription(), "File: /s");
    EXPECT_EQ(R::mergeSourcesOperation(Value(Array{"/a"}), "/d", false)->operationStateDescription(),
              "Merge (\n    \"/a\"\n) -> /d");
    EXPECT_EQ(R::cancelOperation("x")->operationStateDescription(), "");
    EXPECT_EQ(R::shutdownCommand()->operationStateDescription(), "");
}

TEST(KRVOperationBase, AMissingArgumentPrintsAsNull) {
    KRVOperationBase record;
    record.setOperationType(OpEncodeVideo);
    EXPECT_EQ(record.operationStateDescription(), "File: (null) -> (null), Type: Original");
    record.setRegInfoPID(Value());
    record.setOperationType(OpRegisterWithServer);
    EXPECT_EQ(record.operationStateDescription(), "Client PID: (null)");
}

TEST(KRVOperationBase, DescribesItselfWithNameIdentifierAndState) {
    const auto record = KRVOperationBase::provideMetadataFor("/s");
    EXPECT_EQ(record->description(), "KRVOperationBase, \"Get poster frame and metadata\", id:(null). File: /s");
    record->setUniqueID("u");
    EXPECT_EQ(record->description(), "KRVOperationBase, \"Get poster frame and metadata\", id:u. File: /s");
}

TEST(KRVOperationBase, ViewsReadTheArgumentsOnly) {
    KRVOperationBase record;
    EXPECT_EQ(record.encodingSourceFilename(), std::nullopt);
    EXPECT_EQ(record.encodingDestinationFilename(), std::nullopt);
    EXPECT_EQ(record.encodingVideoParameters(), nullptr);
    EXPECT_EQ(record.encodingAudioParameters(), nullptr);
    EXPECT_EQ(record.encodingType(), 0);
    EXPECT_FALSE(record.encodingFlattenOnly());
    EXPECT_EQ(record.thumbnailInfoSize(), (Size{0, 0}));
    EXPECT_TRUE(record.numOpsNumberOfOperations().isNull());
    EXPECT_EQ(record.numOpsNames(), nullptr);
    EXPECT_EQ(record.metadata(), nullptr);

    record.setResult(std::make_shared<Dictionary>(Dictionary{{"encodingType", 5}, {"encodingSourceFilename", "/r"}}));
    EXPECT_EQ(record.encodingType(), 0);
    EXPECT_EQ(record.encodingSourceFilename(), std::nullopt);

    const auto video = VideoEncodingParameters::encodingParametersWithData(nullptr);
    const auto audio = AudioEncodingParameters::encodingParametersWithData(nullptr);
    record.arguments()->set("encodingSourceFilename", "/s");
    record.arguments()->set("encodingDestinationFilename", "/d");
    record.arguments()->set("encodingVideoParams", Value::ObjectRef(video));
    record.arguments()->set("encodingAudioParams", Value::ObjectRef(audio));
    record.arguments()->set("encodingType", 5);
    record.arguments()->set("encodingFlattenOnly", true);
    record.arguments()->set("thumbnailInfoSize", Size{160, 90});
    EXPECT_EQ(record.encodingSourceFilename(), "/s");
    EXPECT_EQ(record.encodingDestinationFilename(), "/d");
    EXPECT_EQ(record.encodingVideoParameters(), video);
    EXPECT_EQ(record.encodingAudioParameters(), audio);
    EXPECT_EQ(record.encodingType(), 5);
    EXPECT_TRUE(record.encodingFlattenOnly());
    EXPECT_EQ(record.thumbnailInfoSize(), (Size{160, 90}));

    record.arguments()->set("numOpsNumberOnServer", 2);
    record.arguments()->set("numOpsNames", Array{"a", "b"});
    record.setMetadata(std::make_shared<const Dictionary>(Dictionary{{"metadataCodec", "H.264"}}));
    record.setRegInfoPID(77);
    EXPECT_EQ(record.numOpsNumberOfOperations(), Value(2));
    ASSERT_TRUE(record.numOpsNames());
    EXPECT_EQ(record.numOpsNames()->size(), 2U);
    EXPECT_EQ((*record.metadata())["metadataCodec"], Value("H.264"));
    EXPECT_EQ(record.regInfoPID(), Value(77));
    EXPECT_EQ((*record.arguments())["movieInfoMetadata"], Value(record.metadata()));
}

TEST(KRVOperationBase, WithoutArgumentsViewsAreEmptyAndSettersDoNothing) {
    KRVOperationBase record;
    record.setArguments(nullptr);
    record.setRegInfoPID(77);
    EXPECT_TRUE(record.regInfoPID().isNull());
    EXPECT_EQ(record.encodingType(), 0);
    EXPECT_EQ(record.arguments(), nullptr);
}

TEST(KRVOperationBase, CopyFromTakesTheReplyAndKeepsTheRequestsOwnFields) {
    const auto request = KRVOperationBase::encodeVideoOperation("/s", "/d");
    request->testInfo()->timeToLive = 9;
    const auto reply = std::make_shared<KRVOperationBase>();
    reply->setError(someError());
    reply->setUniqueID("u");
    reply->setProgress(0.25F, true);
    reply->clientIsRegisteredWithServer();
    reply->setOperationType(OpShutdownServer);
    reply->setResult(std::make_shared<Dictionary>(Dictionary(Dictionary::Mutability::Immutable)));
    reply->arguments()->set("extra", 1);
    request->copyFrom(reply);

    EXPECT_EQ(request->operationType(), OpEncodeVideo);
    EXPECT_EQ(request->testInfo()->timeToLive, 9);
    EXPECT_EQ(request->error(), reply->error());
    EXPECT_EQ(request->uniqueID(), "u");
    EXPECT_EQ(request->progress(), 0.25F);
    EXPECT_TRUE(request->completed());
    EXPECT_TRUE(request->isClientRegistered());
    EXPECT_EQ(request->result()->mutability(), Dictionary::Mutability::Mutable);
    EXPECT_NE(request->result(), reply->result());
    EXPECT_EQ(*request->arguments(), *reply->arguments());
    EXPECT_NE(request->arguments(), reply->arguments());
}

TEST(KRVOperationBase, CopyFromKeepsResultAndArgumentsThatTheReplyLacks) {
    KRVOperationBase request;
    request.setResult(std::make_shared<Dictionary>(Dictionary{{"own", 1}}));
    const auto reply = std::make_shared<KRVOperationBase>();
    reply->setResult(nullptr);
    reply->setArguments(nullptr);
    request.copyFrom(reply);
    EXPECT_EQ((*request.result())["own"], Value(1));
    EXPECT_EQ(request.arguments()->size(), 1U);
}

TEST(KRVOperationBase, CopyFromNullClearsAllButDictionariesAndCancellation) {
    KRVOperationBase request;
    request.setError(someError());
    request.setUniqueID("u");
    request.setProgress(0.5F, true);
    request.setIsClientRegistered(true);
    request.setCancelled(true);
    request.setResult(std::make_shared<Dictionary>(Dictionary{{"own", 1}}));
    request.copyFrom(nullptr);
    EXPECT_EQ(request.error(), nullptr);
    EXPECT_EQ(request.uniqueID(), std::nullopt);
    EXPECT_EQ(request.progress(), 0.0F);
    EXPECT_FALSE(request.completed());
    EXPECT_FALSE(request.isClientRegistered());
    EXPECT_TRUE(request.cancelled());
    EXPECT_EQ(request.result()->size(), 1U);
    EXPECT_EQ(request.arguments()->size(), 1U);
}

TEST(KRVOperationBase, CopyProgressInfoTakesProgressErrorAndCompletionOnly) {
    KRVOperationBase request;
    request.setUniqueID("own");
    const auto reply = std::make_shared<KRVOperationBase>();
    reply->setUniqueID("other");
    reply->setError(someError());
    reply->setProgress(0.75F, true);
    reply->setIsClientRegistered(true);
    reply->setResult(std::make_shared<Dictionary>(Dictionary{{"r", 1}}));
    request.copyProgressInfoFrom(reply);
    EXPECT_EQ(request.uniqueID(), "own");
    EXPECT_EQ(request.error(), reply->error());
    EXPECT_EQ(request.progress(), 0.75F);
    EXPECT_TRUE(request.completed());
    EXPECT_FALSE(request.isClientRegistered());
    EXPECT_TRUE(request.result()->empty());

    request.copyProgressInfoFrom(nullptr);
    EXPECT_EQ(request.progress(), 0.75F);
    EXPECT_TRUE(request.completed());
}

TEST(KRVOperationBase, NoReplyEverClearsCancellation) {
    KRVOperationBase request;
    request.setCancelled(true);
    request.copyFrom(std::make_shared<KRVOperationBase>());
    EXPECT_TRUE(request.cancelled());
    request.copyProgressInfoFrom(std::make_shared<KRVOperationBase>());
    EXPECT_TRUE(request.cancelled());

    KRVOperationBase other;
    const auto reply = std::make_shared<KRVOperationBase>();
    reply->setCancelled(true);
    other.copyProgressInfoFrom(reply);
    EXPECT_TRUE(other.cancelled());

    KRVOperationBase another;
    another.copyFrom(reply);
    EXPECT_TRUE(another.cancelled());
}

TEST(KRVOperationBase, AReplyClearsWhatItDoesNotReport) {
    KRVOperationBase request;
    request.setError(someError());
    request.setProgress(0.5F, true);
    request.setIsClientRegistered(true);
    request.copyProgressInfoFrom(std::make_shared<KRVOperationBase>());
    EXPECT_EQ(request.error(), nullptr);
    EXPECT_EQ(request.progress(), 0.0F);
    EXPECT_FALSE(request.completed());
    EXPECT_TRUE(request.isClientRegistered());

    request.setError(someError());
    request.setUniqueID("u");
    request.setProgress(0.5F, true);
    request.copyFrom(std::make_shared<KRVOperationBase>());
    EXPECT_EQ(request.error(), nullptr);
    EXPECT_EQ(request.uniqueID(), std::nullopt);
    EXPECT_EQ(request.progress(), 0.0F);
    EXPECT_FALSE(request.completed());
    EXPECT_FALSE(request.isClientRegistered());
}

}  // namespace
}  // namespace krv
