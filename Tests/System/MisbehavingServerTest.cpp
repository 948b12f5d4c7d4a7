// An application and an impostor: a program that is published under the media server's name and speaks HTTP, but not
// our protocol.
#include <KRVQTProcessClient/Discovery/HTTPServerDiscovery.h>
#include <KRVQTProcessClient/Discovery/ServerNaming.h>

#include "ScriptedServerProcess.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class MisbehavingServer : public SystemFixture {
protected:
    /// Publishes an impostor under the server's name, which responds as the options say. The application has no server
    /// of its own to launch.
    void start(const ScriptedServerProcess::Options& options) {
        impostor = std::make_unique<ScriptedServerProcess>(options);
        announcer = std::make_unique<ChildProcess>(std::vector<std::string>{
            KRV_SERVICE_ANNOUNCER, ServerNaming::machineSpecificNameFor(kHTTPServerDiscoveryDefaultServiceName),
            std::to_string(impostor->port()), "--no-listener"});
        ASSERT_THAT(announcer->readLine().value_or(""), StartsWith("established"));
        application = std::make_unique<Application>(install("App", false));
        waitUntil([&] { return application->ask("port", "port ") == "port " + std::to_string(impostor->port()); });
        application->ask("log", "logging");
    }
    std::string convert() {
        application->tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
        return application->result("one");
    }
    /// Expects that registration fails and discovery searches again, repeatedly, and that nothing is launched.
    void expectRegistrationToFail() {
        for (int i = 0; i < 2; ++i) {
            EXPECT_THAT(application->waitFor("log Failed to register"), HasSubstr("Starting from scratch."));
        }
        EXPECT_EQ(application->ask("registered", "registered"), "registered no");
        EXPECT_THAT(filesInOut(), testing::IsEmpty());
    }

    std::unique_ptr<ScriptedServerProcess> impostor;
    std::unique_ptr<ChildProcess> announcer;
    std::unique_ptr<Application> application;
};

TEST_F(MisbehavingServer, ThatRespondsNotFoundHasNotReplied) {
    start({"status", "404", "body", "Not found"});
    EXPECT_THAT(convert(), StartsWith("exception TransportCheck: Unable to Encode video"));
    expectRegistrationToFail();
}

TEST_F(MisbehavingServer, ThatRespondsWithGarbageHasNotReplied) {
    start({"body", "bplist00 and then nothing of the kind"});
    EXPECT_THAT(convert(), StartsWith("exception TransportCheck: Unable to Encode video"));
    expectRegistrationToFail();
}

TEST_F(MisbehavingServer, ThatClosesInTheMiddleOfAResponseIsUnreachable) {
    start({"body", "half of what was promised", "claim", "1000"});
    EXPECT_EQ(convert(), "exception OperationFailed: Call to convertMovie:writeToFile:type:flattenOnly:progress:error: "
                         "failed. The server couldn't be contacted");
    expectRegistrationToFail();
}

TEST_F(MisbehavingServer, ThatSendsAByteASecondTimesOutAfterAMinute) {
    start({"body-size", "100000", "behave", "drip", "pause", "1000"});
    EXPECT_THAT(application->waitFor("log Failed to register"), HasSubstr("Starting from scratch."));
    EXPECT_THAT(filesInOut(), testing::IsEmpty());
}

TEST_F(MisbehavingServer, ThatClosesEveryConnectionIsUnreachable) {
    start({"behave", "drop"});
    EXPECT_THAT(convert(), StartsWith("exception OperationFailed"));
    expectRegistrationToFail();
}

}  // namespace
}  // namespace krv::test
