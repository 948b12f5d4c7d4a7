// Media with the real server, which starts, hangs and is killed.
#include <csignal>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "SystemFixture.h"
#include "WaitUntil.h"

namespace krv::test {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matches;
using testing::SizeIs;
using testing::StartsWith;

class MediaJobs : public SystemFixture {
protected:
    Application& start(bool withServer = true) {
        application = std::make_unique<Application>(install("App", withServer, KRV_MEDIA_APPLICATION));
        return *application;
    }
    /// Starts the application and a conversion of a long movie, and waits until that runs.
    Application& startLongConversion() {
        Application& app = start();
        app.tell("convert one " + media("longer.mov") + ' ' + out("one.mp4"));
        EXPECT_GE(app.waitForProgress("one", 0.02), 0.02);
        return app;
    }

    std::unique_ptr<Application> application;
};

TEST_F(MediaJobs, TheSimplestProgramNeedsNoLoop) {
    ChildProcess process({install("App", true, KRV_MEDIA_APPLICATION), "--no-loop", media("plain.mov")});
    EXPECT_EQ(process.readAll(), "described H.264, AAC\n");
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(MediaJobs, AConversionReportsProgressAndWritesTheMovie) {
    Application& app = start();
    app.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_EQ(app.result("one"), "done");
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 2.0, 0.1);
}

TEST_F(MediaJobs, ThumbnailsReportTheirPicturesAndTheirFailure) {
    Application& app = start();
    app.tell("thumbnails good " + media("plain.mov") + ' ' + out("good"));
    EXPECT_EQ(app.result("good"), "done 12");
    app.tell("thumbnails missing " + media("nosuch.mov") + ' ' + out("missing"));
    EXPECT_THAT(app.result("missing"), StartsWith("failed SourceMissing"));
    app.tell("thumbnails bad " + media("empty.mov") + ' ' + out("bad"));
    EXPECT_THAT(app.result("bad"), StartsWith("failed NotMedia"));
    EXPECT_FALSE(std::filesystem::exists(out("missing")));
}

TEST_F(MediaJobs, ResultsAreTakenByCoroutinesAndByThreadsThatWait) {
    Application& app = start();
    app.tell("await one " + media("plain.mov"));
    EXPECT_EQ(app.result("one"), "done H.264, AAC");
    app.tell("blocking two " + media("plain.mov"));
    EXPECT_EQ(app.result("two"), "done H.264, AAC");
    app.tell("await three " + media("nosuch.mov"));
    EXPECT_THAT(app.result("three"), StartsWith("failed SourceMissing"));
}

TEST_F(MediaJobs, AnApplicationIsRegisteredWithTheServerOfItsFirstJob) {
    Application& app = start();
    EXPECT_EQ(app.ask("status", "status"), "status Unreachable") << "a question does not launch a server";
    app.tell("info one " + media("plain.mov"));
    EXPECT_EQ(app.result("one"), "done H.264, AAC");
    EXPECT_EQ(app.ask("status", "status"), "status 1");
}

TEST_F(MediaJobs, AThousandJobsNeedAsManyThreadsAsOne) {
    Application& app = start();
    const auto threads = [](const std::string& line) { return std::stoi(line.substr(line.rfind(' '))); };
    const int few = threads(app.ask("many 1 " + media("plain.mov"), "many running"));
    app.waitFor("many done 1");
    const int many = threads(app.ask("many 1000 " + media("plain.mov"), "many running"));
    EXPECT_EQ(app.waitFor("many done"), "many done 1000");
    EXPECT_LE(many, few + 2) << "the client's own threads may start in between";
}

TEST_F(MediaJobs, EveryThreadSaysWhoseItIs) {
    Application& app = start();
    app.tell("info one " + media("plain.mov"));
    EXPECT_EQ(app.result("one"), "done H.264, AAC");
    // A thread that has not run yet still has the name of the one that started it.
    const auto named = [&] {
        std::istringstream words(app.ask("threads", "threads").substr(std::string("threads").size()));
        const std::vector<std::string> names{std::istream_iterator<std::string>(words), {}};
        return Matches(AllOf(Contains("KRVJobs"), Contains("KRVServerRunner"), Contains("KRVDiscovery"),
                             Each(AnyOf("reader", StartsWith("KRV"), StartsWith("g"), StartsWith("pool")))))(names);
    };
    waitUntil(named);
}

// Losing the server.

TEST_F(MediaJobs, AServerThatIsKilledInTheFirstJobIsReplaced) {
    Application& app = startLongConversion();
    const Serving before = waitForServer();
    killServer(before.pid);
    EXPECT_EQ(app.result("one"), "done");
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 90.0, 0.5);
    EXPECT_THAT(filesInOut(), ElementsAre("one.mp4"));
}

TEST_F(MediaJobs, AMergeIsRepeatedToo) {
    Application& app = start();
    app.tell("merge one " + media("longer.mov") + ' ' + out("one.mp4"));
    ASSERT_GE(app.waitForProgress("one", 0.01), 0.01);
    killServer(waitForServer().pid);
    EXPECT_EQ(app.result("one"), "done");
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 180.0, 1.0);
}

TEST_F(MediaJobs, AJobFindsTheServerThatReplacedAnIdleOne) {
    Application& app = start();
    app.tell("info one " + media("plain.mov"));
    EXPECT_THAT(app.result("one"), StartsWith("done"));
    killServer(waitForServer().pid);
    app.tell("info two " + media("plain.mov"));
    EXPECT_THAT(app.result("two"), StartsWith("done"));
}

TEST_F(MediaJobs, WithoutABundleAJobFailsAtOnceWithTheReason) {
    Application& app = start(false);
    app.tell("info one " + media("plain.mov"));
    EXPECT_EQ(app.result("one"), "failed Unreachable there is no KRVQuicktimeProcess.app beside the application or its "
                                 "library to start it from");
}

// Cancelling.

TEST_F(MediaJobs, ACancelledConversionLeavesNothing) {
    Application& app = startLongConversion();
    app.tell("cancel one");
    EXPECT_THAT(app.result("one"), StartsWith("failed Cancelled"));
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(MediaJobs, AnObserverThatThrowsCancelsTheConversion) {
    Application& app = startLongConversion();
    app.tell("throw one");
    EXPECT_THAT(app.result("one"), StartsWith("failed Cancelled"));
    app.tell("info two " + media("plain.mov"));
    EXPECT_THAT(app.result("two"), StartsWith("done"));
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(MediaJobs, DestroyingTheHandleCancelsOnTheServer) {
    Application& app = startLongConversion();
    app.ask("drop one", "dropped");
    waitUntil([] { return status(waitForServer().port).find("\"running\":0") != std::string::npos; });
    EXPECT_FALSE(app.hasSaid("one failed"));
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(MediaJobs, CancellingNeedsNoServerThatResponds) {
    Application& app = startLongConversion();
    const Serving server = waitForServer();
    ASSERT_EQ(::kill(server.pid, SIGSTOP), 0);
    app.tell("cancel one");
    EXPECT_THAT(app.result("one"), StartsWith("failed Cancelled"));  // while the server is stopped
    app.tell("info two " + media("plain.mov"));
    app.tell("cancel two");
    EXPECT_THAT(app.result("two"), StartsWith("failed Cancelled"));
    ASSERT_EQ(::kill(server.pid, SIGCONT), 0);
    waitUntil([&server] { return status(server.port).find("\"running\":0") != std::string::npos; });
    EXPECT_THAT(filesInOut(), IsEmpty());
}

TEST_F(MediaJobs, CancellingWorksWhileAServerIsStarting) {
    const std::string program = install("App", false, KRV_MEDIA_APPLICATION);
    replaceServer(program, KRV_SILENT_SERVER);
    Application app(program);
    app.tell("info one " + media("plain.mov"));
    waitUntil([] { return !servers().empty(); });
    app.tell("cancel one");
    EXPECT_THAT(app.result("one"), StartsWith("failed Cancelled"));
}

}  // namespace
}  // namespace krv::test
