// The fake server as applications meet it: found by discovery, and answering the shared client's calls.
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/TestKit/FakeServer.h>

#include "ChildProcess.h"
#include "FixedPort.h"
#include "TemporaryFolder.h"

namespace krv::test_kit {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Numbers final : public OperationProgress {
public:
    bool operation(const std::shared_ptr<KRVOperationBase>& /*record*/, float progress) override {
        seen.push_back(progress);
        return progress < stopAt;
    }
    std::vector<float> seen;
    /// The number at which to cancel.
    std::atomic<float> stopAt = 1;
};

class FakeServerTest : public testing::Test {
protected:
    /// Runs the body on a thread of its own, as applications do, while this one runs the main loop.
    static void work(const std::function<void(KRVQTProcessOperations&)>& body) {
        const auto client = KRVQuicktimeProcessClient::defaultClient();
        std::thread worker([&] {
            body(*client);
            RunLoop::main().stop();
        });
        RunLoop::main().run();
        worker.join();
    }
    /// Converts a movie. Returns "", "exception: ..." or the error's code.
    std::string convert() {
        std::string outcome;
        work([&](KRVQTProcessOperations& client) {
            std::shared_ptr<const Error> error;
            try {
                client.convertMovie("/in.mov", destination(), VideoConversion::H264, false, numbers, &error);
                outcome = error ? std::to_string(error->code()) : "";
            } catch (const Exception& exception) {
                outcome = "exception: " + exception.reason();
            }
            sentence = error ? error->localizedDescription() : "";
        });
        return outcome;
    }
    std::string destination() const { return (folder.path() / "out.mp4").string(); }
    bool destinationExists() const { return std::filesystem::exists(destination()); }

    const test::TemporaryFolder folder;
    const std::shared_ptr<Numbers> numbers = std::make_shared<Numbers>();
    std::string sentence;
};

std::string contentsOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST_F(FakeServerTest, ReportsEveryNumberAndWritesTheDestination) {
    const FakeServer server(R"({"operation": "convert", "progress": [0.25, 0.75], "write": "movie"})");
    EXPECT_EQ(convert(), "");
    EXPECT_THAT(numbers->seen, ElementsAre(0.25F, 0.75F));
    EXPECT_EQ(contentsOf(destination()), "movie");
}

TEST_F(FakeServerTest, KnowsTheRequestsThatHaveArrived) {
    const FakeServer server("");
    EXPECT_EQ(convert(), "");
    ASSERT_EQ(server.requestCount("convert"), 1U);
    for (const FakeServer::Request& request : server.requests()) {
        if (request.operation == "convert") {
            EXPECT_EQ(request.nth, 1U);
            EXPECT_EQ(request.source, "/in.mov");
            EXPECT_EQ(request.destination, destination());
            EXPECT_EQ(request.client, ::getpid());
        }
    }
    EXPECT_GE(server.requestCount("progress"), 2U);
    EXPECT_GT(server.port(), 0);
}

TEST_F(FakeServerTest, AServerThatDiesIsReplacedAndTheCallRepeated) {
    const FakeServer server(R"({"operation": "convert", "nth": 1, "do": "die", "progress": [0.2], "at": 0.4}
{"operation": "convert", "progress": [0.1]})");
    const pid_t first = server.pid();
    const int port = server.port();
    EXPECT_EQ(convert(), "");
    EXPECT_EQ(server.deaths(), 1U);
    EXPECT_EQ(server.requestCount("convert"), 2U);
    EXPECT_NE(server.pid(), first);
    EXPECT_EQ(server.port(), port);
    EXPECT_THAT(numbers->seen, ElementsAre(0.2F, 0.4F, 0.1F));
    EXPECT_TRUE(destinationExists());
}

TEST_F(FakeServerTest, AServerCanDieWithoutAResponse) {
    const FakeServer server(R"({"operation": "convert", "nth": 1, "do": "exit"})");
    EXPECT_EQ(convert(), "");
    EXPECT_EQ(server.deaths(), 1U);
    EXPECT_EQ(server.requestCount("convert"), 2U);
}

TEST_F(FakeServerTest, AServerThatIsNotReplacedIsMissed) {
    const FakeServer server("{\"operation\": \"convert\", \"do\": \"die\"}\n{\"restart\": false}");
    EXPECT_THAT(convert(), HasSubstr("couldn't be contacted"));
    EXPECT_EQ(server.pid(), 0);
    EXPECT_FALSE(destinationExists());
}

TEST_F(FakeServerTest, AServerCanBeKilled) {
    FakeServer server("");
    const pid_t first = server.pid();
    server.kill();
    EXPECT_NE(::kill(first, 0), 0);
    EXPECT_EQ(server.deaths(), 1U);
    EXPECT_EQ(convert(), "");
}

TEST_F(FakeServerTest, AnErrorOfTheRequestHasTheWordsOfTheRealServer) {
    const FakeServer server(R"({"operation": "convert", "do": "fail", "error": {"code": 5}})");
    EXPECT_EQ(convert(), "5");
    EXPECT_EQ(sentence, "Cannot convert in.mov: out.mp4 cannot be written because the disk is full.");
    EXPECT_FALSE(destinationExists());
}

TEST_F(FakeServerTest, AnErrorCanComeLaterAndInOtherWords) {
    const FakeServer server(R"({"operation": "convert", "do": "fail", "at": 0.5, "progress": [0.3],)"
                            R"( "error": {"code": 7, "sentence": "It broke.", "cause": "cause", "file": "/f"}})");
    std::shared_ptr<const Error> error;
    work([&](KRVQTProcessOperations& client) {
        client.convertMovie("/in.mov", destination(), VideoConversion::H264, false, numbers, &error);
    });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 7);
    EXPECT_EQ(error->localizedDescription(), "It broke.");
    EXPECT_EQ(error->localizedFailureReason(), "cause");
    EXPECT_EQ((*error->userInfo())[kErrorFilePath], Value("/f"));
    EXPECT_THAT(numbers->seen, ElementsAre(0.3F, 0.5F));
}

TEST_F(FakeServerTest, AnOperationCanBeForgotten) {
    const FakeServer server(R"({"operation": "convert", "do": "forget", "at": 0.5, "progress": []})");
    EXPECT_EQ(convert(), "2");
    EXPECT_THAT(numbers->seen, ElementsAre(0.5F));
}

TEST_F(FakeServerTest, AnOperationThatStallsCanBeCancelled) {
    const FakeServer server(R"({"operation": "convert", "do": "stall", "at": 0.25, "progress": []})");
    numbers->stopAt = 0.25F;
    EXPECT_EQ(convert(), "");
    EXPECT_EQ(server.requestCount("cancel"), 1U);
    EXPECT_FALSE(destinationExists());
}

TEST_F(FakeServerTest, AStalledNumberDoesNotChange) {
    const FakeServer server(R"({"operation": "convert", "do": "stall", "at": 0.25, "progress": []})");
    std::jthread canceller([&] {
        server.waitForRequests("progress", 3);
        numbers->stopAt = 0.0F;
    });
    EXPECT_EQ(convert(), "");
    EXPECT_GE(numbers->seen.size(), 2U);
    EXPECT_THAT(numbers->seen, testing::Each(0.25F));
}

TEST_F(FakeServerTest, ReportsThePositionsInTheQueueFirst) {
    const FakeServer server(R"({"operation": "convert", "queue": [2, 1], "progress": [0.5]})");
    KRVHTTPClientTransport transport(std::make_shared<test::FixedPort>(server.port()));
    const auto request = KRVOperationBase::encodeVideoOperation("/in.mov", destination());
    const auto reply = KRVOperationBase::operationFromData(transport.sendOperation(request));
    ASSERT_TRUE(reply);
    std::vector<Value> positions;
    for (int i = 0; i < 3; ++i) {
        const auto state = KRVOperationBase::operationFromData(
            transport.sendOperation(KRVOperationBase::progressAndCompletionOperation(reply->uniqueID())));
        ASSERT_TRUE(state);
        positions.push_back((*state->arguments())[kArgumentQueuePosition]);
    }
    EXPECT_THAT(positions, ElementsAre(Value(std::int64_t{2}), Value(std::int64_t{1}), Value()));
}

TEST_F(FakeServerTest, AnOperationWaitsAtAGateUntilItIsOpened) {
    FakeServer server(R"({"operation": "convert", "progress": [0.25], "gate": "end"})");
    std::jthread opener([&] {
        server.waitForRequests("progress", 3);
        EXPECT_FALSE(destinationExists());
        server.open("end");
    });
    EXPECT_EQ(convert(), "");
    EXPECT_GE(numbers->seen.size(), 2U);
    EXPECT_THAT(numbers->seen, testing::Each(0.25F));
    EXPECT_TRUE(destinationExists());
}

TEST_F(FakeServerTest, AGateThatNoRuleHasCannotBeOpened) {
    FakeServer server(R"({"operation": "convert", "gate": "end"})");
    EXPECT_THROW(server.open("start"), std::invalid_argument);
    EXPECT_NO_THROW(server.open("end"));
}

TEST_F(FakeServerTest, AFullQueueMakesTheClientTryAgain) {
    const FakeServer server(R"({"operation": "convert", "nth": 1, "do": "queueFull"})");
    EXPECT_EQ(convert(), "");
    EXPECT_EQ(server.requestCount("convert"), 2U);
}

TEST_F(FakeServerTest, GarbageIsNotARecord) {
    const FakeServer server(R"({"operation": "convert", "do": "garbage", "body": "\u0001\u0002 nonsense"})");
    EXPECT_NE(convert(), "");
    EXPECT_FALSE(destinationExists());
}

TEST_F(FakeServerTest, AStatusOfHTTPIsNotARecord) {
    const FakeServer server(R"({"operation": "convert", "do": "status", "status": 500})");
    EXPECT_NE(convert(), "");
    EXPECT_FALSE(destinationExists());
}

TEST_F(FakeServerTest, AConnectionCanBeDroppedDuringTheWork) {
    // A client repeats a request if its old connection was closed, so the second attempt is dropped, too.
    const FakeServer server(R"({"operation": "progress", "nth": [2, 3], "do": "drop"}
{"operation": "convert", "progress": [0.1, 0.2]})");
    EXPECT_EQ(convert(), "");
    EXPECT_EQ(server.requestCount("convert"), 2U);
    EXPECT_EQ(server.deaths(), 0U);
}

TEST_F(FakeServerTest, ADestinationThatCannotBeWrittenIsAnErrorToo) {
    const FakeServer server("");
    std::filesystem::create_directory(destination());
    EXPECT_EQ(convert(), "5");
}

TEST_F(FakeServerTest, DescribesAMovieAsTheScriptSays) {
    const FakeServer server(R"({"operation": "info", "nth": 2, "arguments": {"movieInfoMetadata":)"
                            R"( {"metadataCodec": "ProRes", "metadataDimensions": {"$size": [64, 48]}}}})");
    work([](KRVQTProcessOperations& client) {
        std::shared_ptr<const Error> error;
        const auto usual = client.getMetadataFor("/in.mov", &error);
        ASSERT_TRUE(usual);
        EXPECT_EQ((*usual)[kMediaMetadataCodec], Value("H.264, AAC"));
        EXPECT_EQ((*usual)[kMediaMetadataPath], Value("/in.mov"));
        const auto scripted = client.getMetadataFor("/in.mov", &error);
        ASSERT_TRUE(scripted);
        EXPECT_EQ((*scripted)[kMediaMetadataCodec], Value("ProRes"));
        EXPECT_EQ((*scripted)[kMediaMetadataDimensions], Value(Size{64, 48}));
    });
}

TEST_F(FakeServerTest, WritesThumbnails) {
    const FakeServer server("");
    const auto place = folder.path() / "pictures";
    work([&](KRVQTProcessOperations& client) {
        client.createThumbnailsFor("/in.mov", place.string(), Size{320, 240}, nullptr, nullptr);
    });
    EXPECT_TRUE(std::filesystem::exists(place / "thumbnail-0001.jpg"));
    EXPECT_TRUE(std::filesystem::exists(place / "thumbnail-0012.jpg"));
    EXPECT_FALSE(std::filesystem::exists(place / "thumbnail-0013.jpg"));
}

TEST_F(FakeServerTest, LivesInAFolderOfItsOwn) {
    const FakeServer server("");
    EXPECT_EQ(std::string(std::getenv("XDG_RUNTIME_DIR")), (FakeServer::folder() / "runtime").string());
    EXPECT_EQ(std::string(std::getenv("XDG_STATE_HOME")), (FakeServer::folder() / "state").string());
}

TEST_F(FakeServerTest, NoRealServerStartsBesideIt) {
    const auto statusOfRealServer = [] { return test::ChildProcess({KRV_SERVER}).wait(); };
    const FakeServer server("{\"operation\": \"convert\", \"do\": \"die\"}\n{\"restart\": false}");
    EXPECT_EQ(statusOfRealServer(), 0);
    KRVHTTPClientTransport transport(std::make_shared<test::FixedPort>(server.port()));
    EXPECT_THROW((void)transport.sendOperation(KRVOperationBase::encodeVideoOperation("/in.mov", destination())),
                 Exception);
    server.waitForDeaths(1);
    EXPECT_EQ(statusOfRealServer(), 0);
}

TEST_F(FakeServerTest, TheNextOneHasTheSamePort) {
    int port = 0;
    pid_t pid = 0;
    {
        const FakeServer server("");
        port = server.port();
        pid = server.pid();
        EXPECT_EQ(convert(), "");
    }
    EXPECT_NE(::kill(pid, 0), 0);
    const FakeServer next("");
    EXPECT_EQ(next.port(), port);
    EXPECT_EQ(convert(), "");
    EXPECT_EQ(next.requestCount("convert"), 1U);
}

TEST_F(FakeServerTest, ThereIsOneAtATime) {
    const FakeServer server("");
    EXPECT_THROW(FakeServer(""), std::logic_error);
}

TEST_F(FakeServerTest, AScriptThatCannotBePlayedIsRefusedWithItsLine) {
    try {
        const FakeServer server("{}\n{\"do\": \"sleep\"}");
        FAIL() << "the script was accepted";
    } catch (const std::invalid_argument& problem) {
        EXPECT_THAT(problem.what(), HasSubstr("line 2: the behaviour \"sleep\" is not one of"));
    }
    const FakeServer next("");
    EXPECT_GT(next.pid(), 0);
}

TEST_F(FakeServerTest, ASecondProgramForTheSameUserDoesNotStart) {
    const FakeServer server("");
    test::ChildProcess second({KRV_FAKE_SERVER_PROGRAM, folder.write("script", "")});
    EXPECT_THAT(second.readLine().value_or(""), HasSubstr("another media server serves this user"));
    EXPECT_EQ(second.wait(), 1);
}

TEST_F(FakeServerTest, APortThatIsTakenIsAFailure) {
    const std::string script = folder.write("script", "");
    // Each in a place of its own, so that only the port is in the way.
    const auto start = [&](const char* place, const char* port) {
        const std::string own = (folder.path() / place).string();
        std::filesystem::create_directory(own);
        std::filesystem::permissions(own, std::filesystem::perms::owner_all);
        return std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"env", "XDG_RUNTIME_DIR=" + own, "XDG_STATE_HOME=" + own, KRV_FAKE_SERVER_PROGRAM,
                                     "--until-eof", "--port", port, script});
    };
    const auto first = start("first", "0");
    const std::string listening = first->readLine().value_or("");
    const std::string key = "\"port\":";
    ASSERT_THAT(listening, HasSubstr(key));
    const int port = std::stoi(listening.substr(listening.find(key) + key.size()));
    const auto second = start("second", std::to_string(port).c_str());
    EXPECT_THAT(second->readLine().value_or(""), HasSubstr("cannot listen on port " + std::to_string(port)));
    EXPECT_EQ(second->wait(), 1);
}

TEST_F(FakeServerTest, AProgramThatDoesNotExistIsNamed) {
    try {
        const FakeServer server("", "/nonexistent/program");
        FAIL() << "it started";
    } catch (const std::runtime_error& problem) {
        EXPECT_THAT(problem.what(), HasSubstr("/nonexistent/program: No such file"));
    }
}

}  // namespace
}  // namespace krv::test_kit
