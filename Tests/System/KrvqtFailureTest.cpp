// krvqt when the media server fails, dies or misbehaves. The server is played from a script.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/TestKit/FakeServer.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv::test {
namespace {

using test_kit::FakeServer;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class KrvqtFailure : public testing::Test {
protected:
    KrvqtFailure() { std::ofstream(source) << "what the fake server does not read"; }

    /// Returns the command line that converts the movie. messages: where the shell sends standard error.
    [[nodiscard]] std::vector<std::string> conversion(const std::string& messages = "&1") const {
        return {"sh", "-c", "exec \"$@\" 2>" + messages, "sh", KRV_KRVQT, "convert", source, destination};
    }
    /// Converts the movie. Returns krvqt's exit status and what it printed, messages included.
    [[nodiscard]] std::pair<int, std::string> convert() const {
        ChildProcess process(conversion());
        std::string text = process.readAll();
        return {process.wait(), text};
    }
    /// Returns krvqt's exit status and the object that it printed on standard output.
    [[nodiscard]] std::pair<int, nlohmann::json> convertToJSON() const {
        std::vector<std::string> arguments = conversion("/dev/null");
        arguments.emplace_back("--json");
        ChildProcess process(arguments);
        const std::string text = process.readAll();
        return {process.wait(), nlohmann::json::parse(text)};
    }

    TemporaryFolder folder;
    const std::string source = (folder.path() / "in.mov").string();
    const std::string destination = (folder.path() / "out.mp4").string();
};

TEST_F(KrvqtFailure, IsNamedByItsKindAndHasAnExitStatus) {
    // The fake server plays a full disk for code 5.
    const std::map<int, std::string> kinds{{3, "SourceMissing"}, {4, "NotMedia"},   {5, "NoSpace"},
                                           {6, "Unsupported"},   {7, "WorkerDied"}, {9, "BadArgument"},
                                           {10, "Destination"}};
    for (const auto& [code, kind] : kinds) {
        const FakeServer server(fmt::format(
            R"({{"operation": "convert", "do": "fail", "error": {{"code": {}, "sentence": "No.", "cause": "why"}}}})",
            code));
        const auto [status, printed] = convertToJSON();
        EXPECT_EQ(status, 1) << code;
        EXPECT_EQ(printed["error"]["kind"], kind);
        EXPECT_EQ(printed["error"]["code"], code);
        EXPECT_EQ(printed["error"]["description"], "No.");
        EXPECT_EQ(printed["error"]["reason"], "why");
        EXPECT_FALSE(std::filesystem::exists(destination));
    }
}

TEST_F(KrvqtFailure, IsPrintedForAPerson) {
    const FakeServer server(
        R"({"do": "fail", "at": 0.4, "error": {"code": 7, "sentence": "It was too much.", "cause": "out of memory"}})");
    const auto [status, text] = convert();
    EXPECT_EQ(status, 1);
    EXPECT_THAT(text, AllOf(HasSubstr("krvqt: It was too much."), HasSubstr("cause: out of memory")));
}

TEST_F(KrvqtFailure, OfAServerThatDiesIsMendedByAnotherServer) {
    const FakeServer server(R"({"operation": "convert", "nth": 1, "do": "die", "at": 0.4})");
    const auto [status, text] = convert();
    EXPECT_EQ(status, 0) << text;
    EXPECT_EQ(server.deaths(), 1U);
    EXPECT_THAT(text, HasSubstr("the media server was lost"));
    EXPECT_TRUE(std::filesystem::exists(destination));
}

TEST_F(KrvqtFailure, OfServersThatAllDieIsAServerThatCannotBeReached) {
    const FakeServer server(R"({"operation": "convert", "do": "die", "at": 0.4})"
                            "\n"
                            R"({"restart": 50})");
    const auto [status, printed] = convertToJSON();
    EXPECT_EQ(status, 3);
    EXPECT_EQ(printed["error"]["kind"], "ServerLost");
    EXPECT_EQ(server.requestCount("convert"), 3U);
    EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST_F(KrvqtFailure, OfAFullQueueIsMendedByAskingAgain) {
    const FakeServer server(R"({"operation": "convert", "nth": [1, 2], "do": "queueFull"})");
    const auto [status, text] = convert();
    EXPECT_EQ(status, 0) << text;
    EXPECT_EQ(server.requestCount("convert"), 3U);
}

TEST_F(KrvqtFailure, OfAServerThatForgetsIsMendedByAskingAgain) {
    const FakeServer server(R"({"operation": "convert", "nth": 1, "do": "forget", "at": 0.4})");
    const auto [status, text] = convert();
    EXPECT_EQ(status, 0) << text;
    EXPECT_EQ(server.requestCount("convert"), 2U);
}

TEST_F(KrvqtFailure, OfAResponseThatIsNoRecordIsNotShownToAPerson) {
    const FakeServer server(R"({"operation": "convert", "do": "garbage", "body": "<html>gateway</html>"})");
    const auto [status, text] = convert();
    EXPECT_NE(status, 0);
    EXPECT_THAT(text, AllOf(HasSubstr("krvqt: "), Not(HasSubstr("<html>"))));
    EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST_F(KrvqtFailure, OfAServerThatHangsDoesNotKeepCtrlCFromEndingIt) {
    const FakeServer server(R"({"operation": "convert", "do": "hang"})");
    ChildProcess process(conversion());
    server.waitForRequests("convert", 1);
    process.signal(SIGINT);
    const std::string text = process.readAll();
    EXPECT_EQ(process.wait(), 130) << text;
    EXPECT_THAT(text, HasSubstr("cancelled"));
}

}  // namespace
}  // namespace krv::test
