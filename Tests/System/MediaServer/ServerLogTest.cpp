// What the real server logs about each operation.
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>

#include "ServerFixture.h"

namespace krv::server {
namespace {

class Log : public Server {
protected:
    /// Starts a server whose standard error is a file.
    void startLogging(const std::vector<std::string>& more) {
        start(more, {"sh", "-c", fmt::format("exec \"$@\" 2> '{}'", file()), "sh"});
    }
    std::string file() const { return (folder.path() / "log").string(); }
    /// Shuts the server down and returns its whole log.
    std::string read() {
        process->signal(SIGTERM);
        EXPECT_EQ(process->wait(), 0);
        std::ostringstream text;
        text << std::ifstream(file()).rdbuf();
        return text.str();
    }
    /// Returns the line about the operation with this source.
    static std::string lineAbout(const std::string& log, const std::string& source) {
        std::istringstream lines(log);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(source) != std::string::npos) {
                return line;
            }
        }
        return {};
    }
    static bool matches(const std::string& line, const std::string& end) {
        const std::string form = fmt::format(
            R"(.*Encode video for process {}: .*; waited (\d+\.\d\d) s, ran (\d+\.\d\d) s: {}.*)", ::getpid(), end);
        return std::regex_match(line, std::regex(form));
    }
};

TEST_F(Log, NamesClientOperationDurationAndResult) {
    startLogging({"-applicationLogLevel", "7"});
    const std::string empty = folder.write("empty.mov", "");
    const std::string lengthy = std::string(KRV_TEST_MEDIA) + "/long.mov";
    EXPECT_EQ(convert(movie(), out()), nullptr);
    EXPECT_EQ(convert("/missing/in.mov", out())->code(), 3);
    EXPECT_EQ(convert(empty, out())->code(), 4);
    observer->onProgress = [](const R&, float) { return false; };
    EXPECT_EQ(convert(lengthy, out("cancelled.mp4")), nullptr);
    const std::string log = read();
    EXPECT_TRUE(matches(lineAbout(log, movie()), "completed")) << log;
    EXPECT_TRUE(matches(lineAbout(log, "/missing/in.mov"), "No such file or directory")) << log;
    EXPECT_TRUE(matches(lineAbout(log, empty), "the file is empty")) << log;
    EXPECT_TRUE(matches(lineAbout(log, lengthy), "cancelled")) << log;
}

/// An operation that is still queued at shutdown has its line, too.
TEST_F(Log, LogsHowLongAnOperationThatNeverStartedHasWaited) {
    startLogging({"-applicationLogLevel", "7"});
    const std::string lengthy = std::string(KRV_TEST_MEDIA) + "/longer.mov";
    const int threads = status()["workers"];
    std::vector<std::optional<std::string>> ids;
    for (int i = 0; i < threads; ++i) {
        const auto name = fmt::format("long{}.mp4", i);
        ids.push_back(ask(R::encodeVideoOperation(lengthy, out(name.c_str())))->uniqueID());
    }
    const std::string first = folder.write("waiting.mov", "words");
    const std::string second = folder.write("closed.mov", "words");
    const auto waiting = ask(R::encodeVideoOperation(first, out("first.mp4")))->uniqueID();
    ids.push_back(ask(R::encodeVideoOperation(second, out("second.mp4")))->uniqueID());
    EXPECT_TRUE(ask(R::cancelOperation(waiting))->cancelled());
    EXPECT_TRUE(client->queueShutdownOfCurrentServer());
    // An operation that had not started gets the reply of work that a server refuses.
    EXPECT_THROW(while (!ask(R::progressAndCompletionOperation(ids.back()))->completed()){}, Exception);
    ids.pop_back();
    for (const auto& id : ids) {
        (void)ask(R::cancelOperation(id));
    }
    const std::string log = read();
    EXPECT_TRUE(matches(lineAbout(log, first), "cancelled")) << log;
    EXPECT_TRUE(matches(lineAbout(log, second), "the media server is shutting down")) << log;
    EXPECT_NE(lineAbout(log, second).find("ran 0.00 s"), std::string::npos) << log;
}

TEST_F(Log, IsEmptyByDefault) {
    startLogging({});
    EXPECT_EQ(convert(movie(), out()), nullptr);
    EXPECT_EQ(read(), "");
}

}  // namespace
}  // namespace krv::server
