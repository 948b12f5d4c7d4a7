#include <algorithm>
#include <stdexcept>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/KRVQuicktimeProcessClient.h>
#include <KRVQTProcessClient/Logging/Fakes/LogRecorder.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeClock.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using R = KRVOperationBase;
using testing::ElementsAre;
using testing::StartsWith;

constexpr LinesOf kClientLines("Source/Client/KRVQuicktimeProcessClient");
constexpr LinesOf kApplicationLines("Source/Client/KRVQuicktimeProcessClient", "application");

class Observer : public OperationProgress {
public:
    bool operation(const R::Ref&, float) override {
        ++calls;
        return true;
    }
    int calls = 0;
};

class Client : public testing::Test {
protected:
    /// Scripts the reply in which the server accepts the operation under the identifier "u".
    void accepts() {
        const auto record = std::make_shared<R>();
        record->setUniqueID("u");
        transport->reply(record);
    }
    void reports(float progress, bool completed = false, std::shared_ptr<const Error> failure = nullptr) {
        const auto record = std::make_shared<R>();
        record->setProgress(progress, completed);
        record->setError(std::move(failure));
        transport->reply(record);
    }
    void completes() {
        accepts();
        reports(0.5F);
        reports(1.0F, true);
    }
    void serverFails() {
        accepts();
        reports(0.5F, false, serverError);
    }

    std::vector<std::int32_t> types() const { return transport->sentTypes(); }
    const R& first() const { return *transport->sent().at(0); }

    FakeClock clock;
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
    KRVQuicktimeProcessClient client{transport, clock};
    KRVQTProcessOperations& operations = client;
    std::shared_ptr<Observer> observer = std::make_shared<Observer>();
    std::shared_ptr<const Error> serverError = std::make_shared<const Error>("KRVQuicktimeProcess", 4);
    std::shared_ptr<const Error> error;
};

using V = std::vector<std::int32_t>;
constexpr auto kPoll = OpProgressAndCompletion;

TEST_F(Client, WaitsForAMinuteByDefault) {
    EXPECT_EQ(client.progressTimeoutDuration(), 60.0F);
    EXPECT_EQ(client.transport(), transport);
}

TEST_F(Client, ConvertsToAType) {
    completes();
    EXPECT_TRUE(client.convertMovie("/s", "/d", 1, true, observer, &error));
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(types(), (V{OpEncodeVideo, kPoll, kPoll}));
    EXPECT_EQ(first().encodingSourceFilename(), "/s");
    EXPECT_EQ(first().encodingDestinationFilename(), "/d");
    EXPECT_EQ((*first().arguments())["encodingType"], Value(1));
    EXPECT_EQ((*first().arguments())["encodingFlattenOnly"], Value(true));
    EXPECT_EQ(observer->calls, 1);
}

TEST_F(Client, ConvertsThroughTheInterfaceAsWell) {
    completes();
    operations.convertMovie("/s", "/d", 2, false, nullptr, &error);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ((*first().arguments())["encodingType"], Value(2));
    EXPECT_EQ((*first().arguments())["encodingFlattenOnly"], Value(false));
}

TEST_F(Client, ConvertsWithSettings) {
    completes();
    const auto video = VideoEncodingParameters::encodingParametersWithData(nullptr);
    video->setCodec(7);
    const auto audio = AudioEncodingParameters::encodingParametersWithData(nullptr);
    audio->setCodec(8);
    EXPECT_TRUE(operations.convertMovie("/s", "/d", video, audio, observer, &error));
    EXPECT_EQ(first().encodingType(), 3);
    EXPECT_EQ(first().encodingVideoParameters()->codec(), 7U);
    EXPECT_EQ(first().encodingAudioParameters()->codec(), 8U);
    EXPECT_EQ(observer->calls, 1);
}

TEST_F(Client, AConversionDoesNotAnswerForAnErrorThatWasThereBefore) {
    completes();
    error = serverError;
    EXPECT_TRUE(client.convertMovie("/s", "/d", 1, true, nullptr, &error));
    completes();
    EXPECT_TRUE(client.convertMovie("/s", "/d", nullptr, nullptr, nullptr, &error));
    EXPECT_EQ(error, serverError);
}

TEST_F(Client, AConversionReportsTheServersError) {
    serverFails();
    EXPECT_FALSE(client.convertMovie("/s", "/d", 1, false, nullptr, &error));
    EXPECT_EQ(*error, *serverError);
    error.reset();
    serverFails();
    EXPECT_FALSE(client.convertMovie("/s", "/d", nullptr, nullptr, nullptr, &error));
    EXPECT_EQ(*error, *serverError);
}

TEST_F(Client, AConversionWithoutAnOutParameterReturnsTrue) {
    serverFails();
    EXPECT_TRUE(client.convertMovie("/s", "/d", 1, false, nullptr, nullptr));
}

TEST_F(Client, ATransportFailureOfAConversionIsInTheErrorAlone) {
    transport->fail("cause");
    EXPECT_TRUE(client.convertMovie("/s", "/d", 1, false, nullptr, &error));
    EXPECT_EQ(error->domain(), "TransportInvocation");
    error.reset();
    transport->fail("cause");
    EXPECT_TRUE(client.convertMovie("/s", "/d", nullptr, nullptr, nullptr, &error));
    EXPECT_EQ(error->domain(), "TransportInvocation");
}

TEST_F(Client, ATransportFailureOfTheOthersIsInTheResultToo) {
    transport->fail("cause");
    EXPECT_FALSE(client.muxMovie("/s", "/d", nullptr, &error));
    EXPECT_EQ(error->localizedDescription(), "Unable to Mux movie audio to 2ch");
    error.reset();
    transport->fail("cause");
    EXPECT_FALSE(client.mergeSources(Value(Array{"/a"}), "/d", false, nullptr, &error));
    EXPECT_EQ(error->localizedDescription(), "Unable to Merge multiple video sources to single movie");
}

TEST_F(Client, AnErrorThatWasThereBeforeMakesTheOthersAnswerNo) {
    error = serverError;
    completes();
    EXPECT_FALSE(client.createThumbnailsFor("/s", "/f", {}, nullptr, &error));
    completes();
    EXPECT_FALSE(client.muxMovie("/s", "/d", nullptr, &error));
    completes();
    transport->reply(std::make_shared<R>());
    EXPECT_FALSE(client.mergeSources(Value(Array{"/a"}), "/d", false, nullptr, &error));
    transport->reply(std::make_shared<R>());
    EXPECT_FALSE(client.cancelAllOperations(&error));
    EXPECT_EQ(error, serverError);
    EXPECT_EQ(types().back(), OpCancelAllOperations);
}

TEST_F(Client, AStalledConversionReportsTheTimeout) {
    client.setProgressTimeoutDuration(1.0F);
    accepts();
    for (int poll = 0; poll < 4; ++poll) {
        reports(0);
    }
    EXPECT_FALSE(client.convertMovie("/s", "/d", 1, false, nullptr, &error));
    EXPECT_EQ(error->code(), 201);
}

TEST_F(Client, ThumbnailsDoNotReportTheServersError) {
    completes();
    EXPECT_TRUE(client.createThumbnailsFor("/s", "/f", {160, 120}, observer, &error));
    EXPECT_EQ(first().operationType(), OpCreateThumbnails);
    EXPECT_EQ(first().encodingSourceFilename(), "/s");
    EXPECT_EQ(first().encodingDestinationFilename(), "/f");
    EXPECT_EQ(first().thumbnailInfoSize(), (Size{160, 120}));
    EXPECT_EQ(observer->calls, 1);
    serverFails();
    EXPECT_TRUE(client.createThumbnailsFor("/s", "/f", {}, nullptr, &error));
    EXPECT_EQ(error, nullptr);
    transport->fail("cause");
    EXPECT_FALSE(client.createThumbnailsFor("/s", "/f", {}, nullptr, &error));
    EXPECT_EQ(error->domain(), "TransportInvocation");
}

TEST_F(Client, MuxReportsTheServersError) {
    completes();
    EXPECT_TRUE(client.muxMovie("/s", "/d", observer, &error));
    EXPECT_EQ(first().operationType(), OpMuxAudioTo2ch);
    EXPECT_EQ(first().encodingSourceFilename(), "/s");
    EXPECT_EQ(first().encodingDestinationFilename(), "/d");
    EXPECT_EQ(observer->calls, 1);
    serverFails();
    EXPECT_FALSE(client.muxMovie("/s", "/d", nullptr, &error));
    EXPECT_EQ(*error, *serverError);
}

TEST_F(Client, MergeRemovesTheServersResultAfterwards) {
    completes();
    transport->reply(std::make_shared<R>());
    EXPECT_TRUE(client.mergeSources(Value(Array{"/a", "/b"}), "/d", true, observer, &error));
    EXPECT_EQ(types(), (V{OpMergeSources, kPoll, kPoll, OpRemoveReturnResult}));
    EXPECT_EQ(transport->sent().back()->uniqueID(), "u");
    EXPECT_EQ((*first().arguments())["videoMergeSources"], Value(Array{"/a", "/b"}));
    EXPECT_EQ((*first().arguments())["videoMergeSourcesUseShortest"], Value(true));
    EXPECT_EQ(first().encodingDestinationFilename(), "/d");
    EXPECT_EQ(observer->calls, 1);
    serverFails();
    EXPECT_FALSE(client.mergeSources(Value(Array{"/a"}), "/d", false, nullptr, &error));
    EXPECT_EQ(*error, *serverError);
    EXPECT_EQ(types().back(), OpRemoveReturnResult);
    EXPECT_EQ((*transport->sent().at(4)->arguments())["videoMergeSourcesUseShortest"], Value(false));
}

TEST_F(Client, MergeAsksForTheRemovalAlsoWhenItHadNoReply) {
    transport->fail("cause").reply(std::make_shared<R>());
    EXPECT_FALSE(client.mergeSources(Value(Array{"/a"}), "/d", false, nullptr, &error));
    EXPECT_EQ(types(), (V{OpMergeSources, OpRemoveReturnResult}));
}

TEST_F(Client, WithoutAnOutParameterTheResultIsAlwaysTrue) {
    serverFails();
    EXPECT_TRUE(client.createThumbnailsFor("/s", "/f", {}, nullptr, nullptr));
    serverFails();
    EXPECT_TRUE(client.muxMovie("/s", "/d", nullptr, nullptr));
    serverFails();
    EXPECT_TRUE(client.mergeSources(Value(Array{}), "/d", false, nullptr, nullptr));
}

TEST_F(Client, MetadataComesFromTheArgumentsOfTheResult) {
    completes();
    const auto result = std::make_shared<R>();
    result->setMetadata(std::make_shared<const Dictionary>(Dictionary{{"metadataCodec", "H.264"}}));
    transport->reply(result);
    const auto metadata = operations.getMetadataFor("/s", &error);
    ASSERT_TRUE(metadata);
    EXPECT_EQ((*metadata)["metadataCodec"], Value("H.264"));
    EXPECT_EQ(types(), (V{OpProvideMetadata, kPoll, kPoll, OpReturnResult}));
    EXPECT_EQ(transport->sent().back()->uniqueID(), "u");
}

TEST_F(Client, FailedMetadataIsNullWithTheError) {
    transport->fail("cause");
    EXPECT_EQ(client.getMetadataFor("/s", &error), nullptr);
    EXPECT_EQ(error->domain(), "TransportInvocation");

    serverFails();
    EXPECT_EQ(client.getMetadataFor("/s", &error), nullptr);
    EXPECT_EQ(*error, *serverError);
    const auto sent = types();
    EXPECT_EQ(std::count(sent.begin(), sent.end(), OpReturnResult), 0);

    completes();
    const auto result = std::make_shared<R>();
    result->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 2));
    result->setMetadata(std::make_shared<const Dictionary>(Dictionary{{"metadataCodec", "H.264"}}));
    transport->reply(result);
    EXPECT_EQ(client.getMetadataFor("/s", &error), nullptr);
    EXPECT_EQ(error->code(), 2);

    serverFails();
    EXPECT_EQ(client.getMetadataFor("/s", nullptr), nullptr);
}

TEST_F(Client, AQueryWithoutAnOutParameterDropsTheTransportsFailure) {
    transport->fail("cause").fail("cause");
    EXPECT_EQ(client.getMetadataFor("/s", nullptr), nullptr);
    EXPECT_TRUE(client.getInterestingTimesForMovie("/s", false, 0, nullptr).isNull());
    EXPECT_EQ(types(), (V{OpProvideMetadata, OpGetInterestingTimes}));
}

TEST_F(Client, AQueryThatFailsHasNotAskedForItsResult) {
    transport->fail("cause");
    EXPECT_TRUE(client.getInterestingTimesForMovie("/s", false, 0, &error).isNull());
    EXPECT_EQ(error->domain(), "TransportInvocation");
    serverFails();
    EXPECT_TRUE(client.getInterestingTimesForMovie("/s", false, 0, &error).isNull());
    EXPECT_EQ(*error, *serverError);
    EXPECT_EQ(types(), (V{OpGetInterestingTimes, OpGetInterestingTimes, kPoll}));
}

TEST_F(Client, InterestingTimesComeFromTheResult) {
    completes();
    const auto result = std::make_shared<R>();
    result->setResult(std::make_shared<Dictionary>(
        Dictionary{{"interestingTimes", Dictionary{{"timescale", 600}, {"values", Array{0, 600}}}}}));
    transport->reply(result);
    const Value times = operations.getInterestingTimesForMovie("/s", true, 1, &error);
    ASSERT_TRUE(times.dictionary());
    EXPECT_EQ((*times.dictionary())["timescale"], Value(600));
    EXPECT_EQ((*first().arguments())["trackIndex"], Value(1));
    completes();
    transport->reply(result);
    EXPECT_EQ(operations.getInterestingTimesForMovie("/s", false, 1, &error), times);
    EXPECT_EQ(transport->sent().at(4)->operationType(), OpGetInterestingTimes);
    EXPECT_EQ((*transport->sent().at(4)->arguments())["trackIndex"], Value());
}

TEST_F(Client, AResultWithoutInterestingTimesIsNullWithoutAnError) {
    completes();
    transport->reply(std::make_shared<R>());
    EXPECT_TRUE(client.getInterestingTimesForMovie("/s", false, 0, &error).isNull());
    EXPECT_EQ(error, nullptr);
}

TEST_F(Client, FailedInterestingTimesAreNullWithTheError) {
    completes();
    const auto result = std::make_shared<R>();
    result->setError(std::make_shared<const Error>("KRVQuicktimeProcess", 2));
    result->setResult(std::make_shared<Dictionary>(Dictionary{{"interestingTimes", Dictionary{{"timescale", 600}}}}));
    transport->reply(result);
    EXPECT_TRUE(client.getInterestingTimesForMovie("/s", false, 0, &error).isNull());
    EXPECT_EQ(error->code(), 2);

    completes();
    transport->replyBytes("rubbish");
    error.reset();
    EXPECT_TRUE(client.getInterestingTimesForMovie("/s", false, 0, &error).isNull());
    EXPECT_EQ(error, nullptr);
}

TEST_F(Client, AnUnreachableResultIsLoggedWithTheMetadataTextAndThrows) {
    LogRecorder log;
    completes();
    transport->unreachable("gone");
    EXPECT_THROW((void)client.getInterestingTimesForMovie("/s", false, 0, &error), Exception);
    EXPECT_EQ(log.whole().back(),
              kClientLines.error("getResultOfOperation:error:", "Failed to make call to get metadata, gone"));
}

TEST_F(Client, GetResultReturnsARecordEvenWithAnError) {
    const auto record = std::make_shared<R>();
    record->setUniqueID("u");
    const auto result = std::make_shared<R>();
    result->setError(serverError);
    transport->reply(result);
    const auto got = client.getResultOfOperation(record, &error);
    ASSERT_TRUE(got);
    EXPECT_EQ(*error, *serverError);

    error.reset();
    transport->fail("cause");
    EXPECT_EQ(client.getResultOfOperation(record, &error), nullptr);
    EXPECT_EQ(error->domain(), "TransportInvocation");
    transport->fail("cause");
    EXPECT_EQ(client.getResultOfOperation(record, nullptr), nullptr);

    transport->reply(result);
    EXPECT_TRUE(client.getResultOfOperation(nullptr, nullptr));
    EXPECT_EQ(transport->sent().back()->uniqueID(), std::nullopt);
}

TEST_F(Client, AFailureToRemoveResultsIsLoggedInTheApplicationContext) {
    LogRecorder log;
    const auto record = R::provideMetadataFor("/s");
    record->setUniqueID("u");
    transport->fail("cause");
    client.removeResultsFromServer(record);
    transport->unreachable("gone");
    client.removeResultsFromServer(record);
    const std::string begin = kApplicationLines.error(
        "removeResultsFromServer:", "Couldn't remove results from server for " + record->description() + ", ");
    EXPECT_THAT(log.whole(),
                ElementsAre(StartsWith(begin + "Error Domain=TransportInvocation Code=0"), begin + "gone"));
    EXPECT_EQ(first().uniqueID(), "u");
}

TEST_F(Client, ReadinessIsAnyReply) {
    LogRecorder log;
    transport->replyBytes("anything").replyNothing().unreachable("gone").fail("cause");
    EXPECT_TRUE(operations.isServerReadyToTakeRequests());
    EXPECT_TRUE(operations.isServerReadyToTakeRequests());
    EXPECT_FALSE(operations.isServerReadyToTakeRequests());
    EXPECT_THAT(log.whole(),
                ElementsAre(kClientLines.error("isServerReadyToTakeRequests",
                                               "Error invoking 'isServerReadyToTakeRequests' operation: gone")));
    EXPECT_TRUE(operations.isServerReadyToTakeRequests());  // a mapped failure without an out-parameter is dropped
    EXPECT_EQ(first().operationType(), OpReadyToProcessRequests);
    transport->then([](const auto&) -> std::shared_ptr<const Data> { throw std::runtime_error("own"); });
    EXPECT_THROW((void)operations.isServerReadyToTakeRequests(), std::runtime_error);
}

TEST_F(Client, RegistrationIsTheFieldOfTheReply) {
    LogRecorder log;
    const auto yes = std::make_shared<R>();
    yes->clientIsRegisteredWithServer();
    transport->reply(yes).reply(std::make_shared<R>()).replyBytes("rubbish").unreachable("gone");
    EXPECT_TRUE(operations.amIRegistered());
    EXPECT_FALSE(operations.amIRegistered());
    EXPECT_FALSE(operations.amIRegistered());
    EXPECT_FALSE(operations.amIRegistered());
    EXPECT_THAT(log.whole(),
                ElementsAre(kClientLines.error("amIRegistered", "Error invoking 'amIRegistered:' operation: gone")));
    EXPECT_EQ(types(), (V(4, OpAmIRegistered)));
    transport->then([](const auto&) -> std::shared_ptr<const Data> { throw std::runtime_error("own"); });
    EXPECT_THROW((void)operations.amIRegistered(), std::runtime_error);
}

TEST_F(Client, RegisteringSendsTheProcessIdAndThrowsOnFailure) {
    transport->reply(std::make_shared<R>()).reply(std::make_shared<R>());
    operations.registerWithServer();
    operations.unregisterFromServer();
    EXPECT_EQ(types(), (V{OpRegisterWithServer, OpUnregisterFromServer}));
    EXPECT_EQ(first().regInfoPID(), Value(std::int64_t{::getpid()}));
    transport->replyNothing().replyBytes("rubbish").unreachable();
    EXPECT_THROW(operations.registerWithServer(), Exception);
    EXPECT_THROW(operations.unregisterFromServer(), Exception);
    EXPECT_THROW(operations.registerWithServer(), Exception);
}

TEST_F(Client, CancelAllReportsFailureAndThrowsOnAMissingReply) {
    transport->reply(std::make_shared<R>()).fail("cause").replyNothing().replyNothing();
    EXPECT_TRUE(client.cancelAllOperations(&error));
    EXPECT_FALSE(client.cancelAllOperations(&error));
    EXPECT_EQ(error->localizedDescription(), "Unable to Cancel all operations");
    error.reset();
    EXPECT_THROW(client.cancelAllOperations(&error), Exception);
    EXPECT_THROW(client.cancelAllOperations(nullptr), Exception);
}

TEST_F(Client, ShutdownFailureIsLoggedInTheApplicationContext) {
    LogRecorder log;
    transport->reply(std::make_shared<R>()).fail("cause").unreachable();
    EXPECT_TRUE(operations.queueShutdownOfCurrentServer());
    EXPECT_FALSE(operations.queueShutdownOfCurrentServer());
    EXPECT_THAT(log.whole(), ElementsAre(StartsWith(kApplicationLines.error(
                                 "queueShutdownOfCurrentServer", "Couldn't sent reques to shutdown server, Error "
                                                                 "Domain=TransportInvocation Code=0"))));
    EXPECT_EQ(types(), (V{OpShutdownServer, OpShutdownServer}));
    EXPECT_THROW((void)operations.queueShutdownOfCurrentServer(), Exception);
}

TEST_F(Client, PendingOperationsAreAlwaysEmptyWithoutARequest) {
    EXPECT_TRUE(operations.operationsPendingCompletion().empty());
    EXPECT_TRUE(types().empty());
}

TEST_F(Client, TheReliableOperationsAreThoseOfTheirInterface) {
    const auto reliable = [&](std::string_view name) {
        return client.doesOperationNeedToBeReliable({Selector(name), nullptr, nullptr});
    };
    EXPECT_TRUE(reliable("getMetadataFor:error:"));
    EXPECT_TRUE(reliable("convertMovie:writeToFile:type:flattenOnly:progress:error:"));
    EXPECT_TRUE(reliable("convertMovie:writeToFile:videoSettings:audioSettings:progress:error:"));
    EXPECT_TRUE(reliable("createThumbnailsFor:toFolder:withSize:progress:error:"));
    EXPECT_TRUE(reliable("muxMovie:writeToFile:progress:error:"));
    EXPECT_TRUE(reliable("getInterestingTimesForMovie:specificTrackIndex:trackIndex:error:"));
    EXPECT_FALSE(reliable("mergeSources:writeToFile:useShortestTrack:progress:error:"));
    EXPECT_FALSE(reliable("amIRegistered"));
    EXPECT_FALSE(reliable("description"));
    EXPECT_FALSE(reliable(""));
    EXPECT_FALSE(client.doesOperationNeedToBeReliable({std::nullopt, nullptr, nullptr}));
}

TEST_F(Client, CallsWithoutATransportGetNoReply) {
    client.setTransport(nullptr);
    EXPECT_FALSE(operations.amIRegistered());
    EXPECT_THROW(operations.registerWithServer(), Exception);
    EXPECT_THROW((void)client.getMetadataFor("/s", &error), Exception);
}

}  // namespace
}  // namespace krv
