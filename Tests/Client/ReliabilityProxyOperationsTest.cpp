// Each of the proxy's fourteen operations, one by one: what reaches the target, what comes back, and whether it is
// retried.
#include <algorithm>
#include <deque>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/ReliabilityDecision.h>
#include <KRVQTProcessClient/Client/ReliabilityProxy.h>
#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/Fakes/FakeRunLoop.h>
#include <KRVQTProcessClient/Transports/Fakes/ScriptedTransport.h>

namespace krv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class Observer final : public OperationProgress {
public:
    bool operation(const KRVOperationBase::Ref&, float) override { return true; }
};

/// What the operations are called with. Everything in it can be told apart.
struct Arguments {
    ProgressDelegate progress = std::make_shared<Observer>();
    VideoSettings video = VideoEncodingParameters::encodingParametersWithData(nullptr);
    AudioSettings audio = AudioEncodingParameters::encodingParametersWithData(nullptr);
    std::shared_ptr<const Error> error;
    ErrorOut errorOut = &error;
};

/// A target that notes each call and its arguments, and fails as often as a test says. Its decision is the client's.
class Target final : public KRVQTProcessOperations, public ReliabilityDecision {
public:
    explicit Target(const Arguments& expected)
        : expected_(expected) {}

    bool convertMovie(std::string_view source, std::string_view writeToFile, const VideoSettings& video,
                      const AudioSettings& audio, const ProgressDelegate& progress, ErrorOut error) override {
        return act(fmt::format("convertMovie {} {} {} {} {} {}", source, writeToFile,
                               video && video == expected_.video ? "video" : "null",
                               audio && audio == expected_.audio ? "audio" : "null", text(progress), text(error)),
                   error);
    }
    std::shared_ptr<const Dictionary> getMetadataFor(std::string_view movie, ErrorOut error) override {
        act(fmt::format("getMetadataFor {} {}", movie, text(error)), error);
        return std::make_shared<const Dictionary>(Dictionary{{"call", count()}});
    }
    Value getInterestingTimesForMovie(std::string_view movie, bool specificTrackIndex, std::int32_t trackIndex,
                                      ErrorOut error) override {
        act(fmt::format("getInterestingTimesForMovie {} {} {} {}", movie, specificTrackIndex, trackIndex, text(error)),
            error);
        return Value(count());
    }
    std::shared_ptr<KRVTransport> transport() const override {
        // The proxy also asks for it to judge a failure.
        if (notesTransport) {
            calls.emplace_back("transport");
            failIfScripted();
        }
        return transport_;
    }
    bool amIRegistered() override { return act("amIRegistered"); }
    bool isServerReadyToTakeRequests() override { return act("isServerReadyToTakeRequests"); }
    Array operationsPendingCompletion() override {
        act("operationsPendingCompletion");
        return {Value(count())};
    }
    void registerWithServer() override { act("registerWithServer"); }
    void unregisterFromServer() override { act("unregisterFromServer"); }
    bool queueShutdownOfCurrentServer() override { return act("queueShutdownOfCurrentServer"); }

    bool doesOperationNeedToBeReliable(const Invocation& invocation) const override {
        const auto methods = requiredMethods();
        return std::find(methods.begin(), methods.end(), invocation.selector) != methods.end();
    }

    mutable std::vector<std::string> calls;
    mutable int failures = 0;
    bool answer = true;
    bool notesTransport = false;
    std::shared_ptr<const Error> reports;

protected:
    bool performConvertMovie(std::string_view source, std::string_view writeToFile, std::int32_t type, bool flattenOnly,
                             const ProgressDelegate& progress, ErrorOut error) override {
        return act(fmt::format("convertMovie {} {} {} {} {} {}", source, writeToFile, type, flattenOnly, text(progress),
                               text(error)),
                   error);
    }
    bool performCreateThumbnails(std::string_view movie, std::string_view toFolder, Size withSize,
                                 const ProgressDelegate& progress, ErrorOut error) override {
        return act(fmt::format("createThumbnailsFor {} {} {}x{} {} {}", movie, toFolder, withSize.width,
                               withSize.height, text(progress), text(error)),
                   error);
    }
    bool performMuxMovie(std::string_view source, std::string_view writeToFile, const ProgressDelegate& progress,
                         ErrorOut error) override {
        return act(fmt::format("muxMovie {} {} {} {}", source, writeToFile, text(progress), text(error)), error);
    }
    bool performCancelAllOperations(ErrorOut error) override {
        return act(fmt::format("cancelAllOperations {}", text(error)), error);
    }

private:
    bool act(std::string call, ErrorOut error = nullptr) {
        calls.push_back(std::move(call));
        failIfScripted();
        if (error && reports) {
            *error = reports;
        }
        return answer;
    }
    void failIfScripted() const {
        if (failures > 0) {
            --failures;
            throw Exception(std::string(kHTTPServerNSURLConnectionError), "unreachable");
        }
    }
    [[nodiscard]] std::int64_t count() const { return static_cast<std::int64_t>(calls.size()); }
    [[nodiscard]] const char* text(const ProgressDelegate& progress) const {
        return !progress ? "null" : progress == expected_.progress ? "observer" : "another observer";
    }
    [[nodiscard]] const char* text(ErrorOut error) const {
        return !error ? "null" : error == expected_.errorOut ? "error" : "another error";
    }

    const Arguments& expected_;
    std::shared_ptr<ScriptedTransport> transport_ = std::make_shared<ScriptedTransport>();
};

/// One operation. Its results are texts, so that one table has them all.
struct OperationCase {
    const char* name;
    std::function<std::string(KRVQTProcessOperations&, const Arguments&)> call;
    /// The call that reaches the target.
    const char* arguments;
    /// The result of the target's first call.
    const char* result;
    /// The result if the target answers no; null if the result does not depend on that.
    const char* otherResult;
    bool isReliable;
    bool hasOutParameter;
};

std::ostream& operator<<(std::ostream& out, const OperationCase& each) {
    return out << each.name;
}

const char* yesOrNo(bool answer) {
    return answer ? "yes" : "no";
}

const std::vector<OperationCase>& everyOperation() {
    using Operations = KRVQTProcessOperations;
    static const std::vector<OperationCase> kCases{
        {"convertMovieToType",
         [](Operations& operations, const Arguments& with) {
             operations.convertMovie("/s", "/d", 4, true, with.progress, with.errorOut);
             return "";
         },
         "convertMovie /s /d 4 true observer error", "", nullptr, true, true},
        {"convertMovieWithSettings",
         [](Operations& operations, const Arguments& with) {
             return yesOrNo(operations.convertMovie("/s", "/d", with.video, with.audio, with.progress, with.errorOut));
         },
         "convertMovie /s /d video audio observer error", "yes", "no", true, true},
        {"createThumbnails",
         [](Operations& operations, const Arguments& with) {
             operations.createThumbnailsFor("/s", "/f", {160, 90}, with.progress, with.errorOut);
             return "";
         },
         "createThumbnailsFor /s /f 160x90 observer error", "", nullptr, true, true},
        {"getMetadata",
         [](Operations& operations, const Arguments& with) {
             return (*operations.getMetadataFor("/s", with.errorOut))["call"].description();
         },
         "getMetadataFor /s error", "1", nullptr, true, true},
        {"muxMovie",
         [](Operations& operations, const Arguments& with) {
             operations.muxMovie("/s", "/d", with.progress, with.errorOut);
             return "";
         },
         "muxMovie /s /d observer error", "", nullptr, true, true},
        {"getInterestingTimesOfATrack",
         [](Operations& operations, const Arguments& with) {
             return operations.getInterestingTimesForMovie("/s", true, 7, with.errorOut).description();
         },
         "getInterestingTimesForMovie /s true 7 error", "1", nullptr, true, true},
        {"getInterestingTimes",
         [](Operations& operations, const Arguments& with) {
             return operations.getInterestingTimesForMovie("/s", false, 0, with.errorOut).description();
         },
         "getInterestingTimesForMovie /s false 0 error", "1", nullptr, true, true},
        {"transport", [](Operations& operations, const Arguments&) { return operations.transport()->description(); },
         "transport", "<ScriptedTransport>", nullptr, false, false},
        {"amIRegistered", [](Operations& operations, const Arguments&) { return yesOrNo(operations.amIRegistered()); },
         "amIRegistered", "yes", "no", false, false},
        {"isServerReady",
         [](Operations& operations, const Arguments&) { return yesOrNo(operations.isServerReadyToTakeRequests()); },
         "isServerReadyToTakeRequests", "yes", "no", false, false},
        {"operationsPendingCompletion",
         [](Operations& operations, const Arguments&) {
             return Value(operations.operationsPendingCompletion()).description();
         },
         "operationsPendingCompletion", "(\n    1\n)", nullptr, false, false},
        {"cancelAllOperations",
         [](Operations& operations, const Arguments& with) {
             operations.cancelAllOperations(with.errorOut);
             return "";
         },
         "cancelAllOperations error", "", nullptr, false, true},
        {"registerWithServer",
         [](Operations& operations, const Arguments&) {
             operations.registerWithServer();
             return "";
         },
         "registerWithServer", "", nullptr, false, false},
        {"unregisterFromServer",
         [](Operations& operations, const Arguments&) {
             operations.unregisterFromServer();
             return "";
         },
         "unregisterFromServer", "", nullptr, false, false},
        {"queueShutdown",
         [](Operations& operations, const Arguments&) { return yesOrNo(operations.queueShutdownOfCurrentServer()); },
         "queueShutdownOfCurrentServer", "yes", "no", false, false},
    };
    return kCases;
}

class ProxyOperation : public testing::TestWithParam<OperationCase> {
protected:
    ProxyOperation() { target->notesTransport = GetParam().name == std::string_view("transport"); }
    std::string call() { return GetParam().call(*proxy, arguments); }

    FakeClock clock;
    FakeRunLoop loop{clock};
    RunLoop::Replacement replacement{loop};
    Arguments arguments;
    std::shared_ptr<Target> target = std::make_shared<Target>(arguments);
    std::shared_ptr<ReliabilityProxy> proxy = ReliabilityProxy::proxyForOperations(target, clock);
};

TEST_P(ProxyOperation, PassesItsArgumentsAndItsResultOn) {
    EXPECT_EQ(call(), GetParam().result);
    EXPECT_THAT(target->calls, ElementsAre(GetParam().arguments));
    if (GetParam().otherResult) {
        target->answer = false;
        EXPECT_EQ(call(), GetParam().otherResult);
    }
    EXPECT_EQ(arguments.error, nullptr);
}

TEST_P(ProxyOperation, PassesItsOutParameterOn) {
    target->reports = std::make_shared<const Error>("Test", 7);
    (void)call();
    EXPECT_EQ(arguments.error, GetParam().hasOutParameter ? target->reports : nullptr);
    arguments.errorOut = nullptr;
    (void)call();
    ASSERT_THAT(target->calls, SizeIs(2));
    EXPECT_EQ(target->calls[1].ends_with("null"), GetParam().hasOutParameter);
}

TEST_P(ProxyOperation, IsRetriedWithTheSameArgumentsOrNotAtAll) {
    target->failures = 1;
    if (GetParam().isReliable) {
        const std::string result = GetParam().result;
        EXPECT_EQ(call(), result == "1" ? "2" : result);  // that of the second call
        EXPECT_THAT(target->calls, ElementsAre(GetParam().arguments, GetParam().arguments));
    } else {
        try {
            (void)call();
            ADD_FAILURE() << "nothing was raised";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), kHTTPServerNSURLConnectionError);
            EXPECT_EQ(exception.reason(), "unreachable");
        }
        EXPECT_THAT(target->calls, ElementsAre(GetParam().arguments));
    }
    EXPECT_THAT(clock.sleeps(), IsEmpty());
}

TEST_P(ProxyOperation, FailsAtOnceWithoutATarget) {
    proxy->clearTarget();
    try {
        (void)call();
        ADD_FAILURE() << "nothing was raised";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
    }
    EXPECT_THAT(target->calls, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, ProxyOperation, testing::ValuesIn(everyOperation()),
                         [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace krv
