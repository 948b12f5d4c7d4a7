// krvqt as a person uses it, with the server coming and going under it.
#include <algorithm>
#include <csignal>

#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Krvqt : public SystemFixture {
protected:
    /// Runs it with standard error on its standard output.
    static std::vector<std::string> command(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"sh", "-c", "exec \"$@\" 2>&1", "sh", KRV_KRVQT};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    static std::pair<int, std::string> run(const std::vector<std::string>& arguments) {
        ChildProcess process(command(arguments));
        std::string text = process.readAll();
        return {process.wait(), text};
    }
    std::vector<std::string> conversion(const char* source) const { return {"convert", media(source), out("out.mp4")}; }
    /// Reads until the tool prints a line with that in it.
    static void waitForLine(ChildProcess& process, const std::string& part) {
        while (const auto line = process.readLine()) {
            if (line->find(part) != std::string::npos) {
                return;
            }
        }
        FAIL() << "it ended before it printed " << part;
    }
};

TEST_F(Krvqt, LaunchesTheServerConvertsAndLeavesItRunning) {
    const auto [status, text] = run(conversion("plain.mov"));
    EXPECT_EQ(status, 0);
    EXPECT_THAT(text, AllOf(HasSubstr("100 %"), HasSubstr(out("out.mp4") + "\n"), HasSubstr("krvqt: done")));
    EXPECT_NEAR(readableSeconds(out("out.mp4")), 2.0, 0.1);
    EXPECT_THAT(servers(), testing::SizeIs(1));
}

TEST_F(Krvqt, SaysThatTheServerWasLostAndFinishesTheWork) {
    ChildProcess process(command(conversion("longer.mov")));
    waitForLine(process, "10 %");
    killServer(waitForServer().pid);
    const std::string rest = process.readAll();
    EXPECT_EQ(process.wait(), 0);
    EXPECT_THAT(rest, AllOf(HasSubstr("the media server was lost; another one begins anew"), HasSubstr("krvqt: done")));
    EXPECT_NEAR(readableSeconds(out("out.mp4")), 90.0, 0.5);
    EXPECT_THAT(filesInOut(), ElementsAre("out.mp4"));
}

TEST_F(Krvqt, IsCancelledByASignal) {
    ChildProcess process(command(conversion("longer.mov")));
    waitForLine(process, "0 %");
    process.signal(SIGINT);
    EXPECT_THAT(process.readAll(), HasSubstr("krvqt: cancelled; " + out("out.mp4") + " was not written"));
    EXPECT_EQ(process.wait(), 130);
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(Krvqt, IsCancelledByAnother) {
    ChildProcess process(command(conversion("longer.mov")));
    waitForLine(process, "0 %");
    const auto [status, text] = run({"cancel-all"});
    EXPECT_EQ(status, 0) << text;
    const std::string rest = process.readAll();
    EXPECT_EQ(process.wait(), 130) << rest;
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(Krvqt, TellsThatNoServerRunsWithoutStartingOne) {
    for (const char* command : {"status", "cancel-all", "shutdown"}) {
        const auto [status, text] = run({command});
        EXPECT_EQ(status, 3) << command;
        EXPECT_EQ(text, "krvqt: no media server is running\n");
    }
    EXPECT_THAT(servers(), IsEmpty());
}

TEST_F(Krvqt, EndsTheServer) {
    EXPECT_EQ(run(conversion("plain.mov")).first, 0);
    EXPECT_EQ(run({"shutdown"}).first, 0);
    waitUntil([] { return servers().empty(); });
}

}  // namespace
}  // namespace krv::test
