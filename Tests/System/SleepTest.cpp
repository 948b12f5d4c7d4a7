// The machine sleeps and wakes while an application runs. After a wake the steps of the server runner run on the
// application's own main loop.
#include <cstdlib>

#include "PrivateBus.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::HasSubstr;
using testing::SizeIs;

class MachineSleep : public SystemFixture {
protected:
    MachineSleep() { ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1); }
    ~MachineSleep() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    /// Lets the machine sleep and wake until the application, which prints its log, has noticed. It misses what happens
    /// before it is connected to the bus.
    void sleepAndWake(Application& application) {
        while (!application.hasSaid("log Wakey wakey... begin monitoring again")) {
            logind.prepareForSleep(true);
            logind.prepareForSleep(false);
            application.ask("port", "port");
        }
    }

    PrivateBus bus;
    MockLogind logind{bus};
};

TEST_F(MachineSleep, WithoutAServerBundleTheApplicationSeesNothingOfTheFailures) {
    Application application(install("App", false));
    application.ask("log", "logging");
    sleepAndWake(application);
    for (int line = 0; line < 3; ++line) {
        EXPECT_THAT(application.waitFor("log Error during ServerRunner thread loop"), HasSubstr("Cannot find the"));
    }
    // A call that runs the main loop while it waits: neither it nor the loop sees the launches fail.
    application.tell("convert-on-main one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_THAT(application.result("one"), HasSubstr("exception OperationFailed"));
    EXPECT_THAT(application.waitFor("log Error during ServerRunner thread loop"), HasSubstr("Cannot find the"));
}

TEST_F(MachineSleep, WithoutDescriptorsTheWatchGoesOnAndTheServerIsFoundAfterwards) {
    Application application(install());
    application.ask("wait-registered", "registered");
    application.ask("log", "logging");
    sleepAndWake(application);
    application.ask("fill", "filled");
    for (const pid_t server : servers()) {
        killServer(server);
    }
    EXPECT_THAT(application.waitFor("log Waiting for a server"), HasSubstr("Waiting for a server to appear"));
    application.ask("free", "freed");
    application.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_EQ(application.result("one"), "done");
    EXPECT_THAT(servers(), SizeIs(1));
}

}  // namespace
}  // namespace krv::test
