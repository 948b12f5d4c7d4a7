// What the library takes of its host: file descriptors, which may be used up at any moment, and threads, which must not
// receive the host's signals.
#include <csignal>

#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::AnyOf;
using testing::StartsWith;

class HostResources : public SystemFixture {
protected:
    static void expectEnd(Application& application, const std::string& call, const std::string& end) {
        EXPECT_TRUE(application.hasSaid("call " + call + ' ' + end)) << call;
    }
};

TEST_F(HostResources, WithoutDescriptorsEveryCallEndsAsDocumented) {
    Application application(install());
    application.ask("wait-registered", "registered");
    application.ask("fill", "filled");
    application.ask("every-call " + media("plain.mov") + ' ' + outFolder().string(), "called");
    for (const char* call : {"convert-type", "convert-settings", "thumbnails", "metadata", "mux", "times"}) {
        expectEnd(application, call, "exception OperationFailed");
    }
    for (const char* call : {"merge", "result", "cancel-all", "register", "unregister", "shutdown"}) {
        expectEnd(application, call, "exception");
    }
    expectEnd(application, "registered", "no");
    expectEnd(application, "ready", "no");
    expectEnd(application, "remove-results", "returned");
    expectEnd(application, "pending", "0");
    EXPECT_THAT(filesInOut(), testing::IsEmpty());

    application.ask("free", "freed");
    application.ask("wait-registered", "registered");
    application.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_EQ(application.result("one"), "done");
    EXPECT_THAT(servers(), testing::SizeIs(1));
}

TEST_F(HostResources, WithFewDescriptorsTheClientIsMadeOrSaysWhyNot) {
    const std::string program = install();
    for (int further = 0; further <= 48; ++further) {
        Application application(program, {"--descriptors", std::to_string(further)});
        EXPECT_EQ(application.waitFor("turned"), "turned") << further;
        EXPECT_NE(application.hasSaid("client made"), application.hasSaid("exception OutOfDescriptors: There are no "))
            << further;
        if (further % 12 == 0) {
            EXPECT_THAT(application.ask("wait-registered", "registered"), StartsWith("registered after")) << further;
        }
        application.kill();
    }
}

TEST_F(HostResources, NoThreadOfTheLibraryTakesASignalOfTheHost) {
    Application application(install());
    application.ask("wait-registered", "registered");
    EXPECT_EQ(application.ask("signals", "signals"), "signals");
}

}  // namespace
}  // namespace krv::test
